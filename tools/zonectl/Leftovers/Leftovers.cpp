#include "Leftovers/Leftovers.h"

#include "Daemon/Names.h"
#include "Device/ControlGroups.h"
#include "Device/ProcessTable.h"
#include "Doctor/Repair.h"
#include "Leftovers/PidFile.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <thread>

namespace Zonectl {

namespace {

constexpr std::chrono::milliseconds FREEZING_STEP(50);
constexpr std::string_view PID_FILE_SUFFIX = ".pid";
constexpr pid_t ADOPTIVE_PARENT = 1;
constexpr std::string_view UNPROVEN = "; that it is this container's cannot be proven";

/// Whether /proc/locks tells of a lock on the file.
[[nodiscard]] bool isLocked(const std::string& locks, const FileStatus& file)
{
    std::istringstream lines(locks);
    for (std::string line; std::getline(lines, line);) {
        // "1: FLOCK  ADVISORY  WRITE 389 00:5e:15 0 EOF"; one that waits has "->" behind the number.
        std::istringstream fields(line);
        for (std::string field; fields >> field;) {
            unsigned int major = 0;
            unsigned int minor = 0;
            unsigned long long inode = 0;
            // NOLINTNEXTLINE(cert-err34-c): what the kernel wrote.
            if (std::sscanf(field.c_str(), "%x:%x:%llu", &major, &minor, &inode) == 3 &&
                file.sameFileAs({.deviceMajor = major, .deviceMinor = minor, .inode = inode})) {
                return true;
            }
        }
    }
    return false;
}

/// The abstract and other addresses of the Unix sockets.
[[nodiscard]] std::vector<std::string> unixAddresses(const Machine& machine)
{
    std::vector<std::string> addresses;
    std::istringstream lines(machine.read("/proc/net/unix").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t blank = line.find_last_of(' ');
        addresses.push_back(blank == std::string::npos ? line : line.substr(blank + 1));
    }
    return addresses;
}

/// Whether the process works in the container's own root file system; nothing when the two cannot be
/// compared, as for a file system out of an image.
[[nodiscard]] std::optional<bool> livesIn(const Machine& machine, pid_t pid, const ContainerInfo& container)
{
    const auto actual = machine.status("/proc/" + std::to_string(pid) + "/root/");
    if (!actual || container.rootfsPath.empty() || !machine.isDirectory(container.rootfsPath)) {
        return std::nullopt;
    }
    const auto configured = machine.status(container.rootfsPath);
    return configured && actual->sameFileAs(*configured);
}

[[nodiscard]] std::string thawCommand(const FreezerState& freezer)
{
    return "echo " + freezer.thawed + " > " + shellWord(freezer.file);
}

class Search
{
public:
    Search(const Machine& searched, const ContainerListing& known, std::chrono::milliseconds freezing)
        : machine(searched), listing(known), stuckFreezers(stillFreezing(freezing)),
          groups(lxcControlGroups(searched)), processes(searched), addresses(unixAddresses(searched))
    {}

    [[nodiscard]] std::vector<Leftover> run()
    {
        findInits();
        findFrozen();
        findControlGroups();
        findPidFiles();
        findFifo();
        findInstanceLock();
        return std::move(found);
    }

private:
    [[nodiscard]] const ContainerInfo* listed(std::string_view name) const
    {
        const auto at = std::find_if(listing.containers.begin(), listing.containers.end(),
                                     [name](const ContainerInfo& info) { return info.name == name; });
        return at == listing.containers.end() ? nullptr : &*at;
    }

    /// The listed container that a group belongs to; null when there is none.
    [[nodiscard]] const ContainerInfo* ownerOf(const ControlGroup& group) const
    {
        const ContainerInfo* owner = listed(group.tail);
        return owner != nullptr ? owner : listed(withoutCopyNumber(group.tail));
    }

    /// The listed containers' groups that are on the way into the freezer all the time that is given to them.
    [[nodiscard]] std::set<std::string> stillFreezing(std::chrono::milliseconds patience) const
    {
        const auto isFreezing = [this](const std::string& path) {
            return freezerState(machine, path).progress == FreezerState::Progress::Freezing;
        };
        std::set<std::string> paths;
        for (const ControlGroup& group : lxcControlGroups(machine)) {
            if (group.payload && group.populated && ownerOf(group) != nullptr && isFreezing(group.path)) {
                paths.insert(group.path);
            }
        }
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!paths.empty() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(FREEZING_STEP);
            std::erase_if(paths, [&](const std::string& path) { return !isFreezing(path); });
        }
        return paths;
    }

