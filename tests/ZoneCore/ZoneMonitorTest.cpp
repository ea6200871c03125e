#include "tests/ZoneCore/ZoneMonitorFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using ZoneTest::atEnd;
using ZoneTest::by;
using ZoneTest::byThread;
using ZoneTest::FIFO;
using ZoneTest::installLibrary;
using ZoneTest::labelOf;
using ZoneTest::LIBRARY;
using ZoneTest::line;
using ZoneTest::QUERIES;
using ZoneTest::ReadOnlyMount;
using ZoneTest::RUN_DIRECTORY;
using ZoneTest::setLabel;
using ZoneTest::ZoneMonitorSetUpTest;
using ZoneTest::ZoneMonitorTest;

namespace {

/// A process that holds the lock of a FIFO, as long as the object lives.
class LockHolder
{
public:
    explicit LockHolder(const char* path)
    {
        std::array<int, 2> ready{};
        EXPECT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
        child = fork();
        if (child == 0) {
            struct flock lock = {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            const char answer = fcntl(open(path, O_RDWR), F_SETLK, &lock) == 0 ? 'y' : 'n';
            static_cast<void>(!write(ready[1], &answer, 1));
            pause();
            _exit(0);
        }
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        close(ready[0]);
        close(ready[1]);
    }
    ~LockHolder()
    {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

private:
    pid_t child = -1;
};

} // namespace

// Set-up.

TEST_F(ZoneMonitorSetUpTest, LogsItsLife)
{
    const std::string tid = "I [tid : " + std::to_string(currentThreadId()) + "] ";
    auto fresh = std::make_unique<ZoneMonitor>();
    EXPECT_EQ(log.texts().back(), tid + "zone monitor instance is created");
    log.clear();
    fresh.reset();
    EXPECT_EQ(log.texts().front(), tid + "zone monitor instance is destroyed");
}

TEST_F(ZoneMonitorSetUpTest, PreparesEverythingInOrder)
{
    EXPECT_TRUE(initialize());
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            "I " + byThread("") + "Monitor Interface Handle is initialized",
            line("I", "Monitor Interface Handle is opened(/zone/config/liblxc.so.1)"),
            line("I", "Monitor Interface Symbols are set"), "I \"/run/lxc\" smack label is \"_\"(1)",
            "I \"/run/lxc\" smack label is changed to \"!\" successfully",
            line("I", std::string("FIFO node is created to ") + FIFO + " for /zone-test[#](ref count : 1)"),
            line("I", "FLock is set for fifo [#]"),
            line("I", std::string("State Change Monitor(fifo) is created - /zone-test / ") + FIFO + "[#]"),
            line("I", "Server is created - /zone-test / test-subscribers[#]"),
            line("I", "Server is created - zonemanager_socket[#]"),
            line("I", "GIO Channels for state change monitor & server are created - /zone-test[# / #]"),
            line("I", "IO(#) watcher is added to Thread Context"),
            line("I", "IO(#) watcher is added to Thread Context"),
            line("I", "IO(#) watcher is added to Thread Context"),
            line("I", "GIO Watchers are added to thread context - /zone-test[# / #]")));
    struct stat status = {};
    ASSERT_EQ(stat(FIFO, &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(labelOf(RUN_DIRECTORY), "!");
    EXPECT_EQ(monitor->name(), "zone-monitor");
    EXPECT_FALSE(monitor->usesDefaultContext());
    EXPECT_THAT(control.calls(), Contains("lxc_abstract_unix_open - - 1,512"));
}

TEST_F(ZoneMonitorSetUpTest, TakesAnOldFifoAgain)
{
    fs::create_directories(fs::path(FIFO).parent_path());
    ASSERT_EQ(mkfifo(FIFO, 0600), 0);
    EXPECT_TRUE(initialize());
}

// A library stays loaded in a process that has opened it once, so the tests of bad ones take a new process.

TEST_F(ZoneMonitorSetUpTest, NeedsTheLibrary)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto tryIt = [this] {
        fs::remove(LIBRARY);
        const bool initialized = initialize();
        expectLastAndExit(initialized, by("E", "Failed to dlopen for /zone/config/liblxc.so.1 - "));
    };
    EXPECT_EXIT(tryIt(), testing::ExitedWithCode(0), "");
}

TEST_F(ZoneMonitorSetUpTest, NeedsEveryFunctionOfTheLibrary)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto tryIt = [this] {
        installLibrary(FAKE_LXC_INCOMPLETE_FILE);
        const bool initialized = initialize();
        expectLastAndExit(initialized, by("E", "Failed to get symbol of lxc_state2str - "));
    };
    EXPECT_EXIT(tryIt(), testing::ExitedWithCode(0), "");
}

TEST_F(ZoneMonitorSetUpTest, NeedsAFifoName)
{
    control.set("fifo_name_fails");
    EXPECT_FALSE(initialize());
    EXPECT_THAT(
        log.texts().back(),
        StartsWith(by("E", "Failed to create the name of fifo path for state events - /zone-test / ")));
}

TEST_F(ZoneMonitorSetUpTest, NeedsAFifo)
{
    fs::create_directories(fs::path(FIFO).parent_path());
    const ReadOnlyMount mounted(RUN_DIRECTORY);
    EXPECT_FALSE(initialize());
    EXPECT_EQ(log.texts().back(),
              by("E", std::string("Failed to create the node for monitor fifo - /zone-test / ") + FIFO +
                          "(ref count : 1)"));
}

