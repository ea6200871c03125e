// How each call is told, checked, handled and answered, step by step: the bus library is a fake.
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "tests/DBusCore/FakeBusLibrary.h"
#include "tests/ZoneCore/ZoneFixtures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using ZoneTest::byThread;
using ZoneTest::FakeBusLibrary;
using ZoneTest::FakeCall;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;
using ZoneTest::ManagerFixture;
using ZoneTest::ownTexts;
using ZoneTest::RegistryFixture;
using Service = DBusCore::ZoneManagerDBusInterface;
using Texts = std::vector<std::string>;

namespace {

using Handler = void (*)(GDBusMethodInvocation*, gpointer);

/// Who called what, as it is told.
std::string callLine(const std::string& method)
{
    return "sender : :1.9 / object path : /org/ornix/zoneframework / interface name : "
           "org.ornix.zoneframework.interface / method name : " +
           method;
}

std::string numberLine(const std::string& method, int number)
{
    return "I method name type of \"" + method + "\" is " + std::to_string(number);
}

std::string refusalLine(const std::string& zone)
{
    return "E [DBus] There is no access permission to protection zone(\"" + zone +
           "\") - Operation is not permitted";
}

std::string replied(const std::string& value)
{
    return "D g_dbus_method_invocation_return_value " + value;
}

std::string pushed(const std::string& typeAndState)
{
    return "D g_async_queue_push_unlocked " + typeAndState;
}

std::string sentToHybrid()
{
    return "I the zone event is sent to hybrid thread(thread id : " +
           std::to_string(ZoneCore::currentThreadId()) + ")";
}

std::string eventLine(const std::string& type)
{
    return "I zone event(" + type + ") is sent (zone name : hybrid)";
}

Texts operator+(Texts first, const Texts& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// A service, a manager whose monitor counts as running, and one zone of each kind.
class ZoneManagerDBusDispatch : public testing::Test
{
protected:
    ZoneManagerDBusDispatch()
    {
        control.define("hybrid", ZUP::ZONE_TYPE_HYBRID);
        control.define("isolation", ZUP::ZONE_TYPE_ISOLATION);
        control.define("protection", ZUP::ZONE_TYPE_PROTECTION);
        registry = std::make_unique<RegistryFixture>(Texts{"hybrid", "isolation", "protection"});
        manager = std::make_unique<ManagerFixture>();
        manager->setMonitor(ZoneTest::runningMonitor());
    }
    ~ZoneManagerDBusDispatch() override
    {
        manager.reset();
        registry.reset();
    }

    /// Hands a call to the dispatch, which must let go of it. @return what this wrote
    Texts dispatch(const char* method, const std::string& arguments)
    {
        return dispatch(":1.9", "/org/ornix/zoneframework", "org.ornix.zoneframework.interface", method,
                        arguments, &service);
    }
    Texts dispatch(const char* sender, const char* path, const char* interface, const char* method,
                   const std::string& arguments, Service* target)
    {
        log.clear();
        const FakeCall call(arguments);
        Service::callVTable(nullptr, sender, path, interface, method, call.parameters(), call.handOver(),
                            target);
        EXPECT_TRUE(call.isReleased()) << method;
        return ownTexts(log);
    }
    /// Hands a call to a handler without the dispatch before it.
    Texts handle(Handler handler, const std::string& arguments)
    {
        log.clear();
        const FakeCall call(arguments);
        handler(call.handOver(), nullptr);
        EXPECT_TRUE(call.isReleased());
        return ownTexts(log);
    }

    LogCapture log;
    FakeBusLibrary library;
    FakeLxcControl control;
    std::unique_ptr<RegistryFixture> registry;
    std::unique_ptr<ManagerFixture> manager;
    Service service;
};

/// A method, and what is expected of a call of it.
struct Method
{
    const char* name;
    int number;
    std::string moreArguments; ///< behind the zone's name
    const char* refusal;
    Texts handled; ///< what an accepted call for "hybrid" writes, its reply included
};

std::vector<Method> methods()
{
    return {
        {"GetVersion", 0, "", "('none',)", {replied("('4.0.28/4.0.12',)")}},
        {"GetZoneList", 1, "", "('none',)", {replied("(['hybrid', 'isolation', 'protection'],)")}},
        {"ZoneGetState",
         2,
         "",
         "(-1,)",
         {"I [DBus] ZoneGetState on zone 'hybrid'", "I The state of zone is received - \"STOPPING\"",
          "I ZoneContainerState instance is created", "I ZoneContainerState instance is destroyed",
          replied("(4,)")}},
        {"ZoneGetPid", 3, "", "(-1,)", {replied("(0,)")}},
        {"ZoneGetInitPid", 4, "", "(-1,)", {"I [DBus] ZoneGetInitPid on zone 'hybrid'", replied("(4711,)")}},
        {"ZoneStart",
         5,
         "",
         "(false,)",
         {"I [DBus] ZoneStart on zone 'hybrid'", pushed("1 0"), sentToHybrid(), eventLine("1"),
          replied("(true,)")}},
        {"ZoneStop",
         6,
         "",
         "(false,)",
         {"I [DBus] ZoneStop on zone 'hybrid'", pushed("2 0"), sentToHybrid(), eventLine("2"),
          replied("(true,)")}},
        {"ZoneFreeze", 7, "", "(false,)", {"I [DBus] ZoneFreeze not implemanted", replied("(false,)")}},
        {"ZoneUnfreeze",
         8,
         "",
         "(false,)",
         {"I [DBus] ZoneUnfreeze on zone 'hybrid'", pushed("4 0"), sentToHybrid(), eventLine("4"),
          replied("(true,)")}},
        {"ZoneLock", 9, ", true", "(false,)", {"I [DBus] ZoneLock not implemanted", replied("(false,)")}},
        {"ZoneUnlock", 10, "", "(false,)", {"I [DBus] ZoneUnlock not implemanted", replied("(false,)")}},
        {"ZoneAttach",
         11,
         ", ['ls', '-l'], ['A=1'], 10, -20",
         "(false,)",
         {"I [DBus] ZoneAttach zoneName[hybrid]", "I Vector element ls", "I Vector element -l",
          "I Vector element A=1", pushed("5 0"), sentToHybrid(), eventLine("5"), replied("(true,)")}},
        {"ZoneAttachWait", 12, "", "(-1,)", {"I [DBus] ZoneAttachWait on zone 'hybrid'", replied("(4711,)")}},
    };
}

std::string argumentsFor(const Method& method, const std::string& zone)
{
    return "('" + zone + "'" + (method.moreArguments.empty() ? "," : method.moreArguments) + ")";
}

} // namespace

// The dispatch.

TEST_F(ZoneManagerDBusDispatch, TellsACallAndHandsItToItsHandler)
{
    control.set("containers/hybrid/state", "STOPPING");
    control.set("containers/hybrid/init_pid", "4711");
    for (const Method& method : methods()) {
        const Texts told{"I " + callLine(method.name), numberLine(method.name, method.number)};
        EXPECT_THAT(dispatch(method.name, argumentsFor(method, "hybrid")),
                    ElementsAreArray(told + method.handled))
            << method.name;
    }
}

TEST_F(ZoneManagerDBusDispatch, RefusesAProtectionZoneInTheMethodsOwnShape)
{
    for (const Method& method : methods()) {
        EXPECT_THAT(dispatch(method.name, argumentsFor(method, "protection")),
                    ElementsAre("I " + callLine(method.name), numberLine(method.name, method.number),
                                refusalLine("protection"), "E " + callLine(method.name),
                                replied(method.refusal)));
    }
}

TEST_F(ZoneManagerDBusDispatch, RefusesAZoneThatDoesNotExistInTheSameWords)
{
    for (const std::string zone : {"nobody", ""}) {
        for (const Method& method : methods()) {
            EXPECT_THAT(dispatch(method.name, argumentsFor(method, zone)),
                        ElementsAre("I " + callLine(method.name), numberLine(method.name, method.number),
                                    "I There is no \"" + zone + "\" object",
                                    "E Can not find zone object (zone name : " + zone + ")",
                                    refusalLine(zone), "E " + callLine(method.name),
                                    replied(method.refusal)));
        }
    }
}

TEST_F(ZoneManagerDBusDispatch, AcceptsAnIsolationZone)
{
    EXPECT_THAT(dispatch("ZoneGetPid", "('isolation',)"),
                ElementsAre("I " + callLine("ZoneGetPid"), numberLine("ZoneGetPid", 3), replied("(0,)")));
}

TEST_F(ZoneManagerDBusDispatch, ChecksNoZoneWithoutAZonesName)
{
    EXPECT_THAT(dispatch("GetZoneList", "()"),
                ElementsAre("I " + callLine("GetZoneList"), numberLine("GetZoneList", 1),
                            replied("(['hybrid', 'isolation', 'protection'],)")));
    // The first argument is no name when it is no string; nor is a later one.
    EXPECT_THAT(dispatch("GetVersion", "(3, 'nobody')"),
                ElementsAre("I " + callLine("GetVersion"), numberLine("GetVersion", 0),
                            replied("('4.0.28/4.0.12',)")));
    EXPECT_THAT(log.otherLines(), IsEmpty());
}

TEST_F(ZoneManagerDBusDispatch, TakesTheFirstMethodWhoseNameBeginsLikeTheGivenOne)
{
    control.set("containers/hybrid/init_pid", "4711");
    EXPECT_THAT(dispatch("ZoneAttachW", "('hybrid',)"),
                ElementsAre("I " + callLine("ZoneAttachW"), numberLine("ZoneAttachW", 12),
                            "I [DBus] ZoneAttachWait on zone 'hybrid'", replied("(4711,)")));
    EXPECT_THAT(dispatch("Zone", "('protection',)"),
                ElementsAre("I " + callLine("Zone"), numberLine("Zone", 2), refusalLine("protection"),
                            "E " + callLine("Zone"), replied("(-1,)")));
}

TEST_F(ZoneManagerDBusDispatch, LeavesAnUnknownMethodUnanswered)
{
    EXPECT_THAT(dispatch("ZoneAttachWaits", "('protection',)"),
                ElementsAre("I " + callLine("ZoneAttachWaits"),
                            "E Failed to get method name - \"ZoneAttachWaits\"",
                            "E Failed to get dbus method info", "E " + callLine("ZoneAttachWaits")));
}

TEST_F(ZoneManagerDBusDispatch, ShowsADashForWhatIsMissing)
{
    const std::string nothing = "sender : - / object path : - / interface name : - / method name : -";
    EXPECT_THAT(dispatch(nullptr, nullptr, nullptr, nullptr, "('hybrid',)", &service),
                ElementsAre("I " + nothing, "E Invalid method name", "E Failed to get dbus method info",
                            "E " + nothing));
    const std::string refused = "sender : - / object path : /p / interface name : - / method name : ZoneStop";
    EXPECT_THAT(dispatch(nullptr, "/p", nullptr, "ZoneStop", "('protection',)", &service),
                ElementsAre("I " + refused, numberLine("ZoneStop", 6), refusalLine("protection"),
                            "E " + refused, replied("(false,)")));
}

TEST_F(ZoneManagerDBusDispatch, DoesNothingWithoutAService)
{
    EXPECT_THAT(dispatch(":1.9", "/p", "i", "ZoneStop", "('hybrid',)", nullptr),
                ElementsAre("E Invalid argument - ZoneManagerDBusInterface"));
}

// The handlers.

TEST_F(ZoneManagerDBusDispatch, RefusalsAndPlaceholdersLookAtNothing)
{
    const std::string nothing = "()";
    EXPECT_THAT(handle(Service::returnErrorBoolean, nothing), ElementsAre(replied("(false,)")));
    EXPECT_THAT(handle(Service::returnErrorInteger, nothing), ElementsAre(replied("(-1,)")));
    EXPECT_THAT(handle(Service::returnErrorString, nothing), ElementsAre(replied("('none',)")));
    EXPECT_THAT(handle(Service::getVersion, nothing), ElementsAre(replied("('4.0.28/4.0.12',)")));
    EXPECT_THAT(handle(Service::getZonePid, nothing), ElementsAre(replied("(0,)")));
    EXPECT_THAT(handle(Service::freezeZone, nothing),
                ElementsAre("I [DBus] ZoneFreeze not implemanted", replied("(false,)")));
    EXPECT_THAT(handle(Service::lockZone, nothing),
                ElementsAre("I [DBus] ZoneLock not implemanted", replied("(false,)")));
    EXPECT_THAT(handle(Service::unlockZone, nothing),
                ElementsAre("I [DBus] ZoneUnlock not implemanted", replied("(false,)")));
}

TEST_F(ZoneManagerDBusDispatch, AnswersZeroForAZoneThatIsGone)
{
    const std::string unknown = "I There is no \"nobody\" object";
    const std::string missing = "E Can not find zone object (zone name : nobody)";
    EXPECT_THAT(handle(Service::getZoneState, "('nobody',)"),
                ElementsAre("I [DBus] ZoneGetState on zone 'nobody'", unknown, missing, replied("(0,)")));
    EXPECT_THAT(handle(Service::getZoneInitPid, "('nobody',)"),
                ElementsAre("I [DBus] ZoneGetInitPid on zone 'nobody'", unknown, missing, replied("(0,)")));
    EXPECT_THAT(handle(Service::attachWaitZone, "('nobody',)"),
                ElementsAre("I [DBus] ZoneAttachWait on zone 'nobody'", unknown, missing, replied("(0,)")));
}

TEST_F(ZoneManagerDBusDispatch, AnswersFalseForAZoneThatIsGone)
{
    struct Row
    {
        Handler handler;
        const char* method;
        const char* word;
    };
    for (const auto& [handler, method, word] :
         {Row{Service::startZone, "ZoneStart", "start"}, Row{Service::stopZone, "ZoneStop", "stop"},
          Row{Service::unfreezeZone, "ZoneUnfreeze", "unfreeze"}}) {
        EXPECT_THAT(handle(handler, "('nobody',)"),
                    ElementsAre(std::string("I [DBus] ") + method + " on zone 'nobody'",
                                "I There is no \"nobody\" object",
                                "E Can not find zone object (zone name : nobody)",
                                "E " + byThread("zone-manager") + "Failed to send " + word +
                                    " event for zone(nobody)",
                                replied("(false,)")));
    }
    // A call without a name is for the zone without one.
    EXPECT_THAT(handle(Service::stopZone, "(3,)").front(), "I [DBus] ZoneStop on zone ''");
}

TEST_F(ZoneManagerDBusDispatch, SendsNothingWhileTheMonitorDoesNotRun)
{
    manager->setMonitor(new ZoneCore::ZoneMonitor);
    const std::string noMonitor =
        "E " + byThread("zone-manager") + "Monitor Thread is not running(target zone : hybrid)";
    EXPECT_THAT(handle(Service::startZone, "('hybrid',)"),
                ElementsAre("I [DBus] ZoneStart on zone 'hybrid'", noMonitor, replied("(false,)")));
    EXPECT_THAT(handle(Service::stopZone, "('hybrid',)"),
                ElementsAre("I [DBus] ZoneStop on zone 'hybrid'", noMonitor, replied("(false,)")));
    EXPECT_THAT(handle(Service::unfreezeZone, "('hybrid',)"),
                ElementsAre("I [DBus] ZoneUnfreeze on zone 'hybrid'", noMonitor, replied("(false,)")));
    EXPECT_THAT(handle(Service::attachZone, "('hybrid', ['ls'], ['A=1'], 1, 2)"),
                ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]", "I Vector element ls",
                            "I Vector element A=1", noMonitor, replied("(false,)")));
}

