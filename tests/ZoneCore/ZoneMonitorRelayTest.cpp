#include "tests/ZoneCore/ZoneMonitorFixture.h"

#include "DBusCore/ZoneManagerDBusInterface.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Matcher;
using testing::StartsWith;
using ZoneTest::by;
using ZoneTest::byThread;
using ZoneTest::called;
using ZoneTest::EXIT;
using ZoneTest::FIFO;
using ZoneTest::line;
using ZoneTest::LXC_FROZEN;
using ZoneTest::LXC_RUNNING;
using ZoneTest::LXC_STOPPED;
using ZoneTest::opened;
using ZoneTest::ownTexts;
using ZoneTest::PRIORITY;
using ZoneTest::received;
using ZoneTest::said;
using ZoneTest::STATE;
using ZoneTest::ZoneMonitorTest;

namespace {

/// The lines of a message that reaches its zone but no bus, up to the follow-up.
std::vector<Matcher<std::string>> relayed(const std::string& name, const std::string& word)
{
    return {line("I", "The state of " + name + " is changed to " + word),
            testing::StrEq("I ZoneContainerState instance is created"),
            testing::StrEq("I ZoneContainerState instance is destroyed"),
            HasSubstr("the zone event is sent to " + name),
            testing::StrEq("I zone event(6) is sent (zone name : " + name + ")"),
            line("I", "Request broadcasting signals for changing container state [zone name : " + name +
                          " / " + word + "]"),
            line("W", "Failed to send signal for changing state [zone name : " + name + "]")};
}

/// A monitor with two subscribers and a bus service whose signals are sent to nobody.
class ZoneMonitorRelay : public ZoneMonitorTest
{
protected:
    void SetUp() override
    {
        ZoneMonitorTest::SetUp();
        first = subscribe();
        firstFd = subscriberFd;
        second = subscribe();
        secondFd = subscriberFd;
        connection = G_DBUS_CONNECTION(g_object_new(G_TYPE_DBUS_CONNECTION, nullptr));
        DBusCore::ZoneManagerDBusInterface::on_name_acquired(connection, "name", &service);
        manager->get()->dbusInterface = &service;
        log.clear();
    }
    void TearDown() override
    {
        manager->get()->dbusInterface = nullptr;
        DBusCore::ZoneManagerDBusInterface::on_bus_lost(connection, "name", &service);
        g_object_unref(connection);
        ZoneMonitorTest::TearDown();
    }

    /// Has a state change of "hybrid" handled while the manager runs.
    /// @return all that the monitor called and wrote
    std::vector<std::string> relayTraced(int value)
    {
        std::vector<std::string> texts;
        static_cast<void>((*manager).whileRunning(log, [&] {
            send(message(STATE, "hybrid", value));
            calls.trace();
            log.clear();
            EXPECT_EQ(monitor->drain(), 1);
            calls.reset();
            texts = ownTexts(log);
        }));
        return texts;
    }
    /// The same as it should be, up to the follow-up.
    [[nodiscard]] std::vector<Matcher<std::string>> relayedTraced(int value, const std::string& word) const
    {
        const int fifoFd = opened(FIFO);
        std::vector<Matcher<std::string>> steps;
        const auto add = [&steps](const std::string& text) { steps.emplace_back(testing::StrEq(text)); };
        add(said("I", "state change IO event is received[fd : %d, count : 2]", fifoFd));
        add(called("read", fifoFd, 264));
        add(called("lxc_state2str", value));
        add(by("I", "The state of hybrid is changed to " + word));
        add(called("lxc_state2str", value));
        add("I ZoneContainerState instance is created");
        add("I ZoneContainerState instance is destroyed");
        steps.emplace_back(HasSubstr("the zone event is sent to hybrid"));
        add("I zone event(6) is sent (zone name : hybrid)");
        add(by("I", "Request broadcasting signals for changing container state [zone name : hybrid / " +
                        word + "]"));
        add("I Parameters - hybrid / " + word);
        add("D ZoneStateChangedSignal('hybrid', '" + word + "')");
        add("I Broadcasting Signals - hybrid / " + word);
        for (const int fd : {firstFd, secondFd}) {
            add(called("write", fd, 264));
            add(said("I", "hybrid => %s message is notified to [fd : %d, count : 2]", word.c_str(), fd));
        }
        add(by("I", "State Change Event is notified to all subscribers - hybrid => " + word));
        return steps;
    }

