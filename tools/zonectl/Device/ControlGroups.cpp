#include "Device/ControlGroups.h"

#include <algorithm>
#include <array>
#include <sstream>

namespace Zonectl {

namespace {

constexpr int DEEPEST_GROUP = 32;

struct Parent
{
    std::string_view name;
    bool payload;
};
constexpr std::array PARENTS = {Parent{"lxc.payload", true}, Parent{"lxc.monitor", false}};

/// A field of the mount table, in which blanks and backslashes stand as octal numbers.
[[nodiscard]] std::string unescaped(std::string_view field)
{
    constexpr std::size_t DIGITS = 3;
    const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const std::string_view digits = field.substr(i + 1).substr(0, DIGITS);
        if (field[i] == '\\' && digits.size() == DIGITS &&
            std::all_of(digits.begin(), digits.end(), isOctal)) {
            text += static_cast<char>(std::stoi(std::string(digits), nullptr, 8));
            i += DIGITS;
        } else {
            text += field[i];
        }
    }
    return text;
}

/// A line of the table of mounts that is a hierarchy of control groups.
struct HierarchyMount
{
    std::string root; ///< the group that is seen at the top
    std::string point;
    std::string type;
    std::string options;

    /// Whether a line of /proc/PID/cgroup with these controllers is about this hierarchy.
    [[nodiscard]] bool has(const std::string& controllers) const
    {
        if (controllers.empty()) {
            return type == "cgroup2";
        }
        const auto listed = [](const std::string& list) { return "," + list + ","; };
        return type == "cgroup" && listed(options).find(listed(controllers)) != std::string::npos;
    }
};

[[nodiscard]] std::vector<HierarchyMount> hierarchyMounts(const Machine& machine)
{
    std::vector<HierarchyMount> mounts;
    std::istringstream lines(machine.read("/proc/self/mountinfo").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        // "32 31 0:29 / /sys/fs/cgroup/cpu rw,relatime shared:9 - cgroup cgroup rw,cpu"
        HierarchyMount mount;
        std::string skipped;
        std::istringstream fields(line);
        fields >> skipped >> skipped >> skipped >> mount.root >> mount.point;
        while (fields >> skipped && skipped != "-") {
        }
        fields >> mount.type >> skipped >> mount.options;
        mount.root = unescaped(mount.root);
        mount.point = unescaped(mount.point);
        if (mount.type == "cgroup" || mount.type == "cgroup2") {
            mounts.push_back(std::move(mount));
        }
    }
    return mounts;
}

/// What is left of a group's path below the group that is seen at the top; empty for that one itself, and for
/// one that cannot be seen.
[[nodiscard]] std::string seenBelow(const std::string& root, std::string group)
{
    constexpr std::string_view INIT_SCOPE = "/init.scope"; // systemd's own, which LXC takes off as well
    if (group.ends_with(INIT_SCOPE)) {
        group.erase(group.size() - INIT_SCOPE.size());
    }
    const std::string top = root == "/" ? "" : root;
    return group.starts_with(top + "/") && group.size() > top.size() + 1 ? group.substr(top.size()) : "";
}

[[nodiscard]] std::string below(const std::string& directory, std::string_view name)
{
    std::string path = directory;
    return path.append("/").append(name);
}

/// Collects the processes of a group and of those below it. What cannot be read may hold any process.
void collectProcesses(const Machine& machine, const std::string& path, int depth, ControlGroup& group)
{
    const auto text = machine.read(path + "/cgroup.procs");
    if (!text || depth > DEEPEST_GROUP) {
        group.populated = true;
    }
    std::istringstream numbers(text.value_or(""));
    for (pid_t pid = 0; numbers >> pid;) {
        group.populated = true;
        if (pid > 0) { // 0 stands for a process that cannot be seen from here
            group.pids.push_back(pid);
        }
    }
    if (depth > DEEPEST_GROUP) {
        return;
    }
    for (const std::string& name : machine.entries(path)) {
        if (const std::string child = below(path, name); machine.isDirectory(child)) {
            collectProcesses(machine, child, depth + 1, group);
        }
    }
}

[[nodiscard]] std::string firstWord(const std::optional<std::string>& text)
{
    std::string word;
    std::istringstream(text.value_or("")) >> word;
    return word;
}

[[nodiscard]] FreezerState versionOneFreezer(const Machine& machine, const std::string& path,
                                             const std::string& word)
{
    FreezerState state{.file = path + "/freezer.state", .thawed = "THAWED"};
    state.asked = firstWord(machine.read(path + "/freezer.self_freezing")) == "1";
    if (word == "FREEZING") {
        state.progress = FreezerState::Progress::Freezing;
    } else if (word == "FROZEN") {
        state.progress = FreezerState::Progress::Frozen;
    }
    return state;
}

[[nodiscard]] FreezerState versionTwoFreezer(const Machine& machine, const std::string& path)
{
    FreezerState state{.file = path + "/cgroup.freeze", .thawed = "0"};
    state.asked = firstWord(machine.read(state.file)) == "1";
    const std::string events = machine.read(path + "/cgroup.events").value_or("");
    if (events.find("frozen 1") != std::string::npos) {
        state.progress = FreezerState::Progress::Frozen;
    } else if (state.asked) {
        state.progress = FreezerState::Progress::Freezing;
    }
    return state;
}

class GroupSearch
{
public:
    explicit GroupSearch(const Machine& searched) : machine(searched) {}