// The list.

TEST_F(ZoneManagerDBusDispatch, ListsTheNamesBelowLiblxcsPath)
{
    const std::size_t before = control.calls().size();
    EXPECT_THAT(handle(Service::getZoneList, "()"),
                ElementsAre(replied("(['hybrid', 'isolation', 'protection'],)")));
    const auto calls = control.calls();
    EXPECT_THAT(
        Texts(calls.begin() + static_cast<std::ptrdiff_t>(before), calls.end()),
        ElementsAre("lxc_get_global_config_item - - lxc.lxcpath", "list_defined_containers - - /zone-test"));
}

TEST_F(ZoneManagerDBusDispatch, TellsTheCountOfAListingThatFailed)
{
    control.set("order", "");
    EXPECT_THAT(handle(Service::getZoneList, "()"), ElementsAre(replied("(@as [],)")));
    control.set("count_override", "-2");
    EXPECT_THAT(handle(Service::getZoneList, "()"),
                ElementsAre("E Failed to find containers(-2)", replied("(@as [],)")));
    control.remove("lxcpath");
    EXPECT_THAT(handle(Service::getZoneList, "()"),
                ElementsAre("E Failed to find containers(-1)", replied("(@as [],)")));
}

// The attach request.

TEST_F(ZoneManagerDBusDispatch, AttachesWithTheCommandLineAndTheIds)
{
    std::string sent;
    std::string replying;
    library.during("g_async_queue_push_unlocked", [&] { sent = library.attachRequest(); });
    library.during("g_dbus_method_invocation_return_value", [&] { replying = library.attachRequest(); });
    static_cast<void>(dispatch("ZoneAttach", "('hybrid', ['ls', '-l'], ['A=1'], 10, -20)"));
    EXPECT_EQ(sent, "10 -20 ls [ls -l]");
    EXPECT_EQ(replying, sent); // the strings go after the reply
}

TEST_F(ZoneManagerDBusDispatch, AttachesWithoutAnyString)
{
    std::string sent;
    library.during("g_async_queue_push_unlocked", [&] { sent = library.attachRequest(); });
    EXPECT_THAT(handle(Service::attachZone, "('hybrid', @as [], @as [], 0, 0)"),
                ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]", pushed("5 0"), sentToHybrid(),
                            eventLine("5"), replied("(true,)")));
    EXPECT_EQ(sent, "0 0 - []");
    // The environment is no part of it.
    static_cast<void>(handle(Service::attachZone, "('hybrid', @as [], ['A=1'], 0, 0)"));
    EXPECT_EQ(sent, "0 0 - []");
}

TEST_F(ZoneManagerDBusDispatch, CarriesNothingWithTheOtherRequests)
{
    for (const Handler handler : {Service::startZone, Service::stopZone, Service::unfreezeZone}) {
        library.eventData = &library;
        static_cast<void>(handle(handler, "('hybrid',)"));
        EXPECT_EQ(library.eventData, nullptr);
    }
}