    UniqueFd first;
    UniqueFd second;
    int firstFd = -1;
    int secondFd = -1;
    GDBusConnection* connection = nullptr;
    DBusCore::ZoneManagerDBusInterface service;
};

} // namespace

// The relay.

TEST_F(ZoneMonitorTest, RefusesCallbacksWithoutAMonitorOrAChannel)
{
    const std::vector<GIOFunc> callbacks{
        ZoneMonitor::stateChangeIOEventCallback, ZoneMonitor::serverIOEventCallback,
        ZoneMonitor::clientIOEventCallback, ZoneMonitor::initPidResponseCallback};
    for (const GIOFunc callback : callbacks) {
        log.clear();
        EXPECT_FALSE(callback(nullptr, G_IO_IN, nullptr));
        EXPECT_FALSE(callback(nullptr, G_IO_IN, monitor));
        EXPECT_THAT(ownTexts(log), ElementsAre("E Failed to get ZoneMonitor instance",
                                               line("E", "GIOChannel source is invalid")));
    }
}

TEST_F(ZoneMonitorTest, OnlyTellsOfAPriorityMessage)
{
    const UniqueFd subscriber = subscribe();
    EXPECT_THAT(relay(PRIORITY, "hybrid", 5), ElementsAre(line("I", "priority message is received")));
    EXPECT_EQ(received(subscriber), "");
}

TEST_F(ZoneMonitorTest, ReportsAnUnknownTypeAndGoesOn)
{
    EXPECT_THAT(relay(7, "hybrid", 0), ElementsAre(line("E", "case error")));
    EXPECT_THAT(relay(PRIORITY, "hybrid", 5), ElementsAre(line("I", "priority message is received")));
}

TEST_F(ZoneMonitorTest, MarksAZoneThatDiedForRestart)
{
    const UniqueFd subscriber = subscribe();
    const std::vector<std::pair<ZUP::ZoneOperationType, bool>> rows{{ZUP::ZONE_OPERATION_NONE, false},
                                                                    {ZUP::ZONE_OPERATION_START, true},
                                                                    {ZUP::ZONE_OPERATION_STOP, false},
                                                                    {ZUP::ZONE_OPERATION_FREEZE, true},
                                                                    {ZUP::ZONE_OPERATION_UNFREEZE, true}};
    Zone* zone = (*registry)->getZone("hybrid");
    for (const auto& [operation, marked] : rows) {
        zone->operationType = operation;
        zone->restartFlag = !marked;
        EXPECT_THAT(relay(EXIT, "hybrid", 0x0100),
                    ElementsAre(line("I", "exit message is received - hybrid is exited with status code : 1"),
                                std::string("I Restart flag is set of \"hybrid\" to [") +
                                    (marked ? "1" : "0") + "]"));
        EXPECT_EQ(zone->restartFlag.load(), marked);
    }
    EXPECT_EQ(received(subscriber), "");
}

TEST_F(ZoneMonitorTest, TellsTheSecondByteOfAWaitStatus)
{
    const std::vector<std::pair<int, int>> rows{{0, 0},        {9, 0},       {0x0100, 1}, {0xFF00, 255},
                                                {0x12345, 35}, {0x10000, 0}, {-1, 255}};
    for (const auto& [status, code] : rows) {
        EXPECT_EQ(relay(EXIT, "hybrid", status).front(),
                  said("I", "exit message is received - hybrid is exited with status code : %d", code));
    }
}

TEST_F(ZoneMonitorTest, TakesAnExitMessageOfAnUnknownZone)
{
    EXPECT_THAT(
        relay(EXIT, "nobody", 9), // killed by a signal: no exit status
        ElementsAre(line("I", "exit message is received - nobody is exited with status code : 0"),
                    "I There is no \"nobody\" object", "E Can not find zone object (zone name : nobody)",
                    "I There is no \"nobody\" object", "E Can not find zone object (zone name : nobody)"));
}

TEST_F(ZoneMonitorTest, PassesAStateChangeOnInOrder)
{
    EXPECT_THAT(relay(STATE, "hybrid", LXC_FROZEN), testing::ElementsAreArray(relayed("hybrid", "FROZEN")));
}

