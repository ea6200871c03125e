#include "platform/lxc_adapter/monitor_functions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char RUN_DIRECTORY[] = "/run";
constexpr mode_t DIRECTORY_MODE = 0755;
constexpr int LISTEN_BACKLOG = 100;
/// The name's text in sun_path: one byte is the leading zero, one the terminating zero, and liblxc leaves one
/// more.
constexpr std::size_t NAME_LENGTH_MAX = sizeof(sockaddr_un::sun_path) - 3;

/// liblxc's state numbers.
constexpr std::array STATE_WORDS{"STOPPED",  "STARTING", "RUNNING", "STOPPING",
                                 "ABORTING", "FREEZING", "FROZEN",  "THAWED"};

std::uint64_t fnv1a64(std::string_view text)
{
    constexpr std::uint64_t OFFSET_BASIS = 0xcbf29ce484222325;
    constexpr std::uint64_t PRIME = 0x100000001b3;
    std::uint64_t hash = OFFSET_BASIS;
    for (const char byte : text) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * PRIME;
    }
    return hash;
}

/// Makes a directory and all above it; those that exist are left as they are.
bool makeDirectories(const std::string& path)
{
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        if (mkdir(path.substr(0, end).c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
            return false;
        }
        if (end == std::string::npos) {
            return true;
        }
    }
}

} // namespace

int lxc_monitor_fifo_name(const char* lxcpath, char* buf, std::size_t size, int mkdirs) noexcept
{
    try {
        const std::string directory = std::string(RUN_DIRECTORY) + "/lxc/" + lxcpath;
        if (mkdirs != 0 && !makeDirectories(directory)) {
            return -1;
        }
        const int length = std::snprintf(buf, size, "%s/monitor-fifo", directory.c_str());
        return length >= 0 && static_cast<std::size_t>(length) < size ? 0 : -1;
    } catch (const std::exception&) { // no memory left
        return -1;
    }
}

int lxc_monitor_sock_name(const char* lxcpath, struct sockaddr_un* addr) noexcept
{
    try {
        const std::uint64_t hash = fnv1a64(std::string("lxc/") + lxcpath + "/monitor-sock");
        *addr = {};
        addr->sun_family = AF_UNIX;
        // A path that does not fit is cut: the hash tells the names apart.
        static_cast<void>(
            std::snprintf(addr->sun_path + 1, NAME_LENGTH_MAX + 1, "lxc/%016" PRIx64 "/%s", hash, lxcpath));
        return 0;
    } catch (const std::exception&) { // no memory left
        return -1;
    }
}

int lxc_abstract_unix_open(const char* path, int type, int /*flags*/) noexcept
{
    const int descriptor = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (descriptor < 0 || path == nullptr) {
        return descriptor;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path + 1);
    const bool fits = length < sizeof(address.sun_path);
    if (fits) {
        std::memcpy(address.sun_path + 1, path + 1, length);
    } else {
        errno = ENAMETOOLONG;
    }
    const auto addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
    if (!fits || bind(descriptor, reinterpret_cast<const sockaddr*>(&address), addressLength) != 0 ||
        (type == SOCK_STREAM && listen(descriptor, LISTEN_BACKLOG) != 0)) {
        const int reason = errno;
        close(descriptor);
        errno = reason;
        return -1;
    }
    return descriptor;
}

const char* lxc_state2str(int state) noexcept
{
    const auto index = static_cast<std::size_t>(state); // a negative number is beyond the end too
    return index < STATE_WORDS.size() ? STATE_WORDS[index] : nullptr;
}