    /// Whether the container, of whatever user, runs or comes up: it has a monitor process, by its title, its
    /// command socket or its control group, or an init with a parent that looks after it. A monitor in the
    /// foreground has no title, one of a long path no telling socket, so that each sign counts alone.
    [[nodiscard]] bool runs(std::string_view name) const
    {
        const std::string socketEnd = "/" + std::string(name) + "/command";
        return processes.hasMonitorOf(name) ||
               std::any_of(addresses.begin(), addresses.end(),
                           [&](const std::string& address) { return address.ends_with(socketEnd); }) ||
               std::any_of(groups.begin(), groups.end(), [&](const ControlGroup& group) {
                   return mayBelongTo(group, name) &&
                          (group.payload ? hasParentedInit(group) : group.populated);
               });
    }

    /// Whether the group is that of the listed container, and not of one of the same name below another path:
    /// what its init says, or nothing when that cannot be told. Without an init the name decides.
    [[nodiscard]] std::optional<bool> isOwn(const ControlGroup& group, const ContainerInfo& owner) const
    {
        bool certain = true;
        for (const pid_t pid : group.pids) {
            const ProcessInfo* process = processes.find(pid);
            if (process == nullptr || !process->namespaceInit || process->dead() ||
                group.holds(process->parent)) {
                continue; // no init, or that of a container inside
            }
            const std::optional<bool> own = livesIn(machine, pid, owner);
            if (own == false) {
                return false;
            }
            certain = certain && own.has_value();
        }
        return certain ? std::optional(true) : std::nullopt;
    }

    /// Whether an init in the group has a parent outside of it that did not just adopt it.
    [[nodiscard]] bool hasParentedInit(const ControlGroup& group) const
    {
        return std::any_of(group.pids.begin(), group.pids.end(), [&](pid_t pid) {
            const ProcessInfo* process = processes.find(pid);
            return process != nullptr && process->namespaceInit && process->parent != ADOPTIVE_PARENT &&
                   !group.holds(process->parent);
        });
    }

    /// "NAME-1" may be a container of that name, or the first copy of NAME's group; only the form with a
    /// slash, of which there are no copies, leaves no doubt when that name is defined.
    [[nodiscard]] bool mayBelongTo(const ControlGroup& group, std::string_view name) const
    {
        const bool unmistakable = group.exclusive && listed(group.tail) != nullptr;
        return group.tail == name || (!unmistakable && withoutCopyNumber(group.tail) == name);
    }

    /// Whether a container that runs may own the group.
    [[nodiscard]] bool ownerRuns(const ControlGroup& group) const
    {
        const std::string_view original = withoutCopyNumber(group.tail);
        return runs(group.tail) || (mayBelongTo(group, original) && runs(original));
    }

    void findInits()
    {
        std::set<pid_t> seen;
        for (const ControlGroup& group : groups) {
            const ContainerInfo* owner = group.payload ? ownerOf(group) : nullptr;
            if (owner == nullptr || ownerRuns(group)) {
                continue;
            }
            for (const pid_t pid : group.pids) {
                const ProcessInfo* process = processes.find(pid);
                if (process != nullptr && process->namespaceInit && !process->dead() &&
                    process->parent == ADOPTIVE_PARENT && seen.insert(pid).second) {
                    addInit(*process, *owner);
                }
            }
        }
    }

    void addInit(const ProcessInfo& process, const ContainerInfo& owner)
    {
        const std::optional<bool> own = livesIn(machine, process.pid, owner);
        if (own == false) {
            return; // a container of the same name below another path
        }
        const std::string number = std::to_string(process.pid);
        Leftover leftover{.kind = LeftoverKind::Init,
                          .container = owner.name,
                          .paths = {"/proc/" + number},
                          .why = "its container has no LXC monitor process: LXC takes it for stopped",
                          .remedy = "kill -KILL " + number,
                          .pid = process.pid,
                          .startTicks = process.startTicks};
        if (!own.has_value()) {
            leftover.removable = false;
            leftover.why += UNPROVEN;
        }
        for (const ControlGroup& group : groups) {
            if (const FreezerState freezer =
                    group.holds(process.pid) ? freezerState(machine, group.path) : FreezerState{};
                freezer.progress != FreezerState::Progress::Thawed) {
                leftover.thaws.emplace_back(freezer.file, freezer.thawed);
                leftover.remedy += "; " + thawCommand(freezer);
            }
        }
        found.push_back(std::move(leftover));
    }

