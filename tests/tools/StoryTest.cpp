#include "Explain/LogStory.h"
#include "Explain/StoryFindings.h"
#include "Explain/StoryLines.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Zonectl;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr int DAEMON = 10; ///< the process and its main thread
constexpr int MONITOR = 11;
constexpr int RED = 12;
const std::string ON_MAIN = "(thread name : zone-manager, tid : 10)";
const std::string ON_RED = "(thread name : red, tid : 12)";

/// Writes a log: each record a tenth of a second after the one before.
class Log
{
public:
    Log& at(LogTime time)
    {
        clock = time;
        return *this;
    }
    Log& withoutTimes()
    {
        clock.reset();
        return *this;
    }
    Log& process(int id)
    {
        pid = id;
        return *this;
    }
    Log& add(int tid, const std::string& function, const std::string& message, char level = 'I')
    {
        log.take({.time = clock,
                  .level = level,
                  .pid = pid,
                  .tid = tid,
                  .function = function,
                  .message = message});
        if (clock) {
            *clock += LOG_SECOND / 10;
        }
        return *this;
    }

    Log& start() { return add(pid, "main", "Start Zone Manager...", 'F'); }
    /// The zone "red" is made, as the only one of so many containers.
    Log& takeRed(int listed = 1)
    {
        add(pid, "ZoneContext", "ZoneContext object is created");
        add(pid, "getZone", "[Zone Name : red] / [Zone Base Path : /] / [Zone Type : 2]");
        add(pid, "fillZone", "auto start flag is true...red");
        add(pid, "initialize", "\"red\" is added to Zone Context!");
        for (int index = 1; index < listed; ++index) {
            add(pid, "createZone", "Failed to create the zone object...bad", 'E');
            add(pid, "initialize", "Failed to create Zone Object - bad[" + std::to_string(index) + "]", 'E');
        }
        return add(pid, "initialize", "Zone count is set to [" + std::to_string(listed) + " / 1]");
    }
    Log& send(const std::string& number)
    {
        return add(pid, "sendEventToZone", "zone event(" + number + ") is sent (zone name : red)");
    }
    Log& startAutomatically()
    {
        add(pid, "startAutoStartZones", "Checking auto start zone for \"red\" - 0 / 1 / NONE");
        return send("1");
    }
    Log& beginStart() { return add(RED, "handleStart", "receive the event - ZONE START" + ON_RED); }
    Log& failStart() { return add(RED, "handleStart", "Failed to start red" + ON_RED, 'F'); }
    Log& restart()
    {
        add(pid, "handleEvent", "receive the event - ZONE RESTART" + ON_MAIN);
        return send("1");
    }
    Log& state(const std::string& word)
    {
        return add(MONITOR, "stateChangeIOEventCallback",
                   "[zone-monitor:11] The state of red is changed to " + word);
    }
    Log& die(int status, bool wasWanted = false)
    {
        add(MONITOR, "handleExitMessage",
            "[zone-monitor:11] exit message is received - red is exited with status code : " +
                std::to_string(status));
        add(MONITOR, "setZoneRestartFlag",
            std::string("Restart flag is set of \"red\" to [") + (wasWanted ? "0]" : "1]"));
        return state("STOPPED");
    }

    LogStory log;

private:
    std::optional<LogTime> clock = LogTime{0};
    int pid = DAEMON;
};

[[nodiscard]] const ZoneStory& red(const Log& log)
{
    return log.log.told().zones.at("red");
}

[[nodiscard]] std::vector<std::string> texts(const std::vector<Event>& events)
{
    std::vector<std::string> found;
    for (const Event& event : events) {
        found.push_back(event.text);
    }
    return found;
}

[[nodiscard]] const Finding* findingAbout(const std::vector<Finding>& findings, const std::string& subject)
{
    const auto found = std::find_if(findings.begin(), findings.end(),
                                    [&](const Finding& finding) { return finding.subject == subject; });
    return found == findings.end() ? nullptr : &*found;
}