TEST_F(ZoneMonitorRelay, TellsTheZoneTheBusTheSubscribersAndAtLastTheManagerOfARunningZone)
{
    const auto texts = relayTraced(LXC_RUNNING);
    auto expected = relayedTraced(LXC_RUNNING, "RUNNING");
    expected.emplace_back(HasSubstr("the zone event is sent to zone-manager"));
    expected.emplace_back(
        testing::StrEq("I " + byThread("zone-manager") + "zone event(8) is sent to Zone Manager"));
    expected.emplace_back(testing::StrEq(by("I", "Check Auto Start event is sent to Zone Manager")));
    EXPECT_THAT(texts, ElementsAreArray(expected));
}

TEST_F(ZoneMonitorRelay, TellsTheZoneTheBusTheSubscribersAndAtLastTheManagerOfAStoppedZone)
{
    (*registry)->getZone("hybrid")->restartFlag = true;
    const auto texts = relayTraced(LXC_STOPPED);
    auto expected = relayedTraced(LXC_STOPPED, "STOPPED");
    expected.emplace_back(HasSubstr("the zone event is sent to zone-manager"));
    expected.emplace_back(
        testing::StrEq("I " + byThread("zone-manager") + "zone event(7) is sent to Zone Manager"));
    expected.emplace_back(testing::StrEq(by("I", "Restart event for hybrid is sent to Zone Manager")));
    EXPECT_THAT(texts, ElementsAreArray(expected));
}

TEST_F(ZoneMonitorRelay, HasNothingToFollowUpAfterAnyOtherState)
{
    (*registry)->getZone("hybrid")->restartFlag = true;
    const std::vector<std::pair<int, std::string>> rows{{1, "STARTING"}, {3, "STOPPING"}, {4, "ABORTING"},
                                                        {5, "FREEZING"}, {6, "FROZEN"},   {7, "THAWED"}};
    for (const auto& [value, word] : rows) {
        EXPECT_THAT(relayTraced(value), ElementsAreArray(relayedTraced(value, word)));
    }
}

TEST_F(ZoneMonitorRelay, TellsEverybodyElseOfAZoneThatCannotBeTold)
{
    (*registry)->getZone("hybrid")->terminate();
    const auto texts = relayTraced(LXC_FROZEN);
    const auto told = relayedTraced(LXC_FROZEN, "FROZEN");
    std::vector<Matcher<std::string>> expected(told.begin(), told.begin() + 7);
    expected.emplace_back("E zone thread is not running (zone name : hybrid [event type : 6])");
    expected.emplace_back(by("W", "Failed to send zone event to \"hybrid : FROZEN\""));
    expected.insert(expected.end(), told.begin() + 9, told.end());
    EXPECT_THAT(texts, ElementsAreArray(expected));
}

TEST_F(ZoneMonitorRelay, KeepsASubscriberToWhichItCannotWrite)
{
    calls.fail("write(" + std::to_string(firstFd), EAGAIN);
    const auto texts = relay(STATE, "hybrid", LXC_FROZEN);
    ASSERT_GE(texts.size(), 4U);
    EXPECT_THAT(
        std::vector<std::string>(texts.end() - 4, texts.end()),
        ElementsAre(by("W", "Failed to write the state change event to subscribers - hybrid => FROZEN - "
                            "\"Resource temporarily unavailable\""),
                    said("I", "hybrid => FROZEN message is notified to [fd : %d, count : 2]", firstFd),
                    said("I", "hybrid => FROZEN message is notified to [fd : %d, count : 2]", secondFd),
                    by("I", "State Change Event is notified to all subscribers - hybrid => FROZEN")));
    EXPECT_EQ(received(first), "");
    EXPECT_EQ(received(second).size(), sizeof(lxc_msg));
    static_cast<void>(relay(STATE, "hybrid", LXC_FROZEN));
    EXPECT_EQ(received(first).size(), sizeof(lxc_msg));
}

TEST_F(ZoneMonitorRelay, DoesNotNoticeAShortWrite)
{
    calls.give("write(" + std::to_string(firstFd), 0);
    EXPECT_THAT(relay(STATE, "hybrid", LXC_FROZEN),
                testing::Not(Contains(HasSubstr("Failed to write the state change event"))));
}

