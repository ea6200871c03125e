#include "Explain/LogReader.h"

#include <ctime>
#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

const std::string ORIGIN =
    "Zone.cpp: handleStart(12) > \x1b[01;31;40m[void ZoneCore::Zone::handleStart():12] ";
const std::string RESET = "\x1b[0m";
const std::string BODY = "Failed to start red(thread name : red, tid : 9)";
const std::string CONSOLE = "F/ZONE_MANAGER(7:9): " + ORIGIN + BODY + RESET;
/// 2026-11-21T15:58:23.123456Z
constexpr LogTime MOMENT = 1795276703123456;

[[nodiscard]] std::optional<LogTime> timeBefore(const std::string& prefix)
{
    const auto record = readLogRecord(prefix + CONSOLE);
    EXPECT_TRUE(record) << prefix;
    return record ? record->time : std::nullopt;
}

/// The journal's JSON of a message: its bytes, since the escapes of colours are not printable.
[[nodiscard]] std::string journalLine(const std::string& message, const std::string& identifier)
{
    std::string bytes;
    for (const char byte : message) {
        bytes += (bytes.empty() ? "" : ", ") + std::to_string(static_cast<unsigned char>(byte));
    }
    return R"({"SYSLOG_IDENTIFIER" : ")" + identifier +
           R"(", "_PID" : "7", "TID" : "9", "PRIORITY" : "2", )" +
           R"("__REALTIME_TIMESTAMP" : "1795276703123456", "MESSAGE" : [)" + bytes + "]}";
}

} // namespace

TEST(ReadLogRecord, TakesAConsoleRecordApart)
{
    const auto record = readLogRecord(CONSOLE);
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->time);
    EXPECT_EQ(record->level, 'F');
    EXPECT_EQ(record->pid, 7);
    EXPECT_EQ(record->tid, 9);
    EXPECT_EQ(record->function, "handleStart");
    EXPECT_EQ(record->message, BODY);
}

TEST(ReadLogRecord, TakesATimeAtTheBeginning)
{
    EXPECT_EQ(timeBefore("2026-11-21T15:58:23.123456+0000 host zone-manager[7]: "), MOMENT);
    EXPECT_EQ(timeBefore("2026-11-21T16:58:23.123456+01:00 "), MOMENT);
    EXPECT_EQ(timeBefore("2026-11-21 15:58:23.123456Z "), MOMENT);
    EXPECT_EQ(timeBefore("2026-11-21T15:58:23Z host: "), MOMENT / LOG_SECOND * LOG_SECOND);
    EXPECT_EQ(timeBefore("host zone-manager[7]: "), std::nullopt);
    EXPECT_EQ(timeBefore("2026-13-41T15:58:23Z "), std::nullopt);
}

TEST(ReadLogRecord, AStampWithoutAYearIsOfTheLastOne)
{
    for (const LogTime daysAgo : {0, 1, 200, 360}) {
        const auto moment = static_cast<std::time_t>(std::time(nullptr) - daysAgo * 86400);
        std::tm local{};
        localtime_r(&moment, &local);
        char stamp[32];
        ASSERT_EQ(std::strftime(stamp, sizeof(stamp), "%b %e %H:%M:%S", &local), 15U);
        EXPECT_EQ(timeBefore(std::string(stamp) + " host zone-manager[7]: "), moment * LOG_SECOND) << stamp;
    }
    EXPECT_EQ(timeBefore("Foo 21 15:58:23 "), std::nullopt);
    EXPECT_EQ(timeBefore("Nov 31 15:58:23 "), std::nullopt);
    EXPECT_EQ(timeBefore("Nov 21 15.58.23 "), std::nullopt);
}

TEST(ReadLogRecord, AnAbsurdTimeIsNone)
{
    const std::string line = journalLine(ORIGIN + BODY + RESET, "ZONE_MANAGER");
    const auto timeIn = [&line](const std::string& microseconds) {
        std::string other = line;
        const auto record = readLogRecord(other.replace(other.find("1795276703123456"), 16, microseconds));
        EXPECT_TRUE(record) << microseconds;
        return record ? record->time : MOMENT;
    };
    for (const char* absurd : {"-1", "-62135596800500000", "9223372036854775807", "1152921504606846977",
                               "9223372036854775808", "17x", ""}) {
        EXPECT_EQ(timeIn(absurd), std::nullopt) << absurd;
    }
    EXPECT_EQ(timeIn("0"), 0);
    EXPECT_EQ(timeIn("1152921504606846976"), 1152921504606846976);
    EXPECT_EQ(timeBefore("0001-01-01T00:00:00.5+14:00 "), std::nullopt);
    EXPECT_EQ(timeBefore("1969-12-31T23:59:59Z "), std::nullopt);
}

