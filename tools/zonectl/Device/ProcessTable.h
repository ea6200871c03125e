#pragma once

#include "Device/Machine.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace Zonectl {

/// What matters of one process.
struct ProcessInfo
{
    pid_t pid = 0;
    pid_t parent = 0; ///< 0 when it lies outside of what /proc shows
    char state = '?';
    std::uint64_t startTicks = 0; ///< clock ticks from the machine's start to its own
    bool namespaceInit = false;   ///< the first process of a process namespace below the one looked from
    std::string title;            ///< the first argument, which some programs overwrite with what they do

    [[nodiscard]] bool stopped() const { return state == 'T' || state == 't'; }
    [[nodiscard]] bool dead() const { return state == 'Z' || state == 'X'; }
};

/// Reads the "/proc/PID/stat" of a process; nothing when it is gone.
[[nodiscard]] std::optional<ProcessInfo> readProcess(const Machine& machine, pid_t pid);

/// The processes of a machine at one moment.
class ProcessTable
{
public:
    explicit ProcessTable(const Machine& machine);

    /// Null when there is no such process.
    [[nodiscard]] const ProcessInfo* find(pid_t pid) const;
    /// When a process started, in seconds since the epoch, as the machine's clock stands now.
    [[nodiscard]] std::int64_t startTime(const ProcessInfo& process) const;
    /// Whether some process calls itself LXC's monitor of a container of that name, below whatever path.
    [[nodiscard]] bool hasMonitorOf(std::string_view container) const;

    /// LXC's monitor process of the container of that name below that path; null when there is none, and for
    /// one in the foreground, which has no such title.
    [[nodiscard]] const ProcessInfo* monitorOf(std::string_view lxcPath, std::string_view container) const;

private:
    std::map<pid_t, ProcessInfo> processes;
    std::int64_t bootTime = 0;
};

} // namespace Zonectl
