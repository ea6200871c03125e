// The monitor's set-up and teardown when all goes well.
#include "tests/ZoneCore/ZoneMonitorFixture.h"

#include "Common/ThreadGate.h"
#include "tests/support/unit/Eventually.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace ZoneCore;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using ZoneTest::atEnd;
using ZoneTest::by;
using ZoneTest::byThread;
using ZoneTest::called;
using ZoneTest::connectTo;
using ZoneTest::eventually;
using ZoneTest::FIFO;
using ZoneTest::labelOf;
using ZoneTest::listenerAt;
using ZoneTest::numberAfter;
using ZoneTest::opened;
using ZoneTest::QUERIES;
using ZoneTest::RUN_DIRECTORY;
using ZoneTest::said;
using ZoneTest::setLabel;
using ZoneTest::SUBSCRIBERS;
using ZoneTest::ZoneMonitorSetUpTest;
using ZoneTest::ZoneMonitorTest;

namespace {

using Texts = std::vector<std::string>;

const std::string TERMINATED = "I Thread is terminated(thread name : zone-monitor, thread id : ";

void append(Texts& texts, const Texts& more)
{
    texts.insert(texts.end(), more.begin(), more.end());
}

/// What adding a watcher for input calls and writes.
Texts watched(int fd)
{
    return {called("g_io_create_watch", fd, G_IO_IN | G_IO_PRI), "D g_source_attach()", "D g_source_unref()",
            said("I", "IO(%d) watcher is added to Thread Context", fd)};
}

/// What destroying a channel calls and writes.
Texts destroyed(int fd)
{
    return {called("g_io_channel_unref", fd), called("close", fd),
            said("I", "GIO Channel is destroyed[fd : %d]", fd)};
}

/// The teardown from its second half on: the loaded library, then the object.
Texts libraryClosedAndObjectDeleted(const Texts& closing = {})
{
    const std::string tid = std::to_string(currentThreadId());
    Texts texts{"D dlclose()"};
    append(texts, closing);
    append(texts,
           {by("I", "Monitor Interface Handle is initialized"),
            by("I", "Monitor Interface Handle is closed(/zone/config/liblxc.so.1)"),
            "I [tid : " + tid + "] zone monitor instance is destroyed",
            "I release the event source from the main context(thread name : zone-monitor, thread id : " +
                tid + ")",
            "I Thread is destroyed(thread name : zone-monitor, thread id : " + tid + ")"});
    return texts;
}

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
    calls.trace();
    EXPECT_TRUE(initialize());
    calls.reset();
    const Texts texts = log.texts();

    const int fifo = opened(FIFO);
    const int publisher = listenerAt(SUBSCRIBERS);
    const int queries = listenerAt(QUERIES);
    Texts expected{
        "I " + byThread("") + "Monitor Interface Handle is initialized",
        "D g_main_context_new()",
        "D dlopen(/zone/config/liblxc.so.1, 1)", // RTLD_LAZY
        by("I", "Monitor Interface Handle is opened(/zone/config/liblxc.so.1)"),
        "D dlsym(lxc_monitor_fifo_name)",
        "D dlsym(lxc_monitor_sock_name)",
        "D dlsym(lxc_abstract_unix_open)",
        "D dlsym(lxc_state2str)",
        by("I", "Monitor Interface Symbols are set"),
        "D lxc_monitor_fifo_name(/zone-test, 4096, 1)",
        "D mknod(/run/lxc//zone-test/monitor-fifo, 10600, 0)",
        "I \"/run/lxc\" smack label is \"_\"(1)",
        "I \"/run/lxc\" smack label is changed to \"!\" successfully",
        "D open(/run/lxc//zone-test/monitor-fifo, 2)", // O_RDWR
        said("I", "FIFO node is created to %s for /zone-test[%d](ref count : 1)", FIFO, fifo),
        called("fcntl", fifo, F_SETLK, F_WRLCK, SEEK_SET, 0, 0),
        said("I", "FLock is set for fifo [%d]", fifo),
        said("I", "State Change Monitor(fifo) is created - /zone-test / %s[%d]", FIFO, fifo),
        called("g_io_channel_unix_new", fifo),
        "D lxc_monitor_sock_name(/zone-test)",
        "D lxc_abstract_unix_open(test-subscribers, 1, 512)", // SOCK_STREAM
        said("I", "Server is created - /zone-test / test-subscribers[%d]", publisher),
        called("g_io_channel_unix_new", publisher),
        called("socket", AF_UNIX, SOCK_STREAM, 0),
        called("bind", queries, 110),
        called("listen", queries, 100),
        said("I", "Server is created - zonemanager_socket[%d]", queries),
        called("g_io_channel_unix_new", queries),
        said("I", "GIO Channels for state change monitor & server are created - /zone-test[%d / %d]", fifo,
             publisher),
    };
    append(expected, watched(publisher));
    append(expected, watched(fifo));
    append(expected, watched(queries));
    expected.push_back(
        said("I", "GIO Watchers are added to thread context - /zone-test[%d / %d]", fifo, publisher));
    EXPECT_THAT(texts, ElementsAreArray(expected));