TEST_F(ZoneMonitorTest, AsksForTheNextAutomaticStartWhenAZoneRuns)
{
    std::vector<std::string> texts;
    const auto after = (*manager).whileRunning(log, [&] {
        texts = relay(STATE, "hybrid", LXC_RUNNING);
        log.clear();
    });
    auto expected = relayed("hybrid", "RUNNING");
    expected.emplace_back(HasSubstr("the zone event is sent to zone-manager"));
    expected.emplace_back(
        testing::StrEq("I " + byThread("zone-manager") + "zone event(8) is sent to Zone Manager"));
    expected.push_back(line("I", "Check Auto Start event is sent to Zone Manager"));
    EXPECT_THAT(texts, testing::ElementsAreArray(expected));
    EXPECT_THAT(after, Contains(HasSubstr("receive the event - CHECK AUTO START ZONE")).Times(1));
}

TEST_F(ZoneMonitorTest, ReportsACheckThatCannotBeSent)
{
    auto expected = relayed("hybrid", "RUNNING");
    expected.emplace_back(testing::StrEq("E " + byThread("zone-manager") + "ZoneManager is not running"));
    expected.push_back(line("E", "Failed to send check auto start event"));
    expected.push_back(line("E", "Failed to send check auto start event for \"hybrid : RUNNING\""));
    EXPECT_THAT(relay(STATE, "hybrid", LXC_RUNNING), testing::ElementsAreArray(expected));
}

TEST_F(ZoneMonitorTest, AsksForTheRestartOfAMarkedZoneThatStopped)
{
    (*registry)->getZone("hybrid")->restartFlag = true;
    std::vector<std::string> texts;
    const auto after = (*manager).whileRunning(log, [&] {
        texts = relay(STATE, "hybrid", LXC_STOPPED);
        log.clear();
    });
    auto expected = relayed("hybrid", "STOPPED");
    expected.emplace_back(HasSubstr("the zone event is sent to zone-manager"));
    expected.emplace_back(
        testing::StrEq("I " + byThread("zone-manager") + "zone event(7) is sent to Zone Manager"));
    expected.push_back(line("I", "Restart event for hybrid is sent to Zone Manager"));
    EXPECT_THAT(texts, testing::ElementsAreArray(expected));
    EXPECT_THAT(after, Contains(StartsWith("E Failed to start hybrid"))); // this monitor's loop does not run
}

TEST_F(ZoneMonitorTest, SaysThatItAskedForARestartEvenWhenItNeedNot)
{
    std::vector<std::string> texts;
    const auto after = (*manager).whileRunning(log, [&] {
        texts = relay(STATE, "hybrid", LXC_STOPPED);
        log.clear();
    });
    auto expected = relayed("hybrid", "STOPPED");
    expected.push_back(line("I", "Restart event for hybrid is sent to Zone Manager"));
    EXPECT_THAT(texts, testing::ElementsAreArray(expected));
    EXPECT_THAT(after, IsEmpty());
}

TEST_F(ZoneMonitorTest, ReportsARestartThatCannotBeSent)
{
    (*registry)->getZone("hybrid")->restartFlag = true;
    auto expected = relayed("hybrid", "STOPPED");
    expected.emplace_back(testing::StrEq("E " + byThread("zone-manager") + "ZoneManager is not running"));
    expected.push_back(line("E", "Failed to send restart event[zone name : hybrid]"));
    expected.push_back(line("E", "Failed to send Re-start event for \"hybrid : STOPPED\""));
    EXPECT_THAT(relay(STATE, "hybrid", LXC_STOPPED), testing::ElementsAreArray(expected));
}

TEST_F(ZoneMonitorTest, RelaysAMessageOfAnUnknownZone)
{
    const UniqueFd subscriber = subscribe();
    EXPECT_THAT(
        relay(STATE, "nobody", LXC_STOPPED),
        ElementsAre(
            by("I", "The state of nobody is changed to STOPPED"), "I ZoneContainerState instance is created",
            "I ZoneContainerState instance is destroyed", "I There is no \"nobody\" object",
            "E Can not find zone object (zone name : nobody)",
            by("W", "Failed to send zone event to \"nobody : STOPPED\""),
            by("I",
               "Request broadcasting signals for changing container state [zone name : nobody / STOPPED]"),
            by("W", "Failed to send signal for changing state [zone name : nobody]"),
            said("I", "nobody => STOPPED message is notified to [fd : %d, count : 1]", subscriberFd),
            by("I", "State Change Event is notified to all subscribers - nobody => STOPPED"),
            "I There is no \"nobody\" object", "E Can not find zone object (zone name : nobody)",
            by("I", "Restart event for nobody is sent to Zone Manager")));
    EXPECT_EQ(received(subscriber).size(), sizeof(lxc_msg));
}

