#include "platform/log/platform_log.h"

#include "tests/platform/log_fixture.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

using PlatformTest::JOURNAL_SOCKET;
using PlatformTest::Receiver;
using PlatformTest::recordText;
using PlatformTest::runInChild;
using PlatformTest::target;
using PlatformTest::usePrivateRunAndDev;

TEST(PlatformLogConsole, WritesOneLineWithLetterTagAndIds)
{
    const auto result = runInChild(target("console"), [] {
        return LOG_RECORD(PLATFORM_LOG_DEBUG, 1, "d") | LOG_RECORD(PLATFORM_LOG_INFO, 2, "i %d", 7) |
               LOG_RECORD(PLATFORM_LOG_WARNING, 3, "w") | LOG_RECORD(PLATFORM_LOG_ERROR, 4, "e") |
               LOG_RECORD(PLATFORM_LOG_FATAL, 5, "f %s", "text");
    });
    EXPECT_EQ(result.exitStatus, 0);
    const std::string ids =
        "/ZONE_MANAGER(" + std::to_string(result.pid) + ":" + std::to_string(result.pid) + "): ";
    EXPECT_EQ(result.output, "D" + ids + recordText(1, "d") + "\n" + "I" + ids + recordText(2, "i 7") + "\n" +
                                 "W" + ids + recordText(3, "w") + "\n" + "E" + ids + recordText(4, "e") +
                                 "\n" + "F" + ids + recordText(5, "f text") + "\n");
}

TEST(PlatformLogConsole, ATextWithNewlinesStaysOneLine)
{
    const auto result = runInChild(target("console"), [] {
        return LOG_RECORD(PLATFORM_LOG_INFO, 1, "%s", "zone\nF/ZONE_MANAGER(1:1): no");
    });
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1);
    EXPECT_NE(result.output.find("zone F/ZONE_MANAGER(1:1): no"), std::string::npos);
}

