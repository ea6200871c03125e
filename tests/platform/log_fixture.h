#pragma once

#include "platform/log/platform_log.h"
#include "tests/platform/test_process.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <endian.h>
#include <map>
#include <optional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

/// What the tests of the log service share.
namespace PlatformTest {

// As the daemon's macros call it.
#define LOG_RECORD(priority, line, body, ...)                                                                \
    platform_log_write(PLATFORM_LOG_BUFFER_MAIN, priority, "ZONE_MANAGER",                                   \
                       "%s: %s(%d) > \x1b[%s;%s;%sm[%s:%d] " body "\x1b[0m", "File.cpp", "method", line,     \
                       "01", "32", "40", "void Class::method()", line __VA_OPT__(, ) __VA_ARGS__)

inline constexpr char JOURNAL_SOCKET[] = "/run/systemd/journal/socket";
inline constexpr char SYSLOG_SOCKET[] = "/dev/log";

inline std::string recordText(int line, const std::string& body)
{
    const std::string number = std::to_string(line);
    return "File.cpp: method(" + number + ") > \x1b[01;32;40m[void Class::method():" + number + "] " + body +
           "\x1b[0m";
}

inline std::map<std::string, std::string> target(const std::string& name, const std::string& level = "")
{
    return {{"ZONE_LOG_TARGET", name}, {"ZONE_LOG_LEVEL", level}};
}

/// For children: gives the process a /run and a /dev of its own, so that the sockets at the log's fixed paths
/// are the test's and never the machine's.
inline bool usePrivateRunAndDev()
{
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 &&
           mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0 &&
           mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3)) == 0 && mkdir("/run/systemd", 0755) == 0 &&
           mkdir("/run/systemd/journal", 0755) == 0;
}

/// A log daemon's end of a datagram socket.
class Receiver
{
public:
    explicit Receiver(const char* path) : descriptor_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
        unlink(path);
        bound_ = bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    ~Receiver() { close(descriptor_); }

    [[nodiscard]] bool bound() const { return bound_; }

    /// The next datagram, nothing when none has come.
    [[nodiscard]] std::optional<std::string> next() const
    {
        std::string data(65536, '\0');
        const ssize_t length = recv(descriptor_, data.data(), data.size(), MSG_DONTWAIT);
        if (length < 0) {
            return std::nullopt;
        }
        data.resize(static_cast<std::size_t>(length));
        return data;
    }

private:
    int descriptor_;
    bool bound_ = false;
};

/// Takes a datagram of the journal's protocol apart; an empty map for one that breaks it.
inline std::map<std::string, std::string> journalFields(const std::string& datagram)
{
    std::map<std::string, std::string> fields;
    std::size_t position = 0;
    while (position < datagram.size()) {
        const auto lineEnd = datagram.find('\n', position);
        if (lineEnd == std::string::npos) {
            return {};
        }
        const std::string line = datagram.substr(position, lineEnd - position);
        position = lineEnd + 1;
        if (const auto equals = line.find('='); equals != std::string::npos) {
            fields[line.substr(0, equals)] = line.substr(equals + 1);
            continue;
        }
        std::uint64_t length = 0;
        if (datagram.size() - position < sizeof(length)) {
            return {};
        }
        std::memcpy(&length, datagram.data() + position, sizeof(length));
        const auto size = static_cast<std::size_t>(le64toh(length));
        position += sizeof(length);
        if (size >= datagram.size() - position || datagram[position + size] != '\n') {
            return {};
        }
        fields[line] = datagram.substr(position, size);
        position += size + 1;
    }
    return fields;
}

/// Fails a child with a text, for the parent's report.
#define CHILD_CHECK(condition)                                                                               \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            dprintf(STDOUT_FILENO, "line %d: %s\n", __LINE__, #condition);                                   \
            return 1;                                                                                        \
        }                                                                                                    \
    } while (false)

} // namespace PlatformTest
