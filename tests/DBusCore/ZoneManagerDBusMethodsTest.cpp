// What each method answers, and what it makes of its request, on a real bus.
#include "tests/DBusCore/PublishedService.h"
#include "tests/support/unit/Eventually.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

using DBusCore::ZoneManagerDBusInterface;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using ZoneCore::GVariantPtr;
using ZoneTest::byThread;
using ZoneTest::LogCapture;

namespace {

using ZoneManagerDBusMethods = ZoneTest::PublishedService;

/// The record of an event that a zone's thread was sent.
std::string sentToHybrid()
{
    return "I the zone event is sent to hybrid thread(thread id : " +
           std::to_string(ZoneCore::currentThreadId()) + ")";
}

/// What is told when a request finds the monitor not running.
std::string noMonitorLine()
{
    return "E " + byThread("zone-manager") + "Monitor Thread is not running(target zone : hybrid)";
}

} // namespace

TEST_F(ZoneManagerDBusMethods, ListsTheDefinedContainersOfEveryKind)
{
    control.set("order", "protection\nhybrid\nisolation");
    EXPECT_EQ(reply("GetZoneList", "()"), "(['protection', 'hybrid', 'isolation'],)");
    EXPECT_THAT(handlerTexts(), IsEmpty());
    control.set("order", "");
    EXPECT_EQ(reply("GetZoneList", "()"), "([],)");
    EXPECT_THAT(handlerTexts(), IsEmpty());
}

TEST_F(ZoneManagerDBusMethods, ListsANameThatIsNoTextForTheBus)
{
    control.set("containers/\xff"
                "c/type",
                "2");
    control.set("order", "\xff"
                         "c\nhybrid");
    EXPECT_EQ(reply("GetZoneList", "()"), "(['\xEF\xBF\xBD"
                                          "c', 'hybrid'],)");
}

TEST_F(ZoneManagerDBusMethods, ListsNothingWithoutAPathOrAListing)
{
    control.set("list_fails");
    EXPECT_EQ(reply("GetZoneList", "()"), "([],)");
    EXPECT_THAT(handlerTexts(), ElementsAre("E Failed to find containers(-1)"));
    control.remove("list_fails");
    control.remove("lxcpath");
    EXPECT_EQ(reply("GetZoneList", "()"), "([],)");
    EXPECT_THAT(handlerTexts(), ElementsAre("E Failed to find containers(-1)"));
}

TEST_F(ZoneManagerDBusMethods, TellsTheStateOfAZone)
{
    control.set("containers/hybrid/state", "FROZEN");
    EXPECT_EQ(reply("ZoneGetState"), "(7,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneGetState on zone 'hybrid'",
                                            "I The state of zone is received - \"FROZEN\"",
                                            "I ZoneContainerState instance is created",
                                            "I ZoneContainerState instance is destroyed"));
    control.set("containers/isolation/state", "RUNNING");
    EXPECT_EQ(reply("ZoneGetState", "('isolation',)"), "(3,)");
}

TEST_F(ZoneManagerDBusMethods, TellsInitPids)
{
    control.set("containers/hybrid/init_pid", "4711");
    EXPECT_EQ(reply("ZoneGetInitPid"), "(4711,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneGetInitPid on zone 'hybrid'"));
    EXPECT_EQ(reply("ZoneGetPid"), "(0,)"); // a placeholder
    EXPECT_THAT(handlerTexts(), IsEmpty());
}

TEST_F(ZoneManagerDBusMethods, AnswersAWaitInAShapeThatIsNotDelivered)
{
    expectUndelivered("ZoneAttachWait", "('hybrid',)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneAttachWait on zone 'hybrid'"));
}

TEST_F(ZoneManagerDBusMethods, QueuesRequests)
{
    const std::vector<std::pair<const char*, int>> rows{
        {"ZoneStart", 1}, {"ZoneStop", 2}, {"ZoneUnfreeze", 4}};
    for (const auto& [method, event] : rows) {
        EXPECT_EQ(reply(method), "(true,)") << method;
        EXPECT_THAT(handlerTexts(),
                    ElementsAre(std::string("I [DBus] ") + method + " on zone 'hybrid'", sentToHybrid(),
                                "I zone event(" + std::to_string(event) + ") is sent (zone name : hybrid)"));
    }
}