TEST(PlatformLogConsole, EachThreadAndAForkedChildHaveTheirOwnIds)
{
    const auto result = runInChild(target("console"), [] {
        LOG_RECORD(PLATFORM_LOG_INFO, 1, "main");
        pid_t tid = 0;
        std::thread([&] {
            tid = gettid();
            LOG_RECORD(PLATFORM_LOG_INFO, 2, "thread");
        }).join();
        const pid_t child = fork();
        if (child == 0) {
            LOG_RECORD(PLATFORM_LOG_INFO, 3, "child");
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        dprintf(STDOUT_FILENO, "expect (%d:%d) (%d:%d) (%d:%d)\n", getpid(), getpid(), getpid(), tid, child,
                child);
        return status;
    });
    ASSERT_EQ(result.exitStatus, 0);
    std::vector<std::string> ids;
    for (std::size_t at = 0; (at = result.output.find('(', at)) != std::string::npos; ++at) {
        const std::string id = result.output.substr(at, result.output.find(')', at) + 1 - at);
        if (id.find(':') != std::string::npos) {
            ids.push_back(id);
        }
    }
    // Each record has two: of the caller, and "(): LINE]" of the signature does not match the form.
    std::erase_if(ids, [](const std::string& id) { return id.size() < 4; });
    ASSERT_EQ(ids.size(), 6U) << result.output;
    EXPECT_EQ(ids[0], ids[3]);
    EXPECT_EQ(ids[1], ids[4]);
    EXPECT_EQ(ids[2], ids[5]);
    EXPECT_NE(ids[0], ids[1]);
    EXPECT_NE(ids[0], ids[2]);
}

TEST(PlatformLogConsole, RecordsOfManyThreadsDoNotMix)
{
    constexpr int THREADS = 8;
    constexpr int RECORDS = 200;
    const auto result = runInChild(target("console"), [] {
        std::vector<std::thread> threads;
        threads.reserve(THREADS);
        for (int index = 0; index < THREADS; ++index) {
            threads.emplace_back([index] {
                const std::string body(static_cast<std::size_t>(100 + index * 300),
                                       static_cast<char>('a' + index));
                for (int record = 0; record < RECORDS; ++record) {
                    LOG_RECORD(PLATFORM_LOG_INFO, 1, "<%s>", body.c_str());
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        return 0;
    });
    ASSERT_EQ(result.exitStatus, 0);
    std::istringstream lines(result.output);
    std::map<char, int> counts;
    for (std::string line; std::getline(lines, line);) {
        const auto open = line.find('<');
        ASSERT_NE(open, std::string::npos);
        const char letter = line[open + 1];
        const std::size_t length = 100 + static_cast<std::size_t>(letter - 'a') * 300;
        ASSERT_EQ(line.substr(open), "<" + std::string(length, letter) + ">\x1b[0m");
        ++counts[letter];
    }
    ASSERT_EQ(counts.size(), static_cast<std::size_t>(THREADS));
    for (const auto& [letter, count] : counts) {
        EXPECT_EQ(count, RECORDS) << letter;
    }
}

TEST(PlatformLogConsole, ALongRecordIsCutAndKeepsItsColourResetAndNewline)
{
    const auto result = runInChild(target("console"), [] {
        LOG_RECORD(PLATFORM_LOG_INFO, 1, "%s", std::string(100000, 'x').c_str());
        LOG_RECORD(PLATFORM_LOG_INFO, 2, "next");
        return 0;
    });
    const auto end = result.output.find('\n');
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(end + 1, 16384U);
    EXPECT_EQ(result.output.substr(end - 5, 5), "x\x1b[0m");
    EXPECT_NE(result.output.find("] next\x1b[0m\n", end), std::string::npos);
}

TEST(PlatformLogConsole, TheCutLeavesNoHalfCharacter)
{
    std::string umlauts;
    for (int count = 0; count < 20000; ++count) {
        umlauts += "\xc3\xbc";
    }
    for (const char* shift : {"", "x"}) {
        const auto result = runInChild(target("console"), [&] {
            return LOG_RECORD(PLATFORM_LOG_INFO, 1, "%s%s", shift, umlauts.c_str());
        });
        EXPECT_TRUE(result.output.ends_with("\xc3\xbc\x1b[0m\n"));
    }
}

TEST(PlatformLogConsole, AReaderThatIsGoneNeitherEndsNorHoldsTheProcess)
{
    const auto result = runInChild(target("console"), [] {
        static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
        const int output = dup(STDOUT_FILENO);
        int ends[2];
        CHILD_CHECK(pipe(ends) == 0);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "lost") == -1);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "lost") == -1);
        sigset_t pending;
        sigpending(&pending);
        CHILD_CHECK(sigismember(&pending, SIGPIPE) == 0);
        sigset_t sigpipe;
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        CHILD_CHECK(pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr) == 0);
        CHILD_CHECK(raise(SIGPIPE) == 0);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "lost") == -1);
        sigpending(&pending);
        CHILD_CHECK(sigismember(&pending, SIGPIPE) == 1); // somebody else's
        close(output);
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output << " signal " << result.signal;
}

TEST(PlatformLogConsole, AClosedStandardErrorLosesTheRecordOnly)
{
    const auto result = runInChild(target("console"), [] {
        close(STDERR_FILENO);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "lost") == -1);
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(PlatformLog, KeepsErrno)
{
    for (const char* name : {"console", "journal", "syslog", "null"}) {
        const auto result = runInChild(target(name), [] {
            CHILD_CHECK(usePrivateRunAndDev());
            for (int round = 0; round < 2; ++round) {
                errno = ENOTDIR;
                static_cast<void>(platform_log_write(PLATFORM_LOG_BUFFER_MAIN, PLATFORM_LOG_INFO, "T", "x"));
                CHILD_CHECK(errno == ENOTDIR);
            }
            return 0;
        });
        EXPECT_EQ(result.exitStatus, 0) << name << " " << result.output;
    }
}

TEST(PlatformLog, DropsRecordsBelowTheLevel)
{
    const std::vector<std::string> levels{"debug", "info", "warning", "error", "fatal"};
    for (std::size_t level = 0; level < levels.size(); ++level) {
        const auto result = runInChild(target("console", levels[level]), [] {
            for (const auto priority : {PLATFORM_LOG_DEBUG, PLATFORM_LOG_INFO, PLATFORM_LOG_WARNING,
                                        PLATFORM_LOG_ERROR, PLATFORM_LOG_FATAL}) {
                CHILD_CHECK(platform_log_write(PLATFORM_LOG_BUFFER_MAIN, priority, "T", "x") == 0);
            }
            return 0;
        });
        std::istringstream lines(result.output);
        std::string letters;
        for (std::string line; std::getline(lines, line);) {
            letters += line[0];
        }
        EXPECT_EQ(letters, std::string("DIWEF").substr(level)) << levels[level];
    }
}

TEST(PlatformLog, AnUnknownWordIsReportedOnceAndTheDefaultHolds)
{
    const auto result = runInChild(target("printer", "loud"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        LOG_RECORD(PLATFORM_LOG_DEBUG, 1, "one");
        LOG_RECORD(PLATFORM_LOG_DEBUG, 2, "two");
        return 0;
    });
    const std::string expected =
        "zone-manager: unknown value of ZONE_LOG_TARGET: \"printer\", the default holds\n"
        "zone-manager: unknown value of ZONE_LOG_LEVEL: \"loud\", the default holds\n"
        "D/ZONE_MANAGER(";
    EXPECT_TRUE(result.output.starts_with(expected)) << result.output;
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 4);
}