/// "FUNCTION | FORMAT" of each message of the catalogue.
[[nodiscard]] std::vector<std::string> catalogue()
{
    std::ifstream file(ZONE_MESSAGE_CATALOGUE);
    std::vector<std::string> messages;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("  ")) {
            messages.push_back(line.substr(4)); // without the level
        }
    }
    return messages;
}

} // namespace

TEST(Story, KnowsNoMessageThatTheDaemonDoesNotWrite)
{
    const auto written = catalogue();
    ASSERT_GT(written.size(), 100U);
    auto known = knownMessages();
    const auto more = messagesWithRemedy();
    known.insert(known.end(), more.begin(), more.end());
    for (const KnownMessage& message : known) {
        EXPECT_THAT(written,
                    testing::Contains(std::string(message.function) + " | " + std::string(message.form)));
    }
}

TEST(Story, AnAutomaticStartFromTheAskingToRunning)
{
    Log log;
    log.start().takeRed().startAutomatically().beginStart();
    log.add(RED, "handleStart", "red is started successfully" + ON_RED).state("RUNNING");
    EXPECT_THAT(texts(red(log).events),
                ElementsAre("taken as a zone, to be started automatically",
                            "start is asked for by the automatic start", "start begins",
                            "the launcher has started it", "RUNNING"));
    EXPECT_EQ(red(log).events[2].took, LOG_SECOND / 10) << "in the queue";
    EXPECT_EQ(red(log).events[3].took, LOG_SECOND / 10) << "the launcher";
    EXPECT_EQ(red(log).events[4].took, LOG_SECOND * 3 / 10) << "since the asking";
    EXPECT_EQ(red(log).events[1].cause, Cause::Automatic);
    EXPECT_EQ(red(log).kind, "hybrid");
    EXPECT_EQ(red(log).state, "RUNNING");
    EXPECT_TRUE(findingsOf(log.log, "").empty());
}

TEST(Story, ARequestOverTheBusIsTheSenders)
{
    Log log;
    log.start().takeRed();
    log.add(DAEMON, "callVTable",
            "sender : :1.42 / object path : /o / interface name : i / method name : ZoneStop");
    log.add(DAEMON, "stopZone", "[DBus] ZoneStop on zone 'red'").send("2");
    log.add(RED, "handleStop", "receive the event - ZONE STOP" + ON_RED).die(0, true);
    EXPECT_EQ(red(log).events[1].text, "stop is asked for over D-Bus by :1.42");
    EXPECT_EQ(red(log).events[1].cause, Cause::Bus);
    EXPECT_TRUE(red(log).exitStatuses.empty()) << "it was stopped, it did not die";
    EXPECT_EQ(red(log).events.back().took, LOG_SECOND * 4 / 10);
}

TEST(Story, RefusedQuestionsAreToldOnceAndRequestsEach)
{
    Log log;
    const std::string call = "sender : :1.42 / object path : /o / interface name : i / method name : ";
    const std::string refusal =
        "[DBus] There is no access permission to protection zone(\"gold\") - Operation is not permitted";
    log.start();
    for (const char* method : {"ZoneGetState", "ZoneStart", "ZoneGetInitPid", "GetVersion", "ZoneStart"}) {
        log.add(DAEMON, "callVTable", call + method).add(DAEMON, "callVTable", refusal, 'E');
    }
    const auto& events = log.log.told().zones.at("gold").events;
    EXPECT_THAT(texts(events), ElementsAre("a question over D-Bus is refused: " + refusal,
                                           "a request over D-Bus is refused: " + refusal,
                                           "a request over D-Bus is refused: " + refusal));
    EXPECT_EQ(events[0].times, 3U);
    EXPECT_EQ(events[0].time, LOG_SECOND * 2 / 10);
    EXPECT_EQ(events[0].lastTime, LOG_SECOND * 8 / 10);
    EXPECT_FALSE(events[0].bad) << "whoever lists the zones does it";
    EXPECT_TRUE(events[1].bad);
}

TEST(Story, AnExitStatusOfZeroMayBeASignals)
{
    Log log;
    log.start().takeRed().startAutomatically().beginStart().die(0).restart();
    const std::string doubtful = "status 0, which LXC reports after a signal too";
    EXPECT_EQ(red(log).events[3].text, "its init process ends with " + doubtful);
    EXPECT_EQ(red(log).events.back().text, "start is asked for again, since it ended with " + doubtful);
}

