#include "Common/ProcessSignals.h"

#include "tests/support/unit/ChildProcess.h"
#include "tests/support/unit/Seam.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <glib.h>
#include <optional>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace ProcessSignals = ZoneCore::ProcessSignals;
using std::chrono::milliseconds;
using ZoneTest::statusOfChild;

namespace {

volatile sig_atomic_t terminations = 0;
volatile sig_atomic_t brokenPipes = 0;

void count(int signal)
{
    if (signal == SIGTERM) {
        terminations = terminations + 1;
    } else {
        brokenPipes = brokenPipes + 1;
    }
}

sigset_t maskOfThisThread()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

bool isBlocked(int signal)
{
    const sigset_t mask = maskOfThisThread();
    return sigismember(&mask, signal) == 1;
}

void block(int signal)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void setDisposition(int signalNumber, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signalNumber, &action, nullptr);
}

void (*dispositionOf(int signalNumber))(int)
{
    struct sigaction action = {};
    sigaction(signalNumber, nullptr, &action);
    return action.sa_handler;
}

void sendTo(pid_t process, int signal)
{
    ASSERT_EQ(kill(process, signal), 0);
}

/// Stands in for the kernel's poll as long as the object lives: gives its answer at once.
class Poll
{
public:
    explicit Poll(int result = 0) : answer(result) { armed = this; }
    ~Poll() { armed = nullptr; }
    Poll(const Poll&) = delete;
    Poll& operator=(const Poll&) = delete;

    static inline Poll* armed = nullptr;

    const int answer;
    std::optional<timespec> limit; ///< nothing: for ever
};

/// Runs a body in a process of its own that counts the SIGTERM and SIGPIPE that get through.
void inProcessOfItsOwn(const std::function<void()>& body)
{
    EXPECT_EQ(statusOfChild([&] {
                  setDisposition(SIGTERM, count);
                  setDisposition(SIGPIPE, count);
                  body();
              }),
              0);
}

} // namespace

// Takes the place of the C library's in this program.
extern "C" int ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask)
{
    if (Poll::armed == nullptr) {
        return ZoneTest::genuine(&ppoll, "ppoll")(fds, count, limit, mask);
    }
    Poll::armed->limit = limit == nullptr ? std::nullopt : std::optional(*limit);
    return Poll::armed->answer;
}

TEST(ProcessSignals, HoldBlocksTerminationAndBrokenPipeOnly)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        const sigset_t mask = maskOfThisThread();
        for (int signal = 1; signal < SIGSYS; ++signal) {
            EXPECT_EQ(sigismember(&mask, signal), signal == SIGTERM || signal == SIGPIPE ? 1 : 0) << signal;
        }
    });
}

TEST(ProcessSignals, ThreadsInheritWhatIsHeld)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        std::thread([] {
            EXPECT_TRUE(isBlocked(SIGTERM));
            EXPECT_TRUE(isBlocked(SIGPIPE));
        }).join();
    });
}

TEST(ProcessSignals, AHeldTerminationArrivesWhenItIsLetIn)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        sendTo(getpid(), SIGTERM);
        EXPECT_EQ(terminations, 0);
        ProcessSignals::deliverPending();
        EXPECT_EQ(terminations, 1);
        EXPECT_TRUE(isBlocked(SIGTERM));
        sendTo(getpid(), SIGTERM);
        EXPECT_EQ(terminations, 1);
        ProcessSignals::deliverPending();
        EXPECT_EQ(terminations, 2);
    });
}

TEST(ProcessSignals, LettingInWithoutASignalDoesNothing)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        ProcessSignals::deliverPending();
        EXPECT_EQ(terminations, 0);
    });
}

TEST(ProcessSignals, LetsNothingInBeforeItHolds)
{
    inProcessOfItsOwn([] {
        block(SIGTERM);
        sendTo(getpid(), SIGTERM);
        ProcessSignals::deliverPending();
        EXPECT_EQ(terminations, 0);
        EXPECT_TRUE(isBlocked(SIGTERM));
    });
}

TEST(ProcessSignals, ABrokenPipeNeverArrives)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe(ends.data()), 0);
        close(ends[0]);
        EXPECT_EQ(write(ends[1], "x", 1), -1);
        EXPECT_EQ(errno, EPIPE);
        ProcessSignals::deliverPending();
        static_cast<void>(ProcessSignals::poll(nullptr, 0, 1));
        EXPECT_EQ(brokenPipes, 0);
    });
}

TEST(ProcessSignalsPoll, LetsATerminationInThatWasHeld)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        sendTo(getpid(), SIGTERM);
        EXPECT_EQ(ProcessSignals::poll(nullptr, 0, 30000), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(terminations, 1);
        EXPECT_TRUE(isBlocked(SIGTERM));
    });
}

TEST(ProcessSignalsPoll, LetsATerminationInThatArrivesMeanwhile)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        std::thread sender([] {
            std::this_thread::sleep_for(milliseconds(20));
            sendTo(getpid(), SIGTERM);
        });
        EXPECT_EQ(ProcessSignals::poll(nullptr, 0, -1), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(terminations, 1);
        sender.join();
        sendTo(getpid(), SIGTERM);
        EXPECT_EQ(terminations, 1);
    });
}

