// What becomes of a set-up of which one step fails: nothing of the later steps is done, and what the earlier
// ones have made is undone, in order.
#include "tests/ZoneCore/ZoneMonitorFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace ZoneCore;
using testing::ElementsAre;
using ZoneTest::by;
using ZoneTest::called;
using ZoneTest::FIFO;
using ZoneTest::numberAfter;
using ZoneTest::openDescriptors;
using ZoneTest::ReadOnlyMount;
using ZoneTest::RUN_DIRECTORY;
using ZoneTest::said;

namespace {

const std::string UNLINKED = std::string("D unlink(") + FIFO + ")";

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

class ZoneMonitorSetUpFailure : public ZoneTest::ZoneMonitorSetUpTest
{
protected:
    void SetUp() override
    {
        ZoneMonitorSetUpTest::SetUp();
        before = openDescriptors().size();
    }
    void TearDown() override
    {
        manager->get()->destroyZoneMonitor();
        EXPECT_EQ(openDescriptors().size(), before);
        ZoneMonitorSetUpTest::TearDown();
    }

    /// Initialises. @return what was called and written from the first error on
    std::vector<std::string> failure()
    {
        calls.trace();
        EXPECT_FALSE(initialize());
        const auto texts = log.texts();
        const auto error = std::find_if(texts.begin(), texts.end(),
                                        [](const std::string& text) { return text.rfind("E ", 0) == 0; });
        return {error, texts.end()};
    }
    void startAfresh()
    {
        calls.reset();
        manager->get()->destroyZoneMonitor();
        monitor = new ZoneTest::Driven<ZoneMonitor>;
        manager->setMonitor(monitor);
        log.clear();
    }
    [[nodiscard]] int fifoDescriptor() const
    {
        return numberAfter(log, "FIFO node is created to /run/lxc//zone-test/monitor-fifo for /zone-test[");
    }
    [[nodiscard]] int publisherDescriptor() const { return numberAfter(log, "/ test-subscribers["); }

    /// What undoes the channel of a descriptor.
    static std::vector<std::string> undone(int fd)
    {
        return {called("g_io_channel_unref", fd), called("close", fd),
                said("I", "GIO Channel is destroyed[fd : %d]", fd)};
    }
    /// The end of a set-up whose channels cannot be made.
    static std::vector<std::string> undone(std::vector<std::string> start, const std::vector<int>& channels)
    {
        for (const int fd : channels) {
            const auto steps = undone(fd);
            start.insert(start.end(), steps.begin(), steps.end());
        }
        start.push_back(UNLINKED);
        return start;
    }

    std::size_t before = 0; ///< open descriptors
};

} // namespace

TEST_F(ZoneMonitorSetUpFailure, NeedsAContext)
{
    calls.fail("g_main_context_new(");
    EXPECT_THAT(failure(), ElementsAre("E [Thread Context] Failed to create the thread context(thread name : "
                                       "zone-monitor, thread id : " +
                                           std::to_string(currentThreadId()) + ")",
                                       by("E", "Failed to initialize the thread - /zone-test")));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsTheLibrary)
{
    calls.fail("dlopen(", ENOENT);
    EXPECT_THAT(
        failure(),
        ElementsAre(by("E", "Failed to dlopen for /zone/config/liblxc.so.1 - No such file or directory")));
}

TEST_F(ZoneMonitorSetUpFailure, LeavesNothingToCloseWithoutTheLibrary)
{
    calls.fail("dlopen(", ENOENT);
    EXPECT_FALSE(initialize());
    calls.trace();
    const auto texts = tearDown();
    ASSERT_GE(texts.size(), 4U);
    EXPECT_THAT(std::vector<std::string>(texts.begin(), texts.begin() + 4),
                ElementsAre(by("I", "Remove all client connections[count : 0]"),
                            by("I", "All client connections are removed"),
                            by("I", "State GIO Channels are destroyed - /zone-test[fifo : -1 / socket : -1]"),
                            by("I", "Monitor Interface Handle is closed(/zone/config/liblxc.so.1)")));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsEveryFunctionOfTheLibrary)
{
    for (const std::string name :
         {"lxc_monitor_fifo_name", "lxc_monitor_sock_name", "lxc_abstract_unix_open", "lxc_state2str"}) {
        calls.fail("dlsym(" + name, ENOSYS);
        EXPECT_THAT(failure(),
                    ElementsAre(by("E", "Failed to get symbol of " + name + " - Function not implemented")));
        startAfresh();
    }
}

TEST_F(ZoneMonitorSetUpFailure, NeedsFunctionsThatAreThere)
{
    calls.fail("dlsym(lxc_state2str"); // found, at address 0: no error
    EXPECT_THAT(failure(), ElementsAre(by("E", "Failed to get symbol of lxc_state2str - ")));
}

TEST_F(ZoneMonitorSetUpFailure, LeavesTheLibraryToTheTeardown)
{
    calls.fail("dlsym(lxc_state2str", ENOSYS);
    EXPECT_FALSE(initialize());
    calls.trace();
    const auto texts = tearDown();
    ASSERT_GE(texts.size(), 6U);
    EXPECT_THAT(std::vector<std::string>(texts.begin() + 3, texts.begin() + 6),
                ElementsAre("D dlclose()", by("I", "Monitor Interface Handle is initialized"),
                            by("I", "Monitor Interface Handle is closed(/zone/config/liblxc.so.1)")));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAFifoName)
{
    control.set("fifo_name_fails");
    EXPECT_THAT(failure(), ElementsAre(by("E", "Failed to create the name of fifo path for state events - "
                                               "/zone-test / ")));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAFifo)
{
    fs::create_directories(fs::path(FIFO).parent_path());
    const ReadOnlyMount mounted(RUN_DIRECTORY);
    EXPECT_THAT(
        failure(),
        ElementsAre(by("E", std::string("Failed to create the node for monitor fifo - /zone-test / ") + FIFO +
                                "(ref count : 1)")));
}

