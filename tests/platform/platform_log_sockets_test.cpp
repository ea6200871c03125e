// The log service's records at the sockets of the journal and of syslog.
#include "tests/platform/log_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

using PlatformTest::JOURNAL_SOCKET;
using PlatformTest::journalFields;
using PlatformTest::Receiver;
using PlatformTest::recordText;
using PlatformTest::runInChild;
using PlatformTest::SYSLOG_SOCKET;
using PlatformTest::target;
using PlatformTest::usePrivateRunAndDev;

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
