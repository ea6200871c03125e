#include "platform/watchdog/platform_watchdog.h"

#include "platform/watchdog/watchdog_registry.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::string_view KEEP_ALIVE = "WATCHDOG=1";
/// The kernel keeps 15 characters and a zero of a thread's name.
constexpr std::size_t THREAD_NAME_SIZE = 16;

std::atomic<platform_watchdog_stall_reporter> stallReporter{nullptr};

Platform::WatchdogRegistry& registry()
{
    // Never destroyed: threads may notify while the process exits.
    static auto& instance = *new Platform::WatchdogRegistry([] { return std::chrono::steady_clock::now(); });
    return instance;
}

/// The service manager's socket, null when there is none.
const char* notifySocket() noexcept
{
    const char* const path = std::getenv("NOTIFY_SOCKET");
    return path != nullptr && *path != '\0' ? path : nullptr;
}

/// Sends one keep-alive, without waiting, to a path or, with a leading '@', an abstract address.
bool sendKeepAlive(std::string_view path) noexcept
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0';
    }
    // An abstract name is as long as this says; a path needs no terminating zero.
    const std::size_t length = offsetof(sockaddr_un, sun_path) + path.size();
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return false;
    }
    const ssize_t sent = sendto(descriptor, KEEP_ALIVE.data(), KEEP_ALIVE.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length));
    close(descriptor);
    return sent >= 0;
}

std::string currentThreadName()
{
    std::array<char, THREAD_NAME_SIZE> name{};
    static_cast<void>(pthread_getname_np(pthread_self(), name.data(), name.size()));
    return name.data();
}

} // namespace

int platform_watchdog_register(int interval_seconds) noexcept
{
    try {
        if (interval_seconds <= 0) {
            errno = EINVAL;
            return -1;
        }
        if (notifySocket() == nullptr) {
            return 0;
        }
        registry().add(gettid(), currentThreadName(), std::chrono::seconds(interval_seconds));
        return 0;
    } catch (const std::exception&) { // no memory left
        errno = ENOMEM;
        return -1;
    }
}

int platform_watchdog_notify() noexcept
{
    try {
        const char* const path = notifySocket();
        if (path == nullptr) {
            return 0;
        }
        const auto outcome = registry().notify(gettid());
        if (!outcome.registered) {
            errno = ESRCH;
            return -1;
        }
        if (const auto reporter = stallReporter.load(); reporter != nullptr) {
            for (const auto& stall : outcome.newStalls) {
                reporter(stall.threadName.c_str(), stall.tid, static_cast<int>(stall.silent.count()));
            }
        }
        return !outcome.allAlive || sendKeepAlive(path) ? 0 : -1;
    } catch (const std::exception&) { // no memory left
        errno = ENOMEM;
        return -1;
    }
}

void platform_watchdog_set_stall_reporter(platform_watchdog_stall_reporter reporter) noexcept
{
    stallReporter.store(reporter);
}