TEST_F(ZoneMonitorSetUpFailure, RefusesAFifoOutsideOfLxcDirectories)
{
    control.set("fifo_name", "/zone-test/monitor-fifo");
    EXPECT_THAT(failure(),
                ElementsAre(by("E", "Can not find string(lxc) - /zone-test/monitor-fifo(ref count : 1)"),
                            "D unlink(/zone-test/monitor-fifo)"));
    EXPECT_FALSE(fs::exists("/zone-test/monitor-fifo"));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsALabelOfTheDirectory)
{
    fs::remove_all(RUN_DIRECTORY); // liblxc makes it again, without a label
    EXPECT_THAT(failure(),
                ElementsAre("E Failed to get smack label of \"/run/lxc\"(\"!\") - \"No data available\"",
                            by("E", std::string("Failed to set container access label - /zone-test / ") +
                                        FIFO + "(ref count : 1)"),
                            UNLINKED));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAFifoThatOpens)
{
    calls.fail("open(", EACCES);
    EXPECT_THAT(failure(),
                ElementsAre(by("E", std::string("Failed to open the monitor fifo - /zone-test / ") + FIFO +
                                        "(ref count : 1)"),
                            UNLINKED));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsTheLockOfTheFifo)
{
    fs::create_directories(fs::path(FIFO).parent_path());
    ASSERT_EQ(mkfifo(FIFO, 0600), 0);
    const LockHolder holder(FIFO);
    const auto texts = failure();
    const int fifo = fifoDescriptor();
    EXPECT_THAT(texts,
                ElementsAre(said("E", "Failed to set flock for monitor fifo - /zone-test / [%d]", fifo),
                            UNLINKED, called("close", fifo)));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAChannelOnTheFifo)
{
    calls.fail("g_io_channel_unix_new(");
    const auto texts = failure();
    const int fifo = fifoDescriptor();
    EXPECT_THAT(texts,
                ElementsAre(said("E", "Failed to gio channel for fifo - /zone-test[fifofd : %d]", fifo),
                            called("close", fifo), UNLINKED));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAPublisherName)
{
    control.set("sock_name_fails");
    const auto texts = failure();
    EXPECT_EQ(texts, undone({by("E", "Failed to create the socket name - /zone-test")}, {fifoDescriptor()}));
    EXPECT_FALSE(fs::exists(FIFO));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAPublisherSocket)
{
    control.set("unix_open_fails");
    const auto texts = failure();
    EXPECT_EQ(texts, undone({by("E", "Failed to open the unix domain socket for monitor publisher - "
                                     "/zone-test / test-subscribers")},
                            {fifoDescriptor()}));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAChannelOnThePublisherSocket)
{
    calls.fail("g_io_channel_unix_new(", 0, 1);
    const auto texts = failure();
    const int publisher = publisherDescriptor();
    EXPECT_EQ(texts, undone({said("E", "Failed to gio channel for socket - /zone-test[%d]", publisher),
                             called("close", publisher)},
                            {fifoDescriptor()}));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsASocketForQueries)
{
    calls.fail("socket(", EMFILE);
    const auto texts = failure();
    std::string error = by("E", "Failed to createResponseServer");
    error.erase(error.find("] ") + 1, 1); // this one has no blank
    EXPECT_EQ(texts, undone({error}, {fifoDescriptor(), publisherDescriptor()}));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsTheAddressForQueries)
{
    calls.fail("bind(", EADDRINUSE);
    const auto texts = failure();
    EXPECT_EQ(texts, undone({by("E", "Failed to bind"), called("close", numberAfter(log, "D bind("))},
                            {fifoDescriptor(), publisherDescriptor()}));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsToListenForQueries)
{
    calls.fail("listen(", EOPNOTSUPP);
    const auto texts = failure();
    EXPECT_EQ(texts, undone({by("E", "Failed to listen"), called("close", numberAfter(log, "D listen("))},
                            {fifoDescriptor(), publisherDescriptor()}));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsAChannelOnTheQuerySocket)
{
    calls.fail("g_io_channel_unix_new(", 0, 2);
    const auto texts = failure();
    const int queries = numberAfter(log, "Server is created - zonemanager_socket[");
    EXPECT_EQ(texts, undone({said("E", "Failed to gio channel for socket - zonemanager_socket[%d]", queries),
                             called("close", queries)},
                            {fifoDescriptor(), publisherDescriptor()}));
}

TEST_F(ZoneMonitorSetUpFailure, NeedsEveryWatcherAndClosesNothingWithoutOne)
{
    int number = 0; // of watchers that can be made
    for (const std::string name : {"subscriber", "publisher", "subscriber"}) {
        calls.fail("g_io_create_watch(", 0, number++);
        EXPECT_THAT(failure(), ElementsAre(by("E", "Failed to create gsource for io watch - /zone-test"),
                                           by("E", "Failed to add " + name +
                                                       " watcher to thread context - /zone-test")));
        EXPECT_TRUE(fs::exists(FIFO));
        startAfresh();
    }
}
