#include "Watch/Timeline.h"
#include "Watch/TimelineChart.h"

#include "RecordingLines.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace Zonectl;

namespace {

constexpr Micros BEGIN = 1000;

[[nodiscard]] WatchEvent present(Micros at, const std::string& zone, const std::string& state)
{
    return {.kind = WatchEvent::Kind::Present, .at = BEGIN + at, .zone = zone, .state = state};
}

[[nodiscard]] WatchEvent change(Micros at, const std::string& zone, const std::string& state)
{
    return {.kind = WatchEvent::Kind::State, .at = BEGIN + at, .zone = zone, .state = state};
}

[[nodiscard]] WatchEvent gap(Micros at, Micros length)
{
    return {.kind = WatchEvent::Kind::Gap, .at = BEGIN + at, .note = "daemon", .length = length};
}

[[nodiscard]] WatchEvent end(Micros at)
{
    return {.kind = WatchEvent::Kind::End, .at = BEGIN + at};
}

[[nodiscard]] Timeline lineOf(const std::vector<WatchEvent>& events)
{
    return timelineOf(recordingOf({.began = BEGIN}, events));
}

/// "RUNNING 10-20", with '<' for a beginning and '>' for an end that was not seen.
[[nodiscard]] std::string textOf(const Interval& interval)
{
    return interval.state + (interval.beginSeen ? " " : " <") + std::to_string(interval.from - BEGIN) + "-" +
           std::to_string(interval.to - BEGIN) + (interval.endSeen ? "" : ">");
}

[[nodiscard]] std::vector<std::string> intervalsOf(const Timeline& timeline, std::size_t zone = 0)
{
    std::vector<std::string> texts;
    for (const Interval& interval : timeline.zones.at(zone).intervals) {
        texts.push_back(textOf(interval));
    }
    return texts;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(Timeline, AStateLastsUntilTheNext)
{
    const Timeline line = lineOf(
        {present(5, "red", "STOPPED"), change(10, "red", "STARTING"), change(15, "red", "RUNNING"), end(40)});
    EXPECT_EQ(intervalsOf(line), (Texts{"STOPPED <5-10", "STARTING 10-15", "RUNNING 15-40>"}));
    EXPECT_EQ(line.length(), 40);
    EXPECT_TRUE(line.gaps.empty());
}

TEST(Timeline, AStateThatIsReportedAgainGoesOn)
{
    EXPECT_EQ(intervalsOf(lineOf({change(10, "red", "FROZEN"), change(12, "red", "FROZEN"),
                                  present(13, "red", "FROZEN"), change(20, "red", "THAWED")})),
              (Texts{"FROZEN 10-20", "THAWED 20-20>"}));
}

TEST(Timeline, NothingIsKnownOfAGap)
{
    const Timeline line = lineOf({change(10, "red", "RUNNING"), gap(50, 20), present(51, "red", "STOPPED"),
                                  change(60, "red", "STARTING"), end(70)});
    EXPECT_EQ(intervalsOf(line), (Texts{"RUNNING 10-30>", "STOPPED <51-60", "STARTING 60-70>"}));
    ASSERT_EQ(line.gaps.size(), 1U);
    EXPECT_EQ(line.gaps[0].from, BEGIN + 30);
    EXPECT_EQ(line.gaps[0].to, BEGIN + 50);
    EXPECT_EQ(line.gaps[0].who, "daemon");
}

TEST(Timeline, AGapThatIsLongerThanTheRecordingIsCut)
{
    const Timeline line = lineOf({change(10, "red", "RUNNING"), gap(50, 9999)});
    EXPECT_EQ(line.gaps.at(0).from, BEGIN);
    EXPECT_EQ(intervalsOf(line), Texts{"RUNNING 10-10>"});
}

TEST(Timeline, APresentStateThatDiffersEndsTheOneBeforeUnseen)
{
    EXPECT_EQ(intervalsOf(lineOf({change(10, "red", "RUNNING"), present(20, "red", "STOPPED"), end(30)})),
              (Texts{"RUNNING 10-20>", "STOPPED <20-30>"}));
}

TEST(Timeline, AnUnknownStateIsNone)
{
    const Timeline line = lineOf({present(5, "mute", ""), change(7, "red", "RUNNING"), end(9)});
    ASSERT_EQ(line.zones.size(), 2U);
    EXPECT_EQ(line.zones[0].zone, "mute");
    EXPECT_TRUE(line.zones[0].intervals.empty());
    EXPECT_EQ(intervalsOf(line, 1), Texts{"RUNNING 7-9>"});
}

TEST(Timeline, OfNoEventsIsEmpty)
{
    const Timeline line = lineOf({});
    EXPECT_TRUE(line.zones.empty());
    EXPECT_EQ(line.length(), 0);
}

TEST(ChartRow, ShowsTheStateAtEachColumnsEnd)
{
    const Timeline line = lineOf({present(0, "red", "STOPPED"), change(30, "red", "STARTING"),
                                  change(50, "red", "RUNNING"), end(100)});
    EXPECT_EQ(chartRow(line, line.zones[0], 10), "...ss=====");
    EXPECT_EQ(chartRow(line, line.zones[0], 20), "......ssss==========");
}

TEST(ChartRow, SeveralChangesInOneColumnAreTold)
{
    const Timeline line = lineOf({present(0, "red", "STOPPED"), change(31, "red", "STARTING"),
                                  change(39, "red", "RUNNING"), end(100)});
    EXPECT_EQ(chartRow(line, line.zones[0], 10), "...|======");
}

TEST(ChartRow, ShowsWhereNothingIsKnown)
{
    const Timeline line = lineOf({change(20, "red", "RUNNING"), gap(60, 10), change(80, "red", "FROZEN"),
                                  change(90, "red", "DREAMING"), end(100)});
    EXPECT_EQ(chartRow(line, line.zones[0], 10), "  ===:: *?");
}

TEST(ChartRow, OfNoLengthHasItsColumnsNevertheless)
{
    const Timeline line = lineOf({change(0, "red", "RUNNING")});
    EXPECT_EQ(chartRow(line, line.zones[0], 4), "=   ");
}

TEST(RenderChart, FitsTheTerminalAndNamesItsLetters)
{
    const Timeline line =
        lineOf({change(0, "red", "RUNNING"), change(500000, "a-longer-name", "STOPPED"), end(1000000)});
    EXPECT_EQ(renderChart(line, 40, Style(false)), "               0                 1.000 s\n"
                                                   "a-longer-name              .............\n"
                                                   "red            =========================\n"
                                                   "               . STOPPED  = RUNNING\n");
}

TEST(RenderChart, CutsANameThatLeavesNoRoom)
{
    const Timeline line = lineOf({change(0, std::string(100, 'n'), "RUNNING"), end(10)});
    EXPECT_EQ(renderChart(line, 50, Style(false)).find(std::string(26, 'n')), std::string::npos);
}

TEST(RenderChart, OnANarrowTerminalTheNamesHaveLinesOfTheirOwn)
{
    const Timeline line =
        lineOf({change(0, "red", "RUNNING"), change(500000, "a-name-of-many-letters", "STOPPED"),
                change(900000, "red", "STOPPING"), end(1000000)});
    EXPECT_EQ(renderChart(line, 20, Style(false)), "0            1.000 s\n"
                                                   "a-name-of-many-lette\n"
                                                   "          ..........\n"
                                                   "red\n"
                                                   "==================xx\n"
                                                   ". STOPPED  = RUNNING\n"
                                                   "x STOPPING\n");
}

TEST(RenderChart, BreaksTheLegendBetweenItsEntries)
{
    const Timeline line = lineOf({change(0, "red", "STOPPED"), change(300000, "red", "STARTING"),
                                  change(500000, "red", "RUNNING"), end(1000000)});
    EXPECT_EQ(renderChart(line, 30, Style(false)), "     0                 1.000 s\n"
                                                   "red  .......sssss=============\n"
                                                   "     . STOPPED  s STARTING\n"
                                                   "     = RUNNING\n");
}

TEST(RenderChart, NeverExceedsATerminalWithRoomForItsWords)
{
    const Timeline line = lineOf(
        {change(0, "red", "RUNNING"), gap(50, 10), change(60, std::string(30, 'n'), "DREAMING"), end(100)});
    for (std::size_t columns = 16; columns < 100; ++columns) {
        std::istringstream lines(renderChart(line, columns, Style(false)));
        for (std::string text; std::getline(lines, text);) {
            EXPECT_LE(text.size(), columns) << text;
        }
    }
}
