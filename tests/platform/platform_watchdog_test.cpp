#include "platform/watchdog/platform_watchdog.h"

#include "tests/platform/no_memory.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

/// The service manager's end of the notification protocol, at a path or, with a leading '@', an abstract
/// address.
class NotifySocket
{
public:
    explicit NotifySocket(std::string name)
        : name_(std::move(name)), descriptor_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name_.data(), name_.size());
        if (name_.front() == '@') {
            address.sun_path[0] = '\0';
        } else {
            unlink(name_.c_str());
        }
        bound_ = bind(descriptor_, reinterpret_cast<sockaddr*>(&address),
                      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size())) == 0;
        setenv("NOTIFY_SOCKET", name_.c_str(), 1);
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    ~NotifySocket()
    {
        unsetenv("NOTIFY_SOCKET");
        close(descriptor_);
        if (name_.front() != '@') {
            unlink(name_.c_str());
        }
    }

    [[nodiscard]] bool bound() const { return bound_; }

    /// The next notification, empty when none has come.
    [[nodiscard]] std::string next() const
    {
        std::array<char, 256> data;
        const ssize_t length = recv(descriptor_, data.data(), data.size(), MSG_DONTWAIT);
        return length < 0 ? "" : std::string(data.data(), static_cast<std::size_t>(length));
    }

private:
    std::string name_;
    int descriptor_;
    bool bound_ = false;
};

std::string uniqueName(const std::string& start)
{
    static int count = 0;
    return start + std::to_string(getpid()) + "-" + std::to_string(++count);
}

std::string toldName;      // written and read by the test's own thread
int toldTid = 0;           // as above
int toldSilentSeconds = 0; // as above
int tellings = 0;          // as above

void remember(const char* name, int tid, int silentSeconds)
{
    toldName = name;
    toldTid = tid;
    toldSilentSeconds = silentSeconds;
    ++tellings;
}

/// Runs a function on a thread of its own, whose registration ends up with no other test's thread.
template <typename Function>
auto onNewThread(Function function)
{
    return std::async(std::launch::async, function).get();
}

} // namespace

// The registry lives as long as the process, so each case expects to be the only one in it, as ctest runs
// them; all of them register with intervals that outlast a run of the whole program, but for the last.

TEST(PlatformWatchdog, WithoutANotifySocketBothCallsSucceedAndDoNothing)
{
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(platform_watchdog_notify(), 0);
    EXPECT_EQ(platform_watchdog_register(360), 0);
    const NotifySocket manager(uniqueName("/tmp/zone-watchdog-test-"));
    EXPECT_EQ(platform_watchdog_notify(), -1); // the registration above left nothing behind
    EXPECT_EQ(manager.next(), "");
}

TEST(PlatformWatchdog, ANotifySendsOneKeepAlive)
{
    for (const auto& name : {uniqueName("/tmp/zone-watchdog-test-"), uniqueName("@zone-watchdog-test-")}) {
        const NotifySocket manager(name);
        ASSERT_TRUE(manager.bound());
        EXPECT_EQ(platform_watchdog_register(360), 0);
        EXPECT_EQ(manager.next(), "");
        EXPECT_EQ(platform_watchdog_notify(), 0);
        EXPECT_EQ(manager.next(), "WATCHDOG=1");
        EXPECT_EQ(manager.next(), "");
    }
}

