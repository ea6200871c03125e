#include "Device/ProcessTable.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <unistd.h>

namespace Zonectl {

namespace {

constexpr std::string_view MONITOR_TITLE = "[lxc monitor] ";

[[nodiscard]] std::optional<pid_t> pidFromName(std::string_view name)
{
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error != std::errc() || end != name.data() + name.size() || pid < 1) {
        return std::nullopt;
    }
    return pid;
}

[[nodiscard]] std::string directoryOf(pid_t pid)
{
    return "/proc/" + std::to_string(pid);
}

/// What follows a key at the beginning of a line; empty without such a line.
[[nodiscard]] std::string valueOf(const std::string& text, std::string_view key)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key)) {
            return line.substr(key.size());
        }
    }
    return {};
}

/// Whether the process has a number in a namespace further in, and is the first there.
[[nodiscard]] bool isNamespaceInit(const std::string& status)
{
    std::istringstream numbers(valueOf(status, "NSpid:"));
    int depth = 0;
    pid_t innermost = 0;
    while (numbers >> innermost) {
        ++depth;
    }
    return depth > 1 && innermost == 1;
}

} // namespace

std::optional<ProcessInfo> readProcess(const Machine& machine, pid_t pid)
{
    const std::string text = machine.read(directoryOf(pid) + "/stat").value_or("");
    // The program's name stands in brackets and may itself hold brackets and blanks.
    const std::size_t name = text.rfind(')');
    if (name == std::string::npos) {
        return std::nullopt;
    }
    constexpr int FIELDS_BETWEEN_PARENT_AND_START = 17;
    ProcessInfo process;
    process.pid = pid;
    std::istringstream fields(text.substr(name + 1));
    fields >> process.state >> process.parent;
    std::string skipped;
    for (int i = 0; i < FIELDS_BETWEEN_PARENT_AND_START; ++i) {
        fields >> skipped;
    }
    if (!(fields >> process.startTicks)) {
        return std::nullopt;
    }
    return process;
}

ProcessTable::ProcessTable(const Machine& machine)
{
    for (const std::string& name : machine.entries("/proc")) {
        const auto pid = pidFromName(name);
        auto process = pid ? readProcess(machine, *pid) : std::nullopt;
        if (!process) {
            continue;
        }
        process->namespaceInit = isNamespaceInit(machine.read(directoryOf(*pid) + "/status").value_or(""));
        const std::string arguments = machine.read(directoryOf(*pid) + "/cmdline").value_or("");
        process->title = arguments.substr(0, arguments.find('\0'));
        processes.emplace(*pid, std::move(*process));
    }
    std::istringstream(valueOf(machine.read("/proc/stat").value_or(""), "btime ")) >> bootTime;
}

const ProcessInfo* ProcessTable::find(pid_t pid) const
{
    const auto found = processes.find(pid);
    return found == processes.end() ? nullptr : &found->second;
}

std::int64_t ProcessTable::startTime(const ProcessInfo& process) const
{
    return bootTime + static_cast<std::int64_t>(process.startTicks) / sysconf(_SC_CLK_TCK);
}

bool ProcessTable::hasMonitorOf(std::string_view container) const
{
    // The title ends with the path and the name, and both may hold blanks: rather one monitor too many.
    const std::string end = " " + std::string(container);
    return std::any_of(processes.begin(), processes.end(), [&end](const auto& entry) {
        const ProcessInfo& process = entry.second;
        return !process.dead() && process.title.starts_with(MONITOR_TITLE) && process.title.ends_with(end);
    });
}

const ProcessInfo* ProcessTable::monitorOf(std::string_view lxcPath, std::string_view container) const
{
    std::string title(MONITOR_TITLE);
    title.append(lxcPath).append(" ").append(container);
    const auto found = std::find_if(processes.begin(), processes.end(), [&title](const auto& entry) {
        return !entry.second.dead() && entry.second.title == title;
    });
    return found == processes.end() ? nullptr : &found->second;
}

} // namespace Zonectl