    void lookBelow(const std::string& mount)
    {
        for (const std::string& name : machine.entries(mount)) {
            for (const Parent& parent : PARENTS) {
                if (name == parent.name) {
                    for (const std::string& child : machine.entries(below(mount, name))) {
                        add(mount, below(name, child), child, parent.payload, true);
                    }
                } else if (name.starts_with(std::string(parent.name) + ".")) {
                    add(mount, name, name.substr(parent.name.size() + 1), parent.payload, false);
                }
            }
        }
    }

    [[nodiscard]] std::vector<ControlGroup> take() { return std::move(groups); }

private:
    void add(const std::string& mount, const std::string& relative, const std::string& tail, bool payload,
             bool exclusive)
    {
        ControlGroup group{.path = mount + "/" + relative,
                           .relative = relative,
                           .tail = tail,
                           .payload = payload,
                           .exclusive = exclusive};
        if (!tail.empty() && machine.isDirectory(group.path)) {
            collectProcesses(machine, group.path, 0, group);
            groups.push_back(std::move(group));
        }
    }

    const Machine& machine;
    std::vector<ControlGroup> groups;
};

} // namespace

bool ControlGroup::holds(pid_t pid) const
{
    return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

std::vector<std::string> cgroupMounts(const Machine& machine)
{
    std::vector<std::string> points;
    std::istringstream lines(machine.read("/proc/self/mounts").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string source;
        std::string point;
        std::string type;
        fields >> source >> point >> type;
        point = unescaped(point);
        // A later mount on the same point hides the earlier.
        if ((type == "cgroup" || type == "cgroup2") &&
            std::find(points.begin(), points.end(), point) == points.end()) {
            points.push_back(point);
        }
    }
    return points;
}

std::vector<NestedHierarchy> nestedHierarchies(const Machine& machine)
{
    const std::vector<HierarchyMount> mounts = hierarchyMounts(machine);
    std::vector<NestedHierarchy> nested;
    std::istringstream lines(machine.read("/proc/1/cgroup").value_or(""));
    std::string controllers;
    // "1:cpu,cpuacct:/group"
    while (std::getline(lines, controllers, ':') && std::getline(lines, controllers, ':')) {
        std::string group;
        std::getline(lines, group);
        const auto mount = std::find_if(mounts.begin(), mounts.end(),
                                        [&](const HierarchyMount& each) { return each.has(controllers); });
        if (mount == mounts.end()) {
            continue;
        }
        if (const std::string path = seenBelow(mount->root, group); !path.empty()) {
            nested.push_back(
                {.controllers = controllers, .mount = mount->point, .group = mount->point + path});
        }
    }
    return nested;
}

std::vector<ControlGroup> lxcControlGroups(const Machine& machine)
{
    GroupSearch search(machine);
    for (const std::string& mount : cgroupMounts(machine)) {
        search.lookBelow(mount);
    }
    for (const NestedHierarchy& hierarchy : nestedHierarchies(machine)) {
        search.lookBelow(hierarchy.group);
    }
    return search.take();
}

ControlGroup controlGroupAt(const Machine& machine, const std::string& path)
{
    ControlGroup group{.path = path};
    collectProcesses(machine, path, 0, group);
    return group;
}

FreezerState freezerState(const Machine& machine, const std::string& path)
{
    if (const std::string word = firstWord(machine.read(path + "/freezer.state")); !word.empty()) {
        return versionOneFreezer(machine, path, word);
    }
    if (machine.exists(path + "/cgroup.freeze")) {
        return versionTwoFreezer(machine, path);
    }
    return {};
}

std::string_view withoutCopyNumber(std::string_view tail)
{
    const std::size_t last = tail.find_last_not_of("0123456789");
    const bool numbered = last != std::string_view::npos && last + 1 < tail.size() && tail[last] == '-';
    return numbered && last > 0 ? tail.substr(0, last) : tail;
}

} // namespace Zonectl