TEST_F(ZoneMonitorTest, DropsAStateWithoutAWord)
{
    const UniqueFd subscriber = subscribe();
    EXPECT_THAT(relay(STATE, "hybrid", 99), ElementsAre(line("I", "The state of hybrid is changed to (null)"),
                                                        line("W", "Invalid zone state value - 99")));
    EXPECT_EQ(received(subscriber), "");
}

TEST_F(ZoneMonitorTest, TakesANameThatFillsItsField)
{
    const std::string name(256, 'n');
    EXPECT_THAT(relay(STATE, name, LXC_FROZEN).front(),
                line("I", "The state of " + name + " is changed to FROZEN"));
}

TEST_F(ZoneMonitorTest, HandlesOneMessageAWakeUp)
{
    send(message(PRIORITY, "hybrid", 0));
    send(message(7, "hybrid", 0));
    log.clear();
    EXPECT_TRUE(g_main_context_iteration(monitor->context(), FALSE));
    EXPECT_EQ(ownTexts(log).back(), by("I", "priority message is received"));
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_EQ(ownTexts(log).back(), by("E", "case error"));
}

TEST_F(ZoneMonitorTest, EndsTheRelayAtAShortMessage)
{
    ASSERT_EQ(write(fifo.get(), "short", 5), 5);
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_EQ(ownTexts(log).back(), by("E", "Failed to read state messages from container"));
    send(message(PRIORITY, "hybrid", 0));
    EXPECT_EQ(monitor->drain(), 0);
}

TEST_F(ZoneMonitorTest, EndsTheRelayWhenTheFifoCannotBeRead)
{
    send(message(PRIORITY, "hybrid", 0));
    calls.fail("read(", EIO);
    EXPECT_EQ(monitor->drain(), 1);
    EXPECT_THAT(ownTexts(log),
                ElementsAre(said("I", "state change IO event is received[fd : %d, count : 0]", opened(FIFO)),
                            by("E", "Failed to read state messages from container")));
    EXPECT_EQ(monitor->drain(), 0);
}

TEST_F(ZoneMonitorTest, GivesSubscribersTheMessageByteForByte)
{
    const UniqueFd first = subscribe();
    const UniqueFd second = subscribe();
    lxc_msg content = message(STATE, "hybrid", LXC_FROZEN);
    std::memcpy(content.name + 10, "what follows", 12);
    send(content);
    EXPECT_EQ(monitor->drain(), 1);
    const std::string bytes(reinterpret_cast<const char*>(&content), sizeof(content));
    EXPECT_EQ(received(first), bytes);
    EXPECT_EQ(received(second), bytes);
    const auto texts = ownTexts(log);
    ASSERT_GE(texts.size(), 3U);
    EXPECT_THAT(
        std::vector<std::string>(texts.end() - 3, texts.end()),
        ElementsAre(line("I", "hybrid => FROZEN message is notified to [fd : #, count : 2]"),
                    line("I", "hybrid => FROZEN message is notified to [fd : #, count : 2]"),
                    line("I", "State Change Event is notified to all subscribers - hybrid => FROZEN")));
}

TEST_F(ZoneMonitorTest, OutlivesAWriteToASubscriberThatIsGone)
{
    subscribe().reset();
    send(message(STATE, "hybrid", LXC_FROZEN));
    // The message comes first: its watcher is the older one.
    EXPECT_GE(monitor->drain(), 1);
    EXPECT_THAT(
        ownTexts(log),
        testing::IsSupersetOf<Matcher<std::string>>(
            {line("W", "Failed to write the state change event to subscribers - hybrid => FROZEN - \"Broken "
                       "pipe\""),
             line("I", "hybrid => FROZEN message is notified to [fd : #, count : 1]"),
             line("I", "State Change Event is notified to all subscribers - hybrid => FROZEN"),
             line("I", "Current client connection count[count : 0]")}));
}