TEST(ReadLogRecord, TakesWhatSyslogMakesOfARecord)
{
    const auto record =
        readLogRecord("2026-11-21T15:58:23.123456Z host ZONE_MANAGER[7]: " + ORIGIN + BODY + RESET);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->time, MOMENT);
    EXPECT_EQ(record->level, 'E') << "as the colour says";
    EXPECT_EQ(record->pid, 7);
    EXPECT_EQ(record->tid, 0);
    EXPECT_EQ(record->message, BODY);
    EXPECT_TRUE(readLogRecord("ZONE_MANAGER: " + ORIGIN + BODY + RESET));
    const auto caught = readLogRecord("host ZONE_MANAGER[7]: " + CONSOLE);
    ASSERT_TRUE(caught);
    EXPECT_EQ(caught->function, "handleStart");
    EXPECT_EQ(caught->tid, 9);
}

TEST(ReadLogRecord, EscapesMayHaveBeenMadePrintable)
{
    for (const std::string escape : {"#033", "^[", ""}) {
        const auto record = readLogRecord("I/ZONE_MANAGER(7:9): Zone.cpp: f(12) > " + escape +
                                          "[01;32;40m[void f():12] text" + escape + "[0m");
        ASSERT_TRUE(record) << escape;
        EXPECT_EQ(record->message, "text") << escape;
    }
}

TEST(ReadLogRecord, NamesAndSignaturesMayHoldBracketsAndParentheses)
{
    const auto record = readLogRecord("I/ZONE_MANAGER(7:9): A.cpp: operator()(12) > \x1b[01;32;40m"
                                      "[f()::<lambda()> [with T = int; auto:1 = char]:12] [x:1] text\x1b[0m");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->function, "operator()");
    EXPECT_EQ(record->message, "[x:1] text");
}

TEST(ReadLogRecord, TakesTheJournalsRecords)
{
    for (const std::string& line :
         {journalLine(ORIGIN + BODY + RESET, "ZONE_MANAGER"), journalLine(CONSOLE, "zone-manager")}) {
        const auto record = readLogRecord(line);
        ASSERT_TRUE(record) << line;
        EXPECT_EQ(record->time, MOMENT);
        EXPECT_EQ(record->level, 'F');
        EXPECT_EQ(record->pid, 7);
        EXPECT_EQ(record->tid, 9);
        EXPECT_EQ(record->message, BODY);
    }
    const auto plain = readLogRecord(
        R"({"SYSLOG_IDENTIFIER":"ZONE_MANAGER","MESSAGE":"A.cpp: f(1) > [01;32;40m[void f():1] text"})");
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->message, "text");
    EXPECT_FALSE(plain->time);
}

TEST(ReadLogRecord, PassesOverForeignAndDamagedLines)
{
    const std::vector<std::string> lines = {
        "",
        "GLib-CRITICAL: g_async_queue_unref: assertion failed",
        "ZONE_MANAGER",
        "F/ZONE_MANAGER(7:9): ",
        "F/ZONE_MANAGER(7): " + ORIGIN + BODY,
        "F/ZONE_MANAGER(x:y): " + ORIGIN + BODY,
        "F/ZONE_MANAGER(7:9): Zone.cpp: handleStart > " + BODY,
        "F/ZONE_MANAGER(7:9): Zone.cpp: handleStart(12) > \x1b[01;31;40m[void f():13] " + BODY,
        CONSOLE.substr(0, 60),
        "{",
        "[]",
        R"({"SYSLOG_IDENTIFIER":"ZONE_MANAGER"})",
        R"({"SYSLOG_IDENTIFIER":"ZONE_MANAGER","MESSAGE":null})",
        R"({"SYSLOG_IDENTIFIER":"ZONE_MANAGER","MESSAGE":[[1],{}]})",
        R"({"SYSLOG_IDENTIFIER":"ZONE_MANAGER","MESSAGE":"no origin"})",
        R"({"SYSLOG_IDENTIFIER":"other","MESSAGE":"text"})",
    };
    for (const std::string& line : lines) {
        EXPECT_FALSE(readLogRecord(line)) << line;
    }
}

TEST(ReadLogRecord, PassesOverWhatWouldLeadTheParserTooDeep)
{
    constexpr std::size_t DEPTH = 150000;
    std::string objects;
    for (std::size_t i = 0; i < DEPTH; ++i) {
        objects += R"({"a":)";
    }
    EXPECT_FALSE(readLogRecord(objects));
    EXPECT_FALSE(readLogRecord(R"({"a":/*"*/)" + std::string(DEPTH, '[')));
}

TEST(ReadLogRecord, BracketsInAMessageAreAsGoodAsOtherText)
{
    const std::string text = R"(\"{{{{[[[[ text)";
    const auto record = readLogRecord(R"({"SYSLOG_IDENTIFIER":"ZONE_MANAGER","MESSAGE":)"
                                      R"("A.cpp: f(1) > [01;32;40m[void f():1] )" +
                                      text + R"("})");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->message, text.substr(1));
}