TEST_F(ZoneMonitorSetUpTest, RefusesAFifoOutsideOfLxcDirectories)
{
    control.set("fifo_name", "/zone-test/monitor-fifo");
    EXPECT_FALSE(initialize());
    EXPECT_EQ(log.texts().back(),
              by("E", "Can not find string(lxc) - /zone-test/monitor-fifo(ref count : 1)"));
    EXPECT_FALSE(fs::exists("/zone-test/monitor-fifo"));
}

TEST_F(ZoneMonitorSetUpTest, LabelsUpToTheFirstLxcOfThePath)
{
    fs::create_directories("/zone-test/my-lxc-files/lxc");
    setLabel("/zone-test", "_");
    // "/zone-test/my-lxc" is what ends with the first "lxc".
    fs::create_directories("/zone-test/my-lxc");
    setLabel("/zone-test/my-lxc", "_");
    control.set("fifo_name", "/zone-test/my-lxc-files/lxc/monitor-fifo");
    EXPECT_TRUE(initialize());
    EXPECT_EQ(labelOf("/zone-test/my-lxc"), "!");
    EXPECT_EQ(labelOf("/zone-test/my-lxc-files"), "(none)");
}

TEST_F(ZoneMonitorSetUpTest, NeedsALabelOfTheDirectory)
{
    fs::remove_all(RUN_DIRECTORY);
    EXPECT_FALSE(initialize());
    EXPECT_EQ(log.texts().back(),
              by("E", std::string("Failed to set container access label - /zone-test / ") + FIFO +
                          "(ref count : 1)"));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpTest, NeedsAFifoThatOpens)
{
    fs::create_directories(FIFO); // exists, and cannot be opened for writing
    EXPECT_FALSE(initialize());
    EXPECT_EQ(log.texts().back(), by("E", std::string("Failed to open the monitor fifo - /zone-test / ") +
                                              FIFO + "(ref count : 1)"));
}

TEST_F(ZoneMonitorSetUpTest, NeedsTheLockOfTheFifo)
{
    fs::create_directories(fs::path(FIFO).parent_path());
    ASSERT_EQ(mkfifo(FIFO, 0600), 0);
    const LockHolder holder(FIFO);
    EXPECT_FALSE(initialize());
    EXPECT_THAT(log.texts().back(), line("E", "Failed to set flock for monitor fifo - /zone-test / [#]"));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpTest, NeedsAPublisherName)
{
    control.set("sock_name_fails");
    EXPECT_FALSE(initialize());
    EXPECT_THAT(log.texts(), Contains(by("E", "Failed to create the socket name - /zone-test")));
    EXPECT_THAT(log.texts().back(), line("I", "GIO Channel is destroyed[fd : #]"));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpTest, NeedsAPublisherSocket)
{
    control.set("unix_open_fails");
    EXPECT_FALSE(initialize());
    EXPECT_THAT(log.texts(), Contains(by("E", "Failed to open the unix domain socket for monitor publisher - "
                                              "/zone-test / test-subscribers")));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpTest, NeedsTheQuerySocket)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path + 1, QUERIES);
    const UniqueFd taken(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(taken.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_FALSE(initialize());
    const auto texts = log.texts();
    const auto failed = std::find(texts.begin(), texts.end(), by("E", "Failed to bind"));
    ASSERT_NE(failed, texts.end());
    EXPECT_THAT(std::vector<std::string>(failed + 1, texts.end()),
                ElementsAre(line("I", "GIO Channel is destroyed[fd : #]"),
                            line("I", "GIO Channel is destroyed[fd : #]")));
    EXPECT_FALSE(fs::exists(FIFO));
}

// Teardown.

TEST_F(ZoneMonitorTest, IsTornDownInOrder)
{
    log.clear();
    manager->get()->destroyZoneMonitor();
    const auto texts = log.texts();
    ASSERT_GE(texts.size(), 9U);
    EXPECT_THAT(std::vector<std::string>(texts.begin(), texts.begin() + 9),
                ElementsAre(line("I", "Remove all client connections[count : 0]"),
                            line("I", "All client connections are removed"),
                            line("I", "State GIO Channels are destroyed - /zone-test[fifo : # / socket : #]"),
                            line("I", "GIO Channel is destroyed[fd : #]"),
                            line("I", "GIO Channel is destroyed[fd : #]"),
                            line("I", "GIO Channel is destroyed[fd : #]"),
                            line("I", "Monitor Interface Handle is initialized"),
                            line("I", "Monitor Interface Handle is closed(/zone/config/liblxc.so.1)"),
                            HasSubstr("zone monitor instance is destroyed")));
    EXPECT_EQ(manager->get()->zoneMonitor, nullptr);
    EXPECT_TRUE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorTest, DropsItsSubscribersAtTeardown)
{
    const UniqueFd first = subscribe();
    const UniqueFd second = subscribe();
    manager->get()->destroyZoneMonitor();
    const auto texts = log.texts();
    EXPECT_THAT(std::vector<std::string>(texts.begin(), texts.begin() + 6),
                ElementsAre(line("I", "Remove all client connections[count : 2]"),
                            line("I", "Found client connection from client GIO List[client socket : #]"),
                            line("I", "GIO Channel is destroyed[fd : #]"),
                            line("I", "Found client connection from client GIO List[client socket : #]"),
                            line("I", "GIO Channel is destroyed[fd : #]"),
                            line("I", "All client connections are removed")));
    EXPECT_TRUE(atEnd(first));
    EXPECT_TRUE(atEnd(second));
}

TEST_F(ZoneMonitorTest, IsTerminatedFirstWhenItRuns)
{
    monitor->countAsRunning();
    manager->get()->destroyZoneMonitor();
    EXPECT_THAT(log.texts().front(), StartsWith("I Thread is terminated(thread name : zone-monitor"));
}