TEST(Story, ADeathIsFollowedByARestart)
{
    Log log;
    log.start().takeRed().startAutomatically().beginStart().state("RUNNING").die(3).restart();
    EXPECT_THAT(red(log).exitStatuses, ElementsAre(3));
    ASSERT_EQ(red(log).restarts.size(), 1U);
    EXPECT_EQ(red(log).restarts[0].cause, Cause::Death);
    EXPECT_EQ(red(log).events.back().text, "start is asked for again, since it ended with exit status 3");
    EXPECT_FALSE(red(log).restartLoop());
}

TEST(Story, AFailedAutomaticStartIsTriedAgain)
{
    Log log;
    log.start().takeRed().startAutomatically().beginStart().failStart().restart();
    EXPECT_EQ(red(log).restarts[0].cause, Cause::FailedStart);
    EXPECT_THAT(findingAbout(findingsOf(log.log, "red"), "red")->text, HasSubstr("Failed to start red"));
}

TEST(Story, ADeathAfterAFailedStartIsADeathAgain)
{
    Log log;
    log.start().takeRed().startAutomatically().beginStart().failStart().restart().beginStart();
    log.add(RED, "handleStart", "red is started successfully" + ON_RED).die(3).restart();
    EXPECT_EQ(red(log).restarts.at(1).cause, Cause::Death);
    EXPECT_TRUE(red(log).failure.empty());
}

TEST(Story, TheWatcherRestartsByItself)
{
    Log log;
    log.start().takeRed();
    log.add(RED, "zoneWatcherTimer", "Restarting red(current zone pid : -1, thread name : red, tid : 12)",
            'W');
    log.add(RED, "zoneWatcherTimer", "Failed to re-start red" + ON_RED, 'E');
    EXPECT_EQ(red(log).restarts[0].cause, Cause::Watcher);
    EXPECT_EQ(red(log).events.back().took, LOG_SECOND / 10);
    EXPECT_FALSE(red(log).failure.empty());
}

TEST(Story, TheThreadMayTellOfARequestBeforeTheSenderDoes)
{
    Log log;
    log.start().takeRed().beginStart().startAutomatically().restart().beginStart();
    EXPECT_EQ(red(log).events[1].text, "start begins");
    EXPECT_FALSE(red(log).events[1].took);
    EXPECT_EQ(red(log).events.back().took, LOG_SECOND / 10) << "since its own request, not the first";
}

TEST(StoryLines, LikeRoundsAreSummedUpAfterTheFirstTwo)
{
    Log log;
    log.start().takeRed().startAutomatically().beginStart().failStart();
    for (int count = 0; count < 5; ++count) {
        log.restart().beginStart().failStart();
    }
    const auto shown = log.log.told().zones.at("red").events.size() - 9;
    log.restart();
    const auto& events = red(log).events;
    const auto lines = linesOf(events);
    ASSERT_EQ(lines.size(), shown + 2) << "and the sum, and what has come after it";
    EXPECT_EQ(lines[shown - 1].rounds, 0U);
    EXPECT_EQ(lines[shown].rounds, 3U);
    EXPECT_EQ(lines[shown].first, &events[shown]);
    EXPECT_EQ(lines[shown].last, &events[events.size() - 2]);
    EXPECT_EQ(lines[shown + 1].first, &events.back());
}

TEST(StoryLines, RoundsAreAlikeWithOtherProcessesAndInAnotherOrder)
{
    Log log;
    log.start().takeRed();
    for (int pid = 50; pid < 53; ++pid) {
        const std::string init = "The init pid(" + std::to_string(pid) + ") of zone(red) is set";
        log.restart().beginStart();
        if (pid % 2 == 0) {
            log.state("RUNNING").add(RED, "setZoneWatcherTimer", init + ON_RED);
        } else {
            log.add(RED, "setZoneWatcherTimer", init + ON_RED).state("RUNNING");
        }
    }
    EXPECT_EQ(linesOf(red(log).events).back().rounds, 1U);
}

