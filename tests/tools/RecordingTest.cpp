#include "Watch/Recording.h"
#include "CommandLine/Failure.h"
#include "Watch/RecordingFile.h"

#include "RecordingLines.h"
#include "TemporaryTree.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Zonectl;

namespace {

constexpr const char* HEADER =
    R"({"format":"zonectl-recording","version":1,"clock":"boottime","at":100,"wall_microseconds":7,)"
    R"("host":"h","boot_id":"b","source":"raw"})";

[[nodiscard]] std::string contentOf(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// The message of the failure with which the file is refused; empty when it is taken.
[[nodiscard]] std::string refusalOf(const std::string& path)
{
    try {
        const RecordingFile file(path);
        return {};
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), EXIT_FAILED);
        return failure.what();
    }
}

} // namespace

TEST(Recording, WhatIsWrittenIsReadAgain)
{
    const RecordingHeader header = {
        .host = "device", .bootId = "0-1", .source = "signal", .began = 5000000, .wall = 1700000000000000};
    const std::vector<WatchEvent> events = {
        {.kind = WatchEvent::Kind::Present, .at = 5000001, .zone = "red", .state = "STOPPED"},
        {.kind = WatchEvent::Kind::Present, .at = 5000001, .zone = "mute", .note = "no answer"},
        {.kind = WatchEvent::Kind::State, .at = 5000002, .zone = "a \"b\"\n", .state = "UNKNOWN(77)"},
        {.kind = WatchEvent::Kind::Gap, .at = 9000000, .note = "daemon", .length = 3200000},
        {.kind = WatchEvent::Kind::End, .at = 9000001},
    };
    const Recording recording = recordingOf(header, events);
    EXPECT_EQ(recording.header.host, "device");
    EXPECT_EQ(recording.header.bootId, "0-1");
    EXPECT_EQ(recording.header.source, "signal");
    EXPECT_EQ(recording.header.began, 5000000);
    EXPECT_EQ(recording.header.wall, 1700000000000000);
    EXPECT_TRUE(recording.damages.empty());
    ASSERT_EQ(recording.events.size(), events.size());
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(recording.events[i].kind, events[i].kind) << i;
        EXPECT_EQ(recording.events[i].at, events[i].at) << i;
        EXPECT_EQ(recording.events[i].zone, events[i].zone) << i;
        EXPECT_EQ(recording.events[i].state, events[i].state) << i;
        EXPECT_EQ(recording.events[i].note, events[i].note) << i;
        EXPECT_EQ(recording.events[i].length, events[i].length) << i;
    }
}

TEST(Recording, EveryLineIsOneLine)
{
    EXPECT_EQ(headerLine(headerOfNow("raw")).find('\n'), std::string::npos);
    EXPECT_EQ(eventLine({.at = 1, .zone = "a\nb", .state = "RUNNING"}).find('\n'), std::string::npos);
}

TEST(Recording, TheHeaderOfNowNamesTheMachine)
{
    const RecordingHeader header = headerOfNow("raw");
    EXPECT_FALSE(header.host.empty());
    EXPECT_EQ(header.bootId.size(), std::string("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx").size());
    EXPECT_LE(header.began, recordingClock());
    EXPECT_GT(header.began, 0);
}

TEST(Recording, DamagedLinesAreSkippedAndNumbered)
{
    const Recording recording = readLines({
        HEADER,
        R"({"event":"state","at":200,"name":"red","state":"RUNNING"})",
        R"({"event":"state","at":300,"name":"red","sta)",
        "",
        "[]",
        R"({"event":"dance","at":300})",
        R"({"event":"state","at":-5,"name":"red","state":"RUNNING"})",
        R"({"event":"state","at":9223372036854775807,"name":"red","state":"RUNNING"})",
        R"({"event":"state","at":300,"name":"red"})",
        R"({"event":"state","at":300,"name":"","state":"RUNNING"})",
        R"({"event":"present","at":300})",
        R"({"event":"gap","at":300})",
        R"({"event":"state","at":"300","name":"red","state":"RUNNING"})",
        R"({"event":"state","at":199,"name":"red","state":"RUNNING"})",
        std::string(5000, '['),
        R"({"event":"end","at":400})",
    });
    ASSERT_EQ(recording.events.size(), 2U);
    EXPECT_EQ(recording.events[1].kind, WatchEvent::Kind::End);
    ASSERT_EQ(recording.damages.size(), 13U);
    for (std::size_t i = 0; i < recording.damages.size(); ++i) {
        EXPECT_EQ(recording.damages[i].line, i + 3);
    }
    EXPECT_EQ(recording.damages[0].problem, "damaged or cut");
    EXPECT_EQ(recording.damages[11].problem, "its time lies before that of the line before it");
}

TEST(Recording, WithoutAUsableHeaderThereIsNone)
{
    const std::vector<std::vector<std::string>> none = {
        {},
        {""},
        {"nonsense", HEADER},
        {R"({"event":"state","at":200,"name":"red","state":"RUNNING"})"},
        {R"({"format":"zonectl-recording","version":2,"clock":"boottime","at":100,"wall_microseconds":7})"},
        {R"({"format":"zonectl-recording","version":1,"clock":"other","at":100,"wall_microseconds":7})"},
        {R"({"format":"zonectl-recording","version":1,"clock":"boottime","wall_microseconds":7})"},
        {R"({"format":"zonectl-recording","version":1,"clock":"boottime","at":100})"},
        {R"({"format":"something","version":1,"clock":"boottime","at":100,"wall_microseconds":7})"},
    };
    for (const auto& lines : none) {
        try {
            static_cast<void>(readLines(lines));
            ADD_FAILURE() << (lines.empty() ? "nothing" : lines.front()) << " was taken";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.status(), EXIT_FAILED);
        }
    }
}

TEST(RecordingFile, GrowsLineByLine)
{
    const TemporaryTree tree;
    const std::string path = tree.root() + "/run";
    RecordingFile file(path);
    EXPECT_TRUE(file.append("one"));
    EXPECT_EQ(contentOf(path), "one\n");
    EXPECT_TRUE(file.append("two"));
    EXPECT_EQ(contentOf(path), "one\ntwo\n");
}

TEST(RecordingFile, TakesAnEmptyFileAndNoOther)
{
    const TemporaryTree tree;
    tree.write("/empty", "");
    tree.write("/full", "dear\n");
    EXPECT_EQ(refusalOf(tree.root() + "/empty"), "");
    EXPECT_NE(refusalOf(tree.root() + "/full").find("never overwritten"), std::string::npos);
    EXPECT_EQ(contentOf(tree.root() + "/full"), "dear\n");
    EXPECT_NE(refusalOf(tree.root()), "");
    EXPECT_NE(refusalOf(tree.root() + "/no/such/directory"), "");
}

TEST(RecordingFile, IsOfOneProgramAlone)
{
    const TemporaryTree tree;
    const RecordingFile file(tree.root() + "/run");
    EXPECT_NE(refusalOf(tree.root() + "/run").find("another recording"), std::string::npos);
}

TEST(RecordingFile, TellsOfALineThatCouldNotBeWritten)
{
    RecordingFile file("/dev/full");
    EXPECT_FALSE(file.append("one"));
    EXPECT_NE(file.problem().find("No space left"), std::string::npos) << file.problem();
}