    void findFrozen()
    {
        for (const ControlGroup& group : groups) {
            const ContainerInfo* owner = group.payload && group.populated ? ownerOf(group) : nullptr;
            if (owner == nullptr || isOwn(group, *owner) == false) {
                continue;
            }
            const FreezerState state = freezerState(machine, group.path);
            if (state.progress == FreezerState::Progress::Thawed) {
                continue;
            }
            if (ownerRuns(group)) {
                checkFrozenWhileRunning(state, *owner, group);
            } else if (!holdsFoundInit(group)) {
                addFrozen(state, *owner, group, "frozen, and there is no LXC monitor process to thaw it");
            }
        }
    }

    /// An init is thawed with its end.
    [[nodiscard]] bool holdsFoundInit(const ControlGroup& group) const
    {
        return std::any_of(found.begin(), found.end(), [&group](const Leftover& leftover) {
            return leftover.kind == LeftoverKind::Init && group.holds(leftover.pid);
        });
    }

    /// A container that runs is rightly frozen when its own group was asked to be, and is so before long.
    void checkFrozenWhileRunning(const FreezerState& state, const ContainerInfo& owner,
                                 const ControlGroup& group)
    {
        if (state.progress == FreezerState::Progress::Freezing && stuckFreezers.contains(group.path)) {
            addFrozen(state, owner, group, "stuck in FREEZING: it neither runs nor is frozen");
        } else if (state.progress == FreezerState::Progress::Frozen && !state.asked) {
            addFrozen(state, owner, group, "frozen, and nobody asked for it");
        }
    }

    void addFrozen(const FreezerState& state, const ContainerInfo& owner, const ControlGroup& group,
                   std::string why)
    {
        Leftover leftover{.kind = LeftoverKind::Frozen,
                          .container = owner.name,
                          .paths = {group.path},
                          .why = std::move(why),
                          .remedy = thawCommand(state),
                          .thaws = {{state.file, state.thawed}}};
        if (!isOwn(group, owner).has_value()) {
            leftover.removable = false;
            leftover.why += UNPROVEN;
        }
        if (!state.asked) {
            leftover.removable = false; // it is not for one container to thaw all others of that group
            leftover.why += "; a group above it is";
            leftover.remedy = "thaw the group above it";
        }
        found.push_back(std::move(leftover));
    }

    void findControlGroups()
    {
        std::set<std::string> seen;
        for (const ControlGroup& first : groups) {
            if (!seen.insert(first.relative).second || ownerRuns(first)) {
                continue;
            }
            std::vector<std::string> paths;
            bool populated = false;
            for (const ControlGroup& group : groups) {
                if (group.relative == first.relative) {
                    paths.push_back(group.path);
                    populated = populated || group.populated;
                }
            }
            const ContainerInfo* owner = ownerOf(first);
            if (populated && (owner == nullptr || isSomebodyElses(first.relative, *owner))) {
                continue;
            }
            Leftover leftover{.kind = LeftoverKind::ControlGroup,
                              .container = owner != nullptr ? owner->name : first.tail,
                              .paths = std::move(paths),
                              .why = populated ? "its container has no LXC monitor process, but processes"
                                               : "its container does not run",
                              .populated = populated};
            leftover.remedy = "find " + placeOf(leftover) + " -depth -type d -exec rmdir {} \\;";
            found.push_back(std::move(leftover));
        }
    }

    /// Whether a control group of that name holds another user's container in some hierarchy.
    [[nodiscard]] bool isSomebodyElses(const std::string& relative, const ContainerInfo& owner) const
    {
        return std::any_of(groups.begin(), groups.end(), [&](const ControlGroup& group) {
            return group.relative == relative && isOwn(group, owner) == false;
        });
    }

    /// Whether the name is one of a container: listed, or found among LXC's control groups.
    [[nodiscard]] bool isKnown(const std::string& name) const
    {
        return listed(name) != nullptr ||
               std::any_of(groups.begin(), groups.end(),
                           [&](const ControlGroup& group) { return mayBelongTo(group, name); });
    }