TEST(StoryLines, RoundsThatDifferAreEachShown)
{
    Log log;
    log.start().takeRed();
    for (int count = 0; count < 8; ++count) {
        log.restart().beginStart().state(count % 4 == 0 ? "ABORTING" : "RUNNING");
    }
    const auto lines = linesOf(red(log).events);
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(), [](const StoryLine& line) { return line.rounds == 1; }), 2)
        << "one in each row of three";
    EXPECT_EQ(lines.size(), red(log).events.size() - 4) << "three lines have become one, twice";
}

TEST(StoryLines, WithoutEventsThereAreNone)
{
    EXPECT_TRUE(linesOf({}).empty());
}

TEST(RestartLoop, NeedsThreeRestartsEachSoonAfterTheOther)
{
    Log log;
    log.start().takeRed().at(100 * LOG_SECOND).restart().at(160 * LOG_SECOND).restart();
    EXPECT_FALSE(red(log).restartLoop());
    log.at(220 * LOG_SECOND).restart();
    ASSERT_TRUE(red(log).restartLoop());
    EXPECT_EQ(red(log).restartLoop()->restarts, LOOP_RESTARTS);
    EXPECT_TRUE(inRestartLoop(log.log.told(), red(log)));
    EXPECT_EQ(findingAbout(findingsOf(log.log, ""), "red")->severity, Severity::Problem);
}

TEST(RestartLoop, IsNoneWithALongerPauseInBetween)
{
    Log log;
    log.start().takeRed().at(100 * LOG_SECOND).restart().at(161 * LOG_SECOND).restart();
    log.at(200 * LOG_SECOND).restart();
    EXPECT_FALSE(red(log).restartLoop());
}

TEST(RestartLoop, EndsWithAPauseAStopOrTheDaemon)
{
    Log later;
    later.start().takeRed().restart().restart().restart().at(100 * LOG_SECOND).state("RUNNING");
    EXPECT_TRUE(red(later).restartLoop());
    EXPECT_FALSE(inRestartLoop(later.log.told(), red(later)));
    EXPECT_EQ(findingAbout(findingsOf(later.log, ""), "red")->severity, Severity::Warning);

    Log stopped;
    stopped.start().takeRed().restart().restart().restart().send("2");
    EXPECT_FALSE(inRestartLoop(stopped.log.told(), red(stopped)));

    Log ended;
    ended.start().takeRed().restart().restart().restart();
    EXPECT_TRUE(inRestartLoop(ended.log.told(), red(ended)));
    ended.add(DAEMON, "tearDown", "ZoneManager is terminated...", 'F');
    EXPECT_FALSE(inRestartLoop(ended.log.told(), red(ended)));
}

TEST(RestartLoop, CannotBeToldWithoutTimes)
{
    Log log;
    log.withoutTimes().start().takeRed().restart().restart().restart();
    EXPECT_EQ(red(log).restarts.size(), 3U);
    EXPECT_FALSE(red(log).restartLoop());
    EXPECT_FALSE(red(log).events.back().took);
}

TEST(AutomaticStart, OneRefusedContainerBlocksIt)
{
    Log log;
    log.start().takeRed(2);
    log.add(DAEMON, "isRunningZoneThreads", "Can not get a zone object (2 / 2)", 'E');
    log.add(DAEMON, "isRunningZoneThreads", "Can not get a zone object (2 / 2)", 'E');
    const Story& story = log.log.told();
    EXPECT_TRUE(story.automaticBlocked());
    EXPECT_EQ(story.threads.times, 2U);
    ASSERT_EQ(story.refused.size(), 1U);
    EXPECT_THAT(story.refused[0].messages, ElementsAre("Failed to create the zone object...bad",
                                                       "Failed to create Zone Object - bad[1]"));
    EXPECT_THAT(remedyFor(story.refused[0]), HasSubstr("zone.container_type"));
    const auto findings = findingsOf(log.log, "red");
    ASSERT_GE(findings.size(), 2U) << "it concerns every zone";
    EXPECT_EQ(findings[0].subject, "automatic start");
    EXPECT_THAT(findings[0].text, HasSubstr("since it refused bad; it looked 2 times since "));
    EXPECT_THAT(findings[0].text, HasSubstr("\"Can not get a zone object (2 / 2)\""));
    EXPECT_EQ(findings[1].subject, "bad");
}

