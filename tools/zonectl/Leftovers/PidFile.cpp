#include "Leftovers/PidFile.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <sstream>

namespace Zonectl {

namespace {

/// How far apart a process's start and its pid file may lie: LXC writes the file at once, and the machine's
/// start is known to the second only.
constexpr std::int64_t PID_FILE_SLACK_S = 3;

[[nodiscard]] std::optional<std::int64_t> modificationTime(const Machine& machine, const std::string& path)
{
    const auto status = machine.status(path);
    return status ? std::optional(status->modified) : std::nullopt;
}

} // namespace

std::string whyStale(const Machine& machine, const ProcessTable& clock, const std::string& pidFile)
{
    const auto modified = modificationTime(machine, pidFile);
    const auto text = machine.read(pidFile);
    // cppcheck-suppress knownConditionTrueFalse; the file may be written in between
    if (!modified || !text || modificationTime(machine, pidFile) != modified) {
        return {}; // gone, or just written
    }
    std::istringstream numbers(*text);
    std::string why = "names no process";
    for (pid_t pid = 0; numbers >> pid;) {
        const auto process = readProcess(machine, pid);
        if (!process || process->dead()) {
            why = "process " + std::to_string(pid) + " is gone";
        } else if (std::abs(clock.startTime(*process) - *modified) > PID_FILE_SLACK_S) {
            why = "process " + std::to_string(pid) +
                  " is another one by now, and is killed when the container is next started";
        } else {
            return {};
        }
    }
    return why;
}

} // namespace Zonectl