TEST(PlatformLog, TheTargetNullWritesNothing)
{
    const auto result = runInChild(target("null"), [] { return LOG_RECORD(PLATFORM_LOG_FATAL, 1, "x"); });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "");
}

TEST(PlatformLog, TheDefaultIsTheJournalWhereItsSocketIsElseTheConsole)
{
    for (const bool journal : {true, false}) {
        const auto result = runInChild(target(""), [&] {
            CHILD_CHECK(usePrivateRunAndDev());
            std::optional<Receiver> receiver;
            if (journal) {
                receiver.emplace(JOURNAL_SOCKET);
            }
            CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == 0);
            CHILD_CHECK(!journal || receiver->next().has_value());
            return 0;
        });
        EXPECT_EQ(result.exitStatus, 0) << result.output;
        EXPECT_EQ(result.output.empty(), journal) << result.output;
    }
}

namespace {

std::atomic<int> handledSignals{0};

void logInHandler(int /*signal*/)
{
    LOG_RECORD(PLATFORM_LOG_FATAL, 1, "handler %s %d %ld", "text", 1, 2L);
    handledSignals.fetch_add(1);
}

} // namespace

TEST(PlatformLog, AHandlerThatInterruptsTheAllocatorCanLog)
{
    constexpr int SIGNALS = 500;
    const auto result = runInChild(target("journal"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        // A second thread makes the allocator lock.
        std::atomic<bool> stop{false};
        std::thread other([&] {
            while (!stop) {
                usleep(1000);
            }
        });
        // Only the allocating thread is interrupted: the second one blocks nothing but sleeps.
        static_cast<void>(std::signal(SIGALRM, logInHandler));
        const itimerval often{.it_interval = {.tv_sec = 0, .tv_usec = 200},
                              .it_value = {.tv_sec = 0, .tv_usec = 200}};
        setitimer(ITIMER_REAL, &often, nullptr);
        std::vector<std::string> kept(16);
        for (std::size_t round = 0; handledSignals < SIGNALS; ++round) {
            kept[round % kept.size()] = std::string(2000 + round % 30000, 'x');
        }
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        stop = true;
        other.join();
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output << " signal " << result.signal;
}

TEST(PlatformLog, ThreadsThatLogFirstTogetherAllGetThrough)
{
    const auto result = runInChild(target("console", "loud"), [] {
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        threads.reserve(16);
        for (int index = 0; index < 16; ++index) {
            threads.emplace_back([&] {
                while (!go) {
                }
                LOG_RECORD(PLATFORM_LOG_INFO, 1, "x");
            });
        }
        go = true;
        for (auto& thread : threads) {
            thread.join();
        }
        return 0;
    });
    std::size_t records = 0;
    std::size_t reports = 0;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        records += line.starts_with("I/ZONE_MANAGER(") ? 1U : 0U;
        reports += line.starts_with("zone-manager: unknown value") ? 1U : 0U;
    }
    EXPECT_EQ(records, 16U) << result.output;
    EXPECT_EQ(reports, 1U) << result.output;
}