    struct stat status = {};
    ASSERT_EQ(stat(FIFO, &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(labelOf(RUN_DIRECTORY), "!");
    EXPECT_EQ(monitor->name(), "zone-monitor");
    EXPECT_FALSE(monitor->usesDefaultContext());
}

TEST_F(ZoneMonitorSetUpTest, TakesAnOldFifoAgain)
{
    fs::create_directories(fs::path(FIFO).parent_path());
    ASSERT_EQ(mkfifo(FIFO, 0600), 0);
    struct stat old = {};
    ASSERT_EQ(stat(FIFO, &old), 0);
    EXPECT_TRUE(initialize());
    struct stat status = {};
    ASSERT_EQ(stat(FIFO, &status), 0);
    EXPECT_EQ(status.st_ino, old.st_ino);
    EXPECT_NE(numberAfter(log, "FLock is set for fifo ["), -1);
}

TEST_F(ZoneMonitorSetUpTest, TakesOnlyANegativeResultForAFailure)
{
    calls.give("lxc_monitor_fifo_name(", 1);
    calls.give("lxc_monitor_sock_name(", 1);
    calls.give("mknod(", 1);
    calls.give("fcntl(", 1);
    calls.give("bind(", 1);
    calls.give("listen(", 1);
    EXPECT_TRUE(initialize());
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

// Teardown.

TEST_F(ZoneMonitorTest, IsTornDownInOrder)
{
    const int fifoFd = opened(FIFO);
    const int publisher = listenerAt(SUBSCRIBERS);
    const int queries = listenerAt(QUERIES);
    calls.trace();
    const Texts texts = tearDown();
    Texts expected{by("I", "Remove all client connections[count : 0]"),
                   by("I", "All client connections are removed"),
                   said("I", "State GIO Channels are destroyed - /zone-test[fifo : %d / socket : %d]", fifoFd,
                        publisher)};
    append(expected, destroyed(fifoFd));
    append(expected, destroyed(publisher));
    append(expected, destroyed(queries));
    append(expected, libraryClosedAndObjectDeleted());
    EXPECT_THAT(texts, ElementsAreArray(expected));
    EXPECT_EQ(manager->get()->zoneMonitor, nullptr);
    EXPECT_TRUE(fs::exists(FIFO));
    EXPECT_THAT(tearDown(), IsEmpty()) << "nothing is left to tear down";
}

TEST_F(ZoneMonitorTest, DropsItsSubscribersAtTeardown)
{
    const UniqueFd first = subscribe();
    const int firstFd = subscriberFd;
    const UniqueFd second = subscribe();
    const int secondFd = subscriberFd;
    calls.trace();
    const Texts texts = tearDown();
    Texts expected{by("I", "Remove all client connections[count : 2]")};
    for (const int fd : {firstFd, secondFd}) {
        expected.push_back(said("I", "Found client connection from client GIO List[client socket : %d]", fd));
        append(expected, destroyed(fd));
    }
    expected.push_back(by("I", "All client connections are removed"));
    ASSERT_GE(texts.size(), expected.size());
    EXPECT_THAT(Texts(texts.begin(), texts.begin() + static_cast<long>(expected.size())),
                ElementsAreArray(expected));
    EXPECT_TRUE(atEnd(first));
    EXPECT_TRUE(atEnd(second));
}

TEST_F(ZoneMonitorTest, IsTerminatedFirstWhenItRuns)
{
    monitor->countAsRunning();
    const Texts texts = tearDown();
    ASSERT_GE(texts.size(), 2U);
    EXPECT_EQ(texts.at(0), TERMINATED + std::to_string(currentThreadId()) + ")");
    EXPECT_EQ(texts.at(1), by("I", "Remove all client connections[count : 0]"));
}

TEST_F(ZoneMonitorTest, ReportsALibraryThatCannotBeClosed)
{
    calls.fail("dlclose(", EBUSY);
    calls.trace();
    const Texts texts = tearDown();
    const Texts expected = libraryClosedAndObjectDeleted(
        {by("E", "Failed to close Mointor Interface Handle of /zone/config/liblxc.so.1 - Device or resource "
                 "busy")});
    ASSERT_GE(texts.size(), expected.size());
    EXPECT_THAT(Texts(texts.end() - static_cast<long>(expected.size()), texts.end()),
                ElementsAreArray(expected));
}

TEST_F(ZoneMonitorTest, StaysWhileItsThreadIsInTheMiddleOfSomething)
{
    ASSERT_TRUE(monitor->run());
    UniqueFd silent = connectTo(QUERIES, sizeof(sockaddr_un));
    ASSERT_TRUE(eventually([this] { return numberAfter(log, "is connected[listen socket : ") >= 0; }));
    EXPECT_THAT(tearDown(), ElementsAre(TERMINATED + std::to_string(currentThreadId()) + ")"));
    EXPECT_EQ(manager->get()->zoneMonitor, monitor);
    silent.reset();
    EXPECT_TRUE(eventually([this] {
        manager->get()->destroyZoneMonitor();
        return manager->get()->zoneMonitor == nullptr;
    }));
}

TEST_F(ZoneMonitorTest, TouchesNothingBehindAClosedGate)
{
    std::thread([] {
        ThreadGate gate;
        EXPECT_TRUE(gate.close());
        gate.guardThisThread();
        for (const GIOFunc callback :
             {ZoneMonitor::stateChangeIOEventCallback, ZoneMonitor::serverIOEventCallback,
              ZoneMonitor::clientIOEventCallback, ZoneMonitor::initPidResponseCallback}) {
            EXPECT_FALSE(callback(nullptr, G_IO_IN, nullptr));
        }
    }).join();
    EXPECT_THAT(log.texts(), IsEmpty());
}