TEST_F(ZoneManagerDBusMethods, QueuesNothingWhileTheMonitorDoesNotRun)
{
    manager->setMonitor(new ZoneCore::ZoneMonitor);
    for (const char* method : {"ZoneStart", "ZoneStop", "ZoneUnfreeze"}) {
        EXPECT_EQ(reply(method), "(false,)") << method;
        EXPECT_THAT(handlerTexts(),
                    ElementsAre(std::string("I [DBus] ") + method + " on zone 'hybrid'", noMonitorLine()));
    }
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', ['ls'], ['A=1'], 0, 0)"), "(false,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]", "I Vector element ls",
                                            "I Vector element A=1", noMonitorLine()));
}

TEST_F(ZoneManagerDBusMethods, OffersNoFreezeAndNoLock)
{
    EXPECT_EQ(reply("ZoneFreeze"), "(false,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneFreeze not implemanted"));
    for (const char* arguments : {"('hybrid', true)", "('hybrid', false)"}) {
        EXPECT_EQ(reply("ZoneLock", arguments), "(false,)");
        EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneLock not implemanted"));
    }
    EXPECT_EQ(reply("ZoneUnlock"), "(false,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneUnlock not implemanted"));
    EXPECT_THAT(control.calls(), Not(Contains(testing::StartsWith("freeze "))));
}

TEST_F(ZoneManagerDBusMethods, QueuesAnAttachRequest)
{
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', ['ls', '-l'], ['A=1'], 10, 20)"), "(true,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]", "I Vector element ls",
                                            "I Vector element -l", "I Vector element A=1", sentToHybrid(),
                                            "I zone event(5) is sent (zone name : hybrid)"));
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', @as [], @as [], 0, 0)"), "(true,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]", sentToHybrid(),
                                            "I zone event(5) is sent (zone name : hybrid)"));
}

TEST_F(ZoneManagerDBusMethods, ReportsRequestsThatAreNotDelivered)
{
    ZoneCore::Zone* zone = (*registry)->getZone("hybrid");
    zone->terminate();
    ASSERT_TRUE(ZoneTest::eventually([&] { return !zone->isRunning(); }));
    const auto notRunning = [](const std::string& event) {
        return "E zone thread is not running (zone name : hybrid [event type : " + event + "])";
    };
    const auto notSent = [](const std::string& word) {
        return "E " + byThread("zone-manager") + "Failed to send " + word + " event for zone(hybrid)";
    };
    struct Row
    {
        const char* method;
        const char* event;
        const char* word;
    };
    for (const auto& [method, event, word] : {Row{"ZoneStart", "1", "start"}, Row{"ZoneStop", "2", "stop"},
                                              Row{"ZoneUnfreeze", "4", "unfreeze"}}) {
        EXPECT_EQ(reply(method), "(false,)") << method;
        EXPECT_THAT(handlerTexts(), ElementsAre(std::string("I [DBus] ") + method + " on zone 'hybrid'",
                                                notRunning(event), notSent(word)));
    }
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', @as [], @as [], 0, 0)"), "(false,)");
    EXPECT_THAT(handlerTexts(),
                ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]", notRunning("5"), notSent("attach")));
}

TEST(ZoneDBusVector, CopiesTheStringsAndEndsWithNull)
{
    const LogCapture log;
    const GVariantPtr value(g_variant_ref_sink(g_variant_new_parsed("['one', 'two']")));
    std::vector<const char*> out;
    ZoneManagerDBusInterface::g_variant_get_vector(value.get(), out);
    EXPECT_THAT(log.texts(), ElementsAre("I Vector element one", "I Vector element two"));
    ASSERT_EQ(out.size(), 3U);
    EXPECT_STREQ(out[0], "one");
    EXPECT_STREQ(out[1], "two");
    EXPECT_EQ(out[2], nullptr);
    for (const char* text : out) {
        g_free(const_cast<char*>(text));
    }
}
