#include "platform/log/platform_log.h"

#include "tests/platform/test_process.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sched.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using PlatformTest::runInChild;

namespace {

// As the daemon's macros call it.
#define LOG_RECORD(priority, line, body, ...)                                                                \
    platform_log_write(PLATFORM_LOG_BUFFER_MAIN, priority, "ZONE_MANAGER",                                   \
                       "%s: %s(%d) > \x1b[%s;%s;%sm[%s:%d] " body "\x1b[0m", "File.cpp", "method", line,     \
                       "01", "32", "40", "void Class::method()", line __VA_OPT__(, ) __VA_ARGS__)

constexpr char JOURNAL_SOCKET[] = "/run/systemd/journal/socket";
constexpr char SYSLOG_SOCKET[] = "/dev/log";

std::string recordText(int line, const std::string& body)
{
    const std::string number = std::to_string(line);
    return "File.cpp: method(" + number + ") > \x1b[01;32;40m[void Class::method():" + number + "] " + body +
           "\x1b[0m";
}

std::map<std::string, std::string> target(const std::string& name, const std::string& level = "")
{
    return {{"ZONE_LOG_TARGET", name}, {"ZONE_LOG_LEVEL", level}};
}

/// For children: gives the process a /run and a /dev of its own, so that the sockets at the log's fixed paths
/// are the test's and never the machine's.
bool usePrivateRunAndDev()
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
std::map<std::string, std::string> journalFields(const std::string& datagram)
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
        length = le64toh(length);
        position += sizeof(length);
        if (position + length >= datagram.size() || datagram[position + length] != '\n') {
            return {};
        }
        fields[line] = datagram.substr(position, length);
        position += length + 1;
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

} // namespace

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

