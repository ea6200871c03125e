#include "Watch/ZoneUsage.h"

#include "Device/Containers.h"
#include "Device/ControlGroups.h"
#include "Device/ProcessTable.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace Zonectl {

namespace {

constexpr std::string_view COPIES = "lxc.payload."; ///< what LXC's own names begin with

/// The number that follows a key, or the first number for an empty key.
[[nodiscard]] std::optional<std::int64_t> numberIn(const std::optional<std::string>& text,
                                                   std::string_view key)
{
    std::istringstream lines(text.value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string word;
        std::int64_t number = 0;
        if (!key.empty() && (!(fields >> word) || word != key)) {
            continue;
        }
        if (fields >> number) {
            return number;
        }
    }
    return std::nullopt;
}

/// The container's groups, one of each hierarchy that has one.
class PayloadGroups
{
public:
    PayloadGroups(const Machine& searched, const std::string& lxcPath, const std::string& containerName)
        : machine(searched), path(lxcPath), name(containerName),
          configured(readContainer(machine, path, name).payloadCgroup)
    {
        for (const std::string& mount : cgroupMounts(machine)) {
            take(mount);
        }
    }

    [[nodiscard]] const std::vector<ControlGroup>& all() const { return groups; }

private:
    /// Of several, the one in which something runs.
    void take(const std::string& mount)
    {
        std::optional<ControlGroup> found;
        for (const std::string& relative : candidates(mount)) {
            std::string directory = mount;
            directory.append("/").append(relative);
            if (machine.isDirectory(directory) && (!found || found->pids.empty())) {
                ControlGroup group = controlGroupAt(machine, directory);
                if (!found || !group.pids.empty()) {
                    found = std::move(group);
                }
            }
        }
        if (found) {
            groups.push_back(std::move(*found));
        }
    }

    [[nodiscard]] std::vector<std::string> candidates(const std::string& mount) const
    {
        if (!configured.empty()) {
            return {configured};
        }
        std::vector<std::string> names = {"lxc.payload/" + name};
        for (const std::string& entry : machine.entries(mount)) {
            if (entry.starts_with(COPIES) && isOurs(entry.substr(COPIES.size()))) {
                names.push_back(entry);
            }
        }
        return names;
    }

    /// Whether the tail is the name, or that of a further copy and not of another container.
    [[nodiscard]] bool isOurs(const std::string& tail) const
    {
        return tail == name ||
               (withoutCopyNumber(tail) == name && !machine.exists(path + "/" + tail + "/config"));
    }

    const Machine& machine;
    const std::string& path;
    const std::string& name;
    std::string configured;
    std::vector<ControlGroup> groups;
};

[[nodiscard]] std::optional<Micros> processorTime(const Machine& machine, const std::string& group)
{
    constexpr std::int64_t NANOS_IN_MICRO = 1000;
    if (const auto nanos = numberIn(machine.read(group + "/cpuacct.usage"), "")) {
        return *nanos / NANOS_IN_MICRO;
    }
    return numberIn(machine.read(group + "/cpu.stat"), "usage_usec");
}

[[nodiscard]] std::optional<std::int64_t> memoryBytes(const Machine& machine, const std::string& group)
{
    const auto versionOne = numberIn(machine.read(group + "/memory.usage_in_bytes"), "");
    return versionOne ? versionOne : numberIn(machine.read(group + "/memory.current"), "");
}

/// A threaded group does not tell its processes, but how many tasks there are.
[[nodiscard]] std::optional<std::int64_t> processCount(const Machine& machine, const ControlGroup& group)
{
    if (!group.pids.empty() || !group.populated) {
        return static_cast<std::int64_t>(group.pids.size());
    }
    return numberIn(machine.read(group.path + "/pids.current"), "");
}

/// The first process was there before all others.
[[nodiscard]] std::optional<std::int64_t> uptimeSeconds(const Machine& machine, const ControlGroup& group)
{
    constexpr auto NONE = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t first = NONE;
    for (const pid_t pid : group.pids) {
        if (const auto process = readProcess(machine, pid)) {
            first = std::min(first, process->startTicks);
        }
    }
    const auto now = numberIn(machine.read("/proc/uptime"), "");
    if (first == NONE || !now) {
        return std::nullopt;
    }
    const auto start = static_cast<std::int64_t>(first) / sysconf(_SC_CLK_TCK);
    return std::max<std::int64_t>(*now - start, 0);
}

[[nodiscard]] std::string stateWordOf(const Machine& machine, const std::vector<ControlGroup>& groups)
{
    if (std::none_of(groups.begin(), groups.end(),
                     [](const ControlGroup& group) { return group.populated; })) {
        return "STOPPED";
    }
    std::string word = "RUNNING";
    for (const ControlGroup& group : groups) {
        switch (freezerState(machine, group.path).progress) {
        case FreezerState::Progress::Frozen:
            return "FROZEN";
        case FreezerState::Progress::Freezing:
            word = "FREEZING";
            break;
        case FreezerState::Progress::Thawed:
            break;
        }
    }
    return word;
}

} // namespace

ZoneUsage usageOf(const Machine& machine, const std::string& lxcPath, const std::string& name)
{
    const PayloadGroups groups(machine, lxcPath, name);
    ZoneUsage usage = {.state = stateWordOf(machine, groups.all())};
    for (const ControlGroup& group : groups.all()) {
        const auto keep = [](auto& value, const auto& found) { value = value ? value : found; };
        keep(usage.processorTime, processorTime(machine, group.path));
        keep(usage.memoryBytes, memoryBytes(machine, group.path));
        keep(usage.processes, processCount(machine, group));
        keep(usage.uptimeSeconds, uptimeSeconds(machine, group));
    }
    return usage;
}

} // namespace Zonectl
