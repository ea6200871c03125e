#include "Device/Holders.h"

#include "Daemon/Names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <sstream>

namespace Zonectl {

namespace {

constexpr std::size_t LONGEST_PUBLISHER_ADDRESS = 105;

/// A line of /proc/locks: "1: FLOCK  ADVISORY  WRITE 389 00:5e:15 0 EOF".
struct LockLine
{
    pid_t pid = 0;
    FileStatus file;
};

[[nodiscard]] std::optional<LockLine> parseLock(const std::string& line)
{
    if (line.find("->") != std::string::npos) {
        return std::nullopt; // one that only waits
    }
    LockLine lock;
    unsigned long long inode = 0;
    // NOLINTNEXTLINE(cert-err34-c): what the kernel wrote.
    if (std::sscanf(line.c_str(), "%*s %*s %*s %*s %d %x:%x:%llu", &lock.pid, &lock.file.deviceMajor,
                    &lock.file.deviceMinor, &inode) != 4) {
        return std::nullopt;
    }
    lock.file.inode = inode;
    return lock;
}

/// Whether a name of /proc/net/unix, where zero bytes are shown as "@", is the address.
[[nodiscard]] bool isAddress(std::string_view shown, std::string_view address)
{
    return shown.starts_with('@') && shown.substr(1).starts_with(address) &&
           shown.find_first_not_of('@', 1 + address.size()) == std::string_view::npos;
}

/// The inode of the socket that is bound to the address; empty when none is.
[[nodiscard]] std::string socketAt(const Machine& machine, std::string_view address)
{
    std::istringstream lines(machine.read("/proc/net/unix").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string field;
        std::string inode;
        for (int column = 0; column < 7 && fields >> field; ++column) {
            inode = field;
        }
        if (std::string name; fields >> name && isAddress(name, address)) {
            return inode;
        }
    }
    return {};
}

[[nodiscard]] bool isNumber(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

[[nodiscard]] bool hasOpen(const Machine& machine, const std::string& pid, const std::string& target)
{
    const std::string directory = "/proc/" + pid + "/fd";
    const std::vector<std::string> descriptors = machine.entries(directory);
    return std::any_of(descriptors.begin(), descriptors.end(), [&](const std::string& descriptor) {
        return machine.linkTarget(directory + "/" + descriptor) == target;
    });
}

} // namespace

bool Holder::isDaemon() const
{
    return program == Names::DAEMON_PROGRAM;
}

std::string Holder::description() const
{
    if (pid <= 0) {
        return "a process that cannot be seen from here";
    }
    return (program.empty() ? "process" : program) + " " + std::to_string(pid);
}

Holder processHolder(const Machine& machine, pid_t pid)
{
    constexpr std::string_view GONE = " (deleted)"; // the file, as after an update
    std::string program = machine.linkTarget("/proc/" + std::to_string(pid) + "/exe");
    if (program.ends_with(GONE)) {
        program.resize(program.size() - GONE.size());
    }
    return {.pid = pid, .program = program.substr(program.find_last_of('/') + 1)};
}

std::optional<Holder> lockHolder(const Machine& machine, const std::string& path)
{
    const std::optional<FileStatus> file = machine.status(path);
    std::istringstream lines(machine.read("/proc/locks").value_or(""));
    for (std::string line; file && std::getline(lines, line);) {
        const std::optional<LockLine> lock = parseLock(line);
        if (lock && lock->file.sameFileAs(*file)) {
            return processHolder(machine, lock->pid);
        }
    }
    return std::nullopt;
}

std::optional<Holder> addressHolder(const Machine& machine, std::string_view address)
{
    const std::string inode = socketAt(machine, address);
    if (inode.empty()) {
        return std::nullopt;
    }
    for (const std::string& name : machine.entries("/proc")) {
        if (isNumber(name) && hasOpen(machine, name, "socket:[" + inode + "]")) {
            return processHolder(machine, std::stoi(name));
        }
    }
    return Holder{};
}

std::string publisherAddress(const std::string& lxcPath)
{
    // The 64-bit FNV-1a hash.
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char character : "lxc/" + lxcPath + "/monitor-sock") {
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3ULL;
    }
    std::array<char, 32> prefix{};
    static_cast<void>(
        std::snprintf(prefix.data(), prefix.size(), "lxc/%016llx/", static_cast<unsigned long long>(hash)));
    return (prefix.data() + lxcPath).substr(0, LONGEST_PUBLISHER_ADDRESS);
}

} // namespace Zonectl