TEST(PlatformLogJournal, SendsTheFieldsOfARecord)
{
    const auto result = runInChild(target("journal"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        const Receiver receiver(JOURNAL_SOCKET);
        CHILD_CHECK(receiver.bound());
        const std::map<platform_log_priority, std::string> priorities{{PLATFORM_LOG_DEBUG, "7"},
                                                                      {PLATFORM_LOG_INFO, "6"},
                                                                      {PLATFORM_LOG_WARNING, "4"},
                                                                      {PLATFORM_LOG_ERROR, "3"},
                                                                      {PLATFORM_LOG_FATAL, "2"}};
        for (const auto& [priority, number] : priorities) {
            CHILD_CHECK(LOG_RECORD(priority, 42, "two\nlines %s", "=") == 0);
            auto fields = journalFields(receiver.next().value_or(""));
            CHILD_CHECK(fields.size() == 7);
            CHILD_CHECK(fields["PRIORITY"] == number);
            CHILD_CHECK(fields["SYSLOG_IDENTIFIER"] == "ZONE_MANAGER");
            CHILD_CHECK(fields["CODE_FILE"] == "File.cpp");
            CHILD_CHECK(fields["CODE_LINE"] == "42");
            CHILD_CHECK(fields["CODE_FUNC"] == "method");
            CHILD_CHECK(fields["TID"] == std::to_string(gettid()));
            CHILD_CHECK(fields["MESSAGE"] == recordText(42, "two\nlines ="));
        }
        CHILD_CHECK(!receiver.next());
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(PlatformLogJournal, ARecordWithoutAnOriginHasNoCodeFields)
{
    const auto result = runInChild(target("journal"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        const Receiver receiver(JOURNAL_SOCKET);
        CHILD_CHECK(platform_log_write(PLATFORM_LOG_BUFFER_MAIN, PLATFORM_LOG_INFO, "TAG", "%s plain", "a") ==
                    0);
        auto fields = journalFields(receiver.next().value_or(""));
        CHILD_CHECK(fields.size() == 4);
        CHILD_CHECK(fields["MESSAGE"] == "a plain");
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(PlatformLogJournal, ALongRecordIsCutAndStaysWellFormed)
{
    const auto result = runInChild(target("journal"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        const Receiver receiver(JOURNAL_SOCKET);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "%s", std::string(100000, 'x').c_str()) == 0);
        auto fields = journalFields(receiver.next().value_or(""));
        CHILD_CHECK(fields.size() == 7);
        CHILD_CHECK(fields["MESSAGE"].ends_with("xxx\x1b[0m"));
        CHILD_CHECK(fields["MESSAGE"].size() > 16000);
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(PlatformLogJournal, AFullQueueLosesRecordsAndTheirNumberIsReported)
{
    const auto result = runInChild(target("journal"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        const Receiver receiver(JOURNAL_SOCKET);
        int taken = 0;
        while (taken < 100000 && LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == 0) {
            ++taken;
        }
        CHILD_CHECK(taken < 100000);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == -1);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == -1);
        for (int index = 0; index < taken; ++index) {
            CHILD_CHECK(receiver.next().has_value());
        }
        CHILD_CHECK(!receiver.next());
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "through") == 0);
        CHILD_CHECK(journalFields(receiver.next().value_or(""))["MESSAGE"] == recordText(1, "through"));
        auto report = journalFields(receiver.next().value_or(""));
        CHILD_CHECK(report["MESSAGE"] == "3 log records were lost");
        CHILD_CHECK(report["PRIORITY"] == "4");
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "after") == 0);
        CHILD_CHECK(receiver.next().has_value());
        CHILD_CHECK(!receiver.next());
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(PlatformLogJournal, ARestartedJournalGetsTheNextRecord)
{
    const auto result = runInChild(target("journal"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "no socket yet") == -1);
        {
            const Receiver first(JOURNAL_SOCKET);
            CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == 0);
            CHILD_CHECK(first.next().has_value());
            CHILD_CHECK(journalFields(first.next().value_or(""))["MESSAGE"] == "1 log records were lost");
        }
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "nobody listens") == -1);
        const Receiver second(JOURNAL_SOCKET);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == 0);
        CHILD_CHECK(second.next().has_value());
        CHILD_CHECK(journalFields(second.next().value_or(""))["MESSAGE"] == "1 log records were lost");
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(PlatformLogJournal, TheSocketIsCloseOnExecAndAboveTheStandardDescriptors)
{
    for (const bool standardInputClosed : {false, true}) {
        const auto result = runInChild(target("journal"), [&] {
            CHILD_CHECK(usePrivateRunAndDev());
            const Receiver receiver(JOURNAL_SOCKET);
            const int lowestFree = dup(STDOUT_FILENO);
            close(lowestFree);
            if (standardInputClosed) {
                close(STDIN_FILENO);
            }
            CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == 0);
            CHILD_CHECK((fcntl(STDIN_FILENO, F_GETFD) == -1) == standardInputClosed);
            CHILD_CHECK(fcntl(lowestFree, F_GETFD) == FD_CLOEXEC);
            return 0;
        });
        EXPECT_EQ(result.exitStatus, 0) << result.output;
    }
}

TEST(PlatformLogJournal, WithoutADescriptorEveryRecordIsLost)
{
    const auto result = runInChild(target("journal"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        const Receiver receiver(JOURNAL_SOCKET);
        rlimit limit{};
        CHILD_CHECK(getrlimit(RLIMIT_NOFILE, &limit) == 0);
        const rlimit none{0, limit.rlim_max};
        CHILD_CHECK(setrlimit(RLIMIT_NOFILE, &none) == 0);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "x") == -1);
        CHILD_CHECK(setrlimit(RLIMIT_NOFILE, &limit) == 0);
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 2, "x") == -1);
        CHILD_CHECK(!receiver.next());
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(PlatformLogSyslog, SendsFacilityDaemonLevelAndIdent)
{
    const auto result = runInChild(target("syslog"), [] {
        CHILD_CHECK(usePrivateRunAndDev());
        const Receiver receiver(SYSLOG_SOCKET);
        CHILD_CHECK(receiver.bound());
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_INFO, 1, "i") == 0);
        CHILD_CHECK(receiver.next() == "<30>ZONE_MANAGER: " + recordText(1, "i"));
        CHILD_CHECK(LOG_RECORD(PLATFORM_LOG_FATAL, 1, "f") == 0);
        CHILD_CHECK(receiver.next() == "<26>ZONE_MANAGER: " + recordText(1, "f"));
        CHILD_CHECK(!receiver.next());
        return 0;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
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
