#include "Leftovers/LeftoverRemoval.h"

#include "Common/Handles.h"
#include "Device/ProcessTable.h"
#include "Leftovers/PidFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;
using ZoneCore::UniqueFd;

constexpr std::chrono::seconds DEATH_TIME(5);
/// The kernel clears a control group up after its last process is seen to be gone.
constexpr std::chrono::seconds CLEAR_UP_TIME(3);
constexpr std::chrono::milliseconds STEP(10);

[[nodiscard]] std::string errorText(const std::string& subject, int number)
{
    return subject + ": " + std::generic_category().message(number);
}

[[nodiscard]] std::string writeControlFile(const std::string& path, const std::string& value)
{
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    const auto length = static_cast<ssize_t>(value.size());
    if (!file || write(file.get(), value.data(), value.size()) != length) {
        return errorText(path, errno);
    }
    return {};
}

[[nodiscard]] std::string thaw(const Leftover& leftover)
{
    std::string problem;
    for (const auto& [file, value] : leftover.thaws) {
        if (std::string one = writeControlFile(file, value); !one.empty()) {
            problem = std::move(one);
        }
    }
    return problem;
}

/// Kills by a descriptor of the process: between the look at its start and the signal its number cannot pass
/// to another process.
[[nodiscard]] std::string killInit(const Leftover& leftover)
{
    const std::string subject = "process " + std::to_string(leftover.pid);
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, leftover.pid, 0)));
    if (!process) {
        return errno == ESRCH ? std::string() : errorText(subject, errno);
    }
    const auto now = readProcess(Machine(""), leftover.pid);
    if (!now || now->startTicks != leftover.startTicks) {
        return {}; // the one that was found is gone
    }
    if (syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0) != 0 && errno != ESRCH) {
        return errorText(subject, errno);
    }
    // Only now, so that it does not run on for a moment: what is frozen dies when it is thawed.
    const std::string problem = thaw(leftover);
    pollfd death{.fd = process.get(), .events = POLLIN, .revents = 0};
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(DEATH_TIME);
    if (poll(&death, 1, static_cast<int>(limit.count())) == 1) {
        return {};
    }
    return problem.empty() ? subject + " was killed, and does not end" : problem;
}

/// Removes a tree of control groups from its leaves up; one with processes in it, and those above it, stay.
/// Returns the error number of the topmost.
[[nodiscard]] int removeTree(const std::filesystem::path& directory)
{
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(directory, ignored)) {
        if (entry.is_directory(ignored) && !entry.is_symlink(ignored)) {
            static_cast<void>(removeTree(entry.path()));
        }
    }
    return rmdir(directory.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

/// Whether there are processes in a control group or below it.
[[nodiscard]] bool holdsProcesses(const std::filesystem::path& directory)
{
    if (!Machine("").read(directory / "cgroup.procs").value_or("").empty()) {
        return true;
    }
    std::error_code ignored;
    const std::filesystem::directory_iterator entries(directory, ignored);
    return std::any_of(begin(entries), end(entries), [&ignored](const auto& entry) {
        return entry.is_directory(ignored) && !entry.is_symlink(ignored) && holdsProcesses(entry.path());
    });
}

/// As removeTree(), but touches not even an empty group below one with processes. Waits for the kernel.
[[nodiscard]] int removeEmptyTree(const std::string& path, Clock::time_point deadline)
{
    for (;;) {
        // Looked at each time: the container may be starting.
        const int error = holdsProcesses(path) ? EBUSY : removeTree(path);
        if (error != EBUSY || Clock::now() >= deadline) {
            return error;
        }
        std::this_thread::sleep_for(STEP);
    }
}

[[nodiscard]] std::string removeControlGroups(const Leftover& leftover)
{
    constexpr const char* POPULATED = ": there are still processes in it";
    if (leftover.populated || std::any_of(leftover.paths.begin(), leftover.paths.end(), holdsProcesses)) {
        return placeOf(leftover) + POPULATED;
    }
    const auto deadline = Clock::now() + CLEAR_UP_TIME;
    std::string problem;
    for (const std::string& path : leftover.paths) {
        const int error = removeEmptyTree(path, deadline);
        if (error != 0) {
            problem = error == EBUSY ? path + POPULATED : errorText(path, error);
        }
    }
    return problem;
}

/// A container that has come up since it was found has written the file anew.
[[nodiscard]] std::string removePidFile(const std::string& path)
{
    const Machine machine("");
    const ProcessTable clock(machine);
    if (machine.exists(path) && whyStale(machine, clock, path).empty()) {
        return path + ": names a process that lives by now";
    }
    return unlink(path.c_str()) == 0 || errno == ENOENT ? std::string() : errorText(path, errno);
}

} // namespace

std::string removeLeftover(const Leftover& leftover)
{
    if (leftover.harmless || !leftover.removable) {
        return "is not removed from here";
    }
    switch (leftover.kind) {
    case LeftoverKind::Init:
        return killInit(leftover);
    case LeftoverKind::Frozen:
        return thaw(leftover);
    case LeftoverKind::ControlGroup:
        return removeControlGroups(leftover);
    case LeftoverKind::PidFile:
        return removePidFile(leftover.paths.front());
    case LeftoverKind::MonitorFifo:
    case LeftoverKind::InstanceLock:
        break;
    }
    return "is not removed from here";
}

} // namespace Zonectl