TEST(PlatformWatchdog, AnIntervalThatIsNotPositiveIsRefused)
{
    for (const int interval : {0, -5}) {
        errno = 0;
        EXPECT_EQ(platform_watchdog_register(interval), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(PlatformWatchdog, AThreadThatIsNotRegisteredSendsNothing)
{
    const NotifySocket manager(uniqueName("@zone-watchdog-test-"));
    EXPECT_EQ(onNewThread([] { return platform_watchdog_notify() == -1 ? errno : 0; }), ESRCH);
    EXPECT_EQ(manager.next(), "");
}

TEST(PlatformWatchdog, AServiceManagerThatIsGoneOrFullIsNotWaitedFor)
{
    std::string name;
    {
        const NotifySocket manager(uniqueName("@zone-watchdog-test-"));
        ASSERT_EQ(platform_watchdog_register(360), 0);
        name = std::getenv("NOTIFY_SOCKET");
        int sent = 0;
        while (sent < 100000 && platform_watchdog_notify() == 0) {
            ++sent;
        }
        EXPECT_LT(sent, 100000);
    }
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    EXPECT_EQ(platform_watchdog_notify(), -1);
    unsetenv("NOTIFY_SOCKET");
}

TEST(PlatformWatchdog, AnAddressFillsTheFieldButIsNeverCut)
{
    const std::string longest = "/tmp/" + std::string(sizeof(sockaddr_un::sun_path) - 1 - 5, 'x');
    const NotifySocket manager(longest);
    ASSERT_TRUE(manager.bound());
    ASSERT_EQ(platform_watchdog_register(360), 0);
    EXPECT_EQ(platform_watchdog_notify(), 0);
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    for (const std::size_t more : {1U, 100U}) {
        setenv("NOTIFY_SOCKET", (longest + std::string(more, 'x')).c_str(), 1);
        errno = 0;
        EXPECT_EQ(platform_watchdog_notify(), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
        EXPECT_EQ(manager.next(), "");
    }
}

TEST(PlatformWatchdog, AnEmptyAddressIsNone)
{
    setenv("NOTIFY_SOCKET", "", 1);
    EXPECT_EQ(onNewThread([] { return platform_watchdog_notify(); }), 0);
    unsetenv("NOTIFY_SOCKET");
}

TEST(PlatformWatchdog, WithoutADescriptorTheKeepAliveIsLost)
{
    const NotifySocket manager(uniqueName("@zone-watchdog-test-"));
    ASSERT_EQ(platform_watchdog_register(360), 0);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = platform_watchdog_notify();
    const int error = errno;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EMFILE);
    EXPECT_EQ(platform_watchdog_notify(), 0);
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
}

TEST(PlatformWatchdog, WithoutMemoryThereIsNoRegistration)
{
    const NotifySocket manager(uniqueName("@zone-watchdog-test-"));
    const int error = onNewThread([] {
        const PlatformTest::NoMemory none;
        return platform_watchdog_register(360) == -1 ? errno : 0;
    });
    EXPECT_EQ(error, ENOMEM);
}

TEST(PlatformWatchdog, WithoutMemoryForAStallTheKeepAliveIsHeldBack)
{
    const NotifySocket manager(uniqueName("@zone-watchdog-test-"));
    ASSERT_EQ(platform_watchdog_register(1), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    int result = 0;
    int error = 0;
    {
        const PlatformTest::NoMemory none;
        result = platform_watchdog_notify();
        error = errno;
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(manager.next(), "");
    EXPECT_EQ(platform_watchdog_register(360), 0); // for the next test
}

TEST(PlatformWatchdog, AStalledThreadStopsTheKeepAlivesAndIsNamedOnce)
{
    const NotifySocket manager(uniqueName("@zone-watchdog-test-"));
    platform_watchdog_set_stall_reporter(remember);
    ASSERT_EQ(platform_watchdog_register(360), 0);
    std::promise<void> wake;
    std::promise<pid_t> registered;
    std::promise<int> notified;
    std::promise<void> end;
    std::thread stalling([&] {
        pthread_setname_np(pthread_self(), "stalling");
        static_cast<void>(platform_watchdog_register(1));
        registered.set_value(gettid());
        wake.get_future().wait();
        notified.set_value(platform_watchdog_notify());
        end.get_future().wait();
    });
    const pid_t tid = registered.get_future().get();
    EXPECT_EQ(platform_watchdog_notify(), 0);
    EXPECT_EQ(manager.next(), "WATCHDOG=1");

    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(platform_watchdog_notify(), 0);
    EXPECT_EQ(platform_watchdog_notify(), 0);
    EXPECT_EQ(manager.next(), "");
    EXPECT_EQ(tellings, 1);
    EXPECT_EQ(toldName, "stalling");
    EXPECT_EQ(toldTid, tid);
    EXPECT_EQ(toldSilentSeconds, 1);

    wake.set_value();
    EXPECT_EQ(notified.get_future().get(), 0);
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    platform_watchdog_set_stall_reporter(nullptr);
    end.set_value();
    stalling.join();
}