    void findPidFiles()
    {
        for (const std::string& file : machine.entries(Names::PID_FILE_DIRECTORY)) {
            if (!file.ends_with(PID_FILE_SUFFIX)) {
                continue;
            }
            const std::string name = file.substr(0, file.size() - PID_FILE_SUFFIX.size());
            const std::string path = std::string(Names::PID_FILE_DIRECTORY) + "/" + file;
            if (!isKnown(name) || runs(name)) {
                continue;
            }
            if (const std::string why = whyStale(machine, processes, path); !why.empty()) {
                found.push_back({.kind = LeftoverKind::PidFile,
                                 .container = name,
                                 .paths = {path},
                                 .why = why,
                                 .remedy = "rm " + shellWord(path)});
            }
        }
    }

    void findFifo()
    {
        if (listing.lxcPath.empty()) {
            return;
        }
        const std::string path =
            std::string(Names::RUN_DIRECTORY) + listing.lxcPath + "/" + Names::MONITOR_FIFO;
        if (const auto status = machine.status(path); status && status->isFifo) {
            addUnlessLocked(LeftoverKind::MonitorFifo, path, *status);
        }
    }

    void findInstanceLock()
    {
        if (const auto status = machine.status(Names::INSTANCE_LOCK)) {
            addUnlessLocked(LeftoverKind::InstanceLock, Names::INSTANCE_LOCK, *status);
        }
    }

    void addUnlessLocked(LeftoverKind kind, const std::string& path, const FileStatus& status)
    {
        const auto locks = machine.read("/proc/locks");
        if (locks && !isLocked(*locks, status)) {
            found.push_back({.kind = kind,
                             .paths = {path},
                             .why = "nobody holds it",
                             .remedy = "none is needed: the daemon's next start takes it over",
                             .harmless = true});
        }
    }

    const Machine& machine;
    const ContainerListing& listing;
    // In the order in which they are looked at. The wait for the freezers comes before what would grow old in
    // it. The signs of a container that comes up are looked at after what it must not be robbed of.
    std::set<std::string> stuckFreezers;
    std::vector<ControlGroup> groups;
    ProcessTable processes;
    std::vector<std::string> addresses;
    std::vector<Leftover> found;
};

} // namespace

std::vector<Leftover> findLeftovers(const Machine& machine, const ContainerListing& listing,
                                    std::chrono::milliseconds freezing)
{
    return Search(machine, listing, freezing).run();
}

bool Leftover::sameAs(const Leftover& other) const
{
    return kind == other.kind && container == other.container && paths == other.paths && pid == other.pid &&
           startTicks == other.startTicks;
}

std::string_view leftoverWord(LeftoverKind kind)
{
    switch (kind) {
    case LeftoverKind::Init:
        return "init process";
    case LeftoverKind::Frozen:
        return "frozen group";
    case LeftoverKind::ControlGroup:
        return "control group";
    case LeftoverKind::PidFile:
        return "pid file";
    case LeftoverKind::MonitorFifo:
        return "monitor FIFO";
    case LeftoverKind::InstanceLock:
        return "instance lock";
    }
    return "";
}

std::string placeOf(const Leftover& leftover)
{
    const std::vector<std::string>& paths = leftover.paths;
    if (paths.size() < 2) {
        return paths.empty() ? "" : shellWord(paths.front());
    }
    // All end alike, with the group's name; what differs are the hierarchies in front of it.
    const std::string& one = paths.front();
    std::size_t head = one.size();
    std::size_t tail = head;
    for (const std::string& other : paths) {
        const std::size_t shorter = std::min(one.size(), other.size());
        const auto front =
            std::mismatch(one.begin(), one.begin() + static_cast<std::ptrdiff_t>(shorter), other.begin());
        const auto back =
            std::mismatch(one.rbegin(), one.rbegin() + static_cast<std::ptrdiff_t>(shorter), other.rbegin());
        head = std::min(head, static_cast<std::size_t>(front.first - one.begin()));
        tail = std::min(tail, static_cast<std::size_t>(back.first - one.rbegin()));
    }
    head = one.rfind('/', head == 0 ? 0 : head - 1) + 1; // whole names between the slashes
    tail = one.size() - one.find('/', one.size() - tail);
    const auto oneNameBetween = [&](const std::string& path) {
        return path.size() > head + tail && path.find('/', head) >= path.size() - tail;
    };
    if (std::all_of(paths.begin(), paths.end(), oneNameBetween)) {
        return shellWord(one.substr(0, head)) + "*" + shellWord(one.substr(one.size() - tail));
    }
    std::string text;
    for (const std::string& path : paths) {
        text += (text.empty() ? "" : " ") + shellWord(path);
    }
    return text;
}

} // namespace Zonectl