TEST(ProcessSignalsPoll, ReportsWhatIsReady)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    GPollFD watched{ends[0], G_IO_IN, 0};
    EXPECT_EQ(ProcessSignals::poll(&watched, 1, -1), 1);
    EXPECT_EQ(watched.revents, G_IO_IN);
    close(ends[0]);
    close(ends[1]);
}

TEST(ProcessSignalsPoll, WaitsAsLongAsItWasToldTo)
{
    struct Limit
    {
        int milliseconds;
        std::time_t seconds;
        long nanoseconds;
    };
    for (const auto& [limit, seconds, nanoseconds] :
         {Limit{0, 0, 0}, Limit{1, 0, 1000000}, Limit{999, 0, 999000000}, Limit{1000, 1, 0},
          Limit{5001, 5, 1000000}, Limit{4294967, 4294, 967000000}}) {
        const Poll poll;
        EXPECT_EQ(ProcessSignals::poll(nullptr, 0, limit), 0);
        ASSERT_TRUE(poll.limit.has_value()) << limit;
        EXPECT_EQ(poll.limit->tv_sec, seconds) << limit;
        EXPECT_EQ(poll.limit->tv_nsec, nanoseconds) << limit;
    }
    const Poll poll;
    EXPECT_EQ(ProcessSignals::poll(nullptr, 0, -1), 0);
    EXPECT_FALSE(poll.limit.has_value());
}

TEST(ProcessSignalsPoll, LetsATerminationInOnceTheKernelDidNot)
{
    inProcessOfItsOwn([] {
        ProcessSignals::hold();
        for (const int ready : {0, 1}) {
            const Poll poll(ready);
            terminations = 0;
            sendTo(getpid(), SIGTERM);
            EXPECT_EQ(ProcessSignals::poll(nullptr, 0, 30), ready);
            EXPECT_EQ(terminations, 1) << ready;
        }
        const Poll failing(-1);
        terminations = 0;
        sendTo(getpid(), SIGTERM);
        EXPECT_EQ(ProcessSignals::poll(nullptr, 0, 30), -1);
        EXPECT_EQ(terminations, 0); // errno is the caller's
    });
}

TEST(ProcessSignalsPoll, AMainLoopTakesATerminationBetweenItsCallbacksOnly)
{
    inProcessOfItsOwn([] {
        static GMainLoop* loop = nullptr;
        loop = g_main_loop_new(nullptr, FALSE);
        setDisposition(SIGTERM, [](int signal) {
            count(signal);
            g_main_loop_quit(loop);
        });
        ProcessSignals::hold();
        g_main_context_set_poll_func(nullptr, ProcessSignals::poll);
        g_idle_add(
            [](gpointer) -> gboolean {
                sendTo(getpid(), SIGTERM);
                std::this_thread::sleep_for(milliseconds(5));
                EXPECT_EQ(terminations, 0);
                return G_SOURCE_REMOVE;
            },
            nullptr);
        g_main_loop_run(loop);
        EXPECT_EQ(terminations, 1);
        g_main_loop_unref(loop);
    });
}

TEST(ProcessSignalsInChild, HasTheMaskOfBeforeTheHold)
{
    inProcessOfItsOwn([] {
        block(SIGUSR1);
        ProcessSignals::hold();
        block(SIGUSR2);
        ProcessSignals::hold(); // the state before the first one counts
        EXPECT_EQ(statusOfChild([] {
                      ProcessSignals::restoreInChild();
                      EXPECT_TRUE(isBlocked(SIGUSR1));
                      EXPECT_FALSE(isBlocked(SIGUSR2));
                      EXPECT_FALSE(isBlocked(SIGTERM));
                      EXPECT_FALSE(isBlocked(SIGPIPE));
                  }),
                  0);
    });
}

TEST(ProcessSignalsInChild, ABrokenPipeEndsIt)
{
    inProcessOfItsOwn([] {
        setDisposition(SIGPIPE, SIG_IGN);
        ProcessSignals::hold();
        EXPECT_EQ(statusOfChild([] {
                      ProcessSignals::restoreInChild();
                      EXPECT_EQ(dispositionOf(SIGPIPE), SIG_DFL);
                  }),
                  0);
    });
}

TEST(ProcessSignalsInChild, TheDaemonsHandlerDoesNotRunInIt)
{
    inProcessOfItsOwn([] {
        setDisposition(SIGTERM, [](int) { _exit(99); });
        ProcessSignals::hold();
        // A SIGTERM for the whole process group that comes between the fork and the launcher ends the child.
        const pid_t child = fork();
        if (child == 0) {
            static_cast<void>(raise(SIGTERM));
            ProcessSignals::restoreInChild();
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "status " << status;
    });
}

TEST(ProcessSignalsInChild, KeepsItsMaskWithoutAHold)
{
    inProcessOfItsOwn([] {
        block(SIGUSR1);
        setDisposition(SIGPIPE, SIG_IGN);
        EXPECT_EQ(statusOfChild([] {
                      ProcessSignals::restoreInChild();
                      EXPECT_TRUE(isBlocked(SIGUSR1));
                      EXPECT_FALSE(isBlocked(SIGTERM));
                      EXPECT_EQ(dispositionOf(SIGPIPE), SIG_DFL);
                  }),
                  0);
    });
}