TEST(AutomaticStart, AZoneThatComesUpOtherwiseSetsABlockedOneGoing)
{
    Log log;
    log.start().takeRed(2).startAutomatically();
    EXPECT_FALSE(log.log.told().automaticBlocked());
    const auto findings = findingsOf(log.log, "");
    EXPECT_THAT(findingAbout(findings, "automatic start")->text, HasSubstr("never began by itself"));
    EXPECT_NE(findingAbout(findings, "bad"), nullptr);
}

TEST(AutomaticStart, WhatOtherThreadsSayIsNoReasonForARefusal)
{
    Log log;
    log.start().add(DAEMON, "ZoneContext", "ZoneContext object is created");
    log.add(RED, "registerWatchDog", "Failed to register the stallwarden", 'E');
    log.add(DAEMON, "initialize", "Failed to create Zone Object - bad[0]", 'E');
    EXPECT_THAT(log.log.told().refused.at(0).messages, ElementsAre("Failed to create Zone Object - bad[0]"));
}

TEST(AutomaticStart, WaitsForTheThreads)
{
    Log log;
    log.start().takeRed();
    const std::string message = "The thread \"red\" is not running yet (1 / 1)";
    log.add(DAEMON, "isRunningZoneThreads", message, 'E');
    EXPECT_FALSE(log.log.told().automaticBlocked());
    EXPECT_THAT(findingAbout(findingsOf(log.log, ""), "automatic start")->text, HasSubstr(message));
    log.startAutomatically();
    EXPECT_EQ(findingAbout(findingsOf(log.log, ""), "automatic start"), nullptr);
}

TEST(AutomaticStart, WaitsForTheZoneThatWasAskedLast)
{
    Log log;
    log.start().takeRed().add(DAEMON, "fillZone", "auto start flag is true...blue");
    log.add(DAEMON, "initialize", "\"blue\" is added to Zone Context!").startAutomatically();
    EXPECT_THAT(findingAbout(findingsOf(log.log, ""), "automatic start")->text,
                testing::AllOf(HasSubstr("waits for red"), HasSubstr("still to be started: blue")));
}

TEST(RemedyFor, AnUnknownReasonIsLeftToTheDoctor)
{
    EXPECT_THAT(remedyFor({.name = "x", .time = {}, .messages = {"Failed to create Zone Object - x[0]"}}),
                HasSubstr("zonectl doctor"));
}

TEST(LogStory, TellsTheLastRunAndCountsTheOthers)
{
    Log log;
    log.start().takeRed().start().process(20).start();
    EXPECT_EQ(log.log.earlierRuns(), 2U);
    EXPECT_EQ(log.log.told().pid, 20);
    EXPECT_TRUE(log.log.told().zones.empty());
}

TEST(LogStory, AnInstanceThatFindsAnotherOneIsNotTheLastRun)
{
    Log log;
    log.start().takeRed().process(20).start();
    log.add(20, "get_zone_manager_lock", "Another instance of Zone Manager is running - \"...\"", 'E');
    log.process(DAEMON).state("RUNNING");
    EXPECT_EQ(log.log.told().pid, DAEMON);
    EXPECT_EQ(red(log).state, "RUNNING");
    EXPECT_EQ(log.log.refusedInstances(), 1U);
    EXPECT_THAT(findingAbout(findingsOf(log.log, ""), "daemon")->text, HasSubstr("refused"));
}

TEST(LogStory, SaysThatTheBeginningIsMissing)
{
    Log log;
    log.state("RUNNING");
    EXPECT_FALSE(log.log.told().complete);
    EXPECT_NE(findingAbout(findingsOf(log.log, ""), "log"), nullptr);
}

TEST(LogStory, TroubleOfTheDaemonIsAProblem)
{
    Log log;
    log.start().add(DAEMON, "main", "Exception occurred : Failed to initialize the ZoneManager object", 'E');
    EXPECT_TRUE(anyProblem(findingsOf(log.log, "")));
}
