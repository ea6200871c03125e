// The registry's own steps. The zones come from a factory of this program's; both write each call into the
// log, where it takes its place among the registry's records.
#include "ZoneCore/ZoneContext.h"

#include "Common/Log.h"
#include "ZoneCore/ZoneFactory.h"
#include "tests/ZoneCore/EventSeams.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/support/unit/MutexHook.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using ZoneTest::atNextLock;
using ZoneTest::createsNoEvent;
using ZoneTest::Driven;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;
using ZoneTest::LogRecord;

namespace {

/// What the factory makes of a container.
struct Script
{
    bool isMade = true;
    bool runs = true;
    bool autoStart = false;
    bool permitsAutoStart = true;
    bool delivers = true; ///< takes the events that it is sent
};

std::map<std::string, Script> scripts;

class ScriptedZone : public Driven<Zone>
{
public:
    ScriptedZone(lxc_container* handle, const Script& wanted) : script(wanted)
    {
        zoneName = handle->name;
        autoStart = script.autoStart;
        container->setHandle(handle);
        static_cast<void>(lxc_container_get(handle));
        EXPECT_TRUE(Thread::initialize(false, "thread-" + zoneName));
        if (script.runs) {
            countAsRunning();
        }
    }
    ~ScriptedZone() override { ZLOGD("delete %s", zoneName.c_str()); }

    bool checkAutoStart() override
    {
        ZLOGD("checkAutoStart %s", zoneName.c_str());
        return script.permitsAutoStart;
    }
    bool sendEvent(ZoneEvent* event) override
    {
        ZLOGD("sendEvent %s [%d / %d / %s] requested : %d", zoneName.c_str(), event->eventType,
              event->zoneState, event->eventData == nullptr ? "-" : static_cast<char*>(event->eventData),
              autoStartRequested.load());
        if (script.delivers) {
            delete event;
        }
        return script.delivers;
    }

private:
    const Script script;
};

} // namespace

// Takes the place of the daemon's factory in this program.
Zone* ZoneFactory::getZone(lxc_container* container, std::string& basePath)
{
    const std::string name = container == nullptr ? "-" : container->name;
    ZLOGD("getZone %s %s", name.c_str(), basePath.c_str());
    const Script script = scripts[name];
    if (container == nullptr || script.isMade) {
        return container == nullptr ? nullptr : new ScriptedZone(container, script);
    }
    static_cast<void>(lxc_container_put(container));
    return nullptr;
}

namespace {

/// A registry whose containers are defined, but not yet listed.
class ZoneContextStepsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        scripts.clear();
        createsNoEvent = false;
        registry = ZoneContext::singleton();
    }
    void TearDown() override
    {
        if (registry != nullptr) {
            ZoneTest::destroyRegistry();
        }
    }

    /// Defines a container and what becomes of it.
    Script& define(const std::string& name)
    {
        control.define(name, ZUP::ZONE_TYPE_HYBRID);
        return scripts[name];
    }
    void build()
    {
        EXPECT_TRUE(registry->initialize());
        log.clear();
    }
    /// What the registry, the states and the zones above have written, in order.
    [[nodiscard]] std::vector<std::string> steps() const
    {
        std::vector<std::string> result;
        for (const LogRecord& record : log.records()) {
            if (record.file == "ZoneContext.cpp" || record.file == "ZoneContainerState.cpp" ||
                record.file == "ZoneContextStepsTest.cpp") {
                result.push_back(std::string(1, record.level) + " " + record.body);
            }
        }
        return result;
    }

    LogCapture log;
    FakeLxcControl control;
    ZoneContext* registry = nullptr;
};

constexpr const char* PASS_BEGINS = "I ZoneContainerState instance is created";
constexpr const char* PASS_ENDS = "I ZoneContainerState instance is destroyed";

std::string checking(const std::string& name, const std::string& values)
{
    return "I Checking auto start zone for \"" + name + "\" - " + values;
}

} // namespace

// Life.

TEST_F(ZoneContextStepsTest, IsMadeOnceForTwoThreadsThatNeedItAtTheSameTime)
{
    ZoneContext::deleteSingleton();
    log.clear();
    static ZoneContext* ofTheOther = nullptr;
    atNextLock = [] {
        ofTheOther = ZoneContext::singleton(); // comes first
        return 0;
    };
    registry = ZoneContext::singleton();
    EXPECT_EQ(registry, ofTheOther);
    EXPECT_THAT(steps(), ElementsAre("I ZoneContext object is created",
                                     "I Singletone object of Zone Context is created..."));
}

TEST_F(ZoneContextStepsTest, IsNotMadeWithoutTheLock)
{
    ZoneContext::deleteSingleton();
    registry = nullptr;
    log.clear();
    atNextLock = [] { return EDEADLK; };
    EXPECT_THROW(static_cast<void>(ZoneContext::singleton()), std::system_error);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ZoneContextStepsTest, MakesAZoneOfEachContainerInTurn)
{
    define("alpha");
    define("bravo").isMade = false;
    define("charlie");
    log.clear();
    EXPECT_TRUE(registry->initialize());
    EXPECT_THAT(
        steps(),
        ElementsAre("D getZone alpha /zone-test", "I \"alpha\" is added to Zone Context!",
                    "D getZone bravo /zone-test", "E Failed to create Zone Object - bravo[1]",
                    "D getZone charlie /zone-test", "I \"charlie\" is added to Zone Context!",
                    "I Zone count is set to [3 / 2]",
                    "I Zone Context is created successfully (lxc base path : /zone-test, zone count : 3)"));
    const auto calls = control.calls();
    ASSERT_GE(calls.size(), 2U);
    EXPECT_EQ(calls[0], "lxc_get_global_config_item - - lxc.lxcpath");
    EXPECT_EQ(calls[1], "list_defined_containers - - /zone-test");
    EXPECT_EQ(registry->getZone("charlie")->zoneName, "charlie");
}

TEST_F(ZoneContextStepsTest, OneContainerIsEnough)
{
    define("alpha");
    log.clear();
    EXPECT_TRUE(registry->initialize());
    EXPECT_EQ(steps().back(),
              "I Zone Context is created successfully (lxc base path : /zone-test, zone count : 1)");
}

TEST_F(ZoneContextStepsTest, SkipsAListedContainerThatIsNone)
{
    define("alpha");
    control.set("containers/alpha/new_fails");
    define("bravo");
    log.clear();
    EXPECT_TRUE(registry->initialize());
    EXPECT_THAT(
        steps(),
        ElementsAre("D getZone - /zone-test", "E Failed to create Zone Object - [0]",
                    "D getZone bravo /zone-test", "I \"bravo\" is added to Zone Context!",
                    "I Zone count is set to [2 / 1]",
                    "I Zone Context is created successfully (lxc base path : /zone-test, zone count : 2)"));
}

TEST_F(ZoneContextStepsTest, AllContainersAreRefused)
{
    define("alpha").isMade = false;
    define("bravo").isMade = false;
    log.clear();
    EXPECT_FALSE(registry->initialize());
    EXPECT_THAT(steps(),
                ElementsAre("D getZone alpha /zone-test", "E Failed to create Zone Object - alpha[0]",
                            "D getZone bravo /zone-test", "E Failed to create Zone Object - bravo[1]",
                            "I Zone count is set to [2 / 0]",
                            "E There is no zone information (lxc base path : /zone-test, zone count : 2)"));
    EXPECT_TRUE(registry->isEmpty());
}

TEST_F(ZoneContextStepsTest, EndsEachZoneInTurn)
{
    define("alpha");
    define("bravo").runs = false;
    define("charlie");
    build();
    registry->destroy();
    EXPECT_THAT(steps(), ElementsAre("I The remained count of Zone Object in ZoneContext \"3\"",
                                     "I \"thread-alpha\" thread is destroyed", "D delete alpha",
                                     "D delete bravo", "I \"thread-charlie\" thread is destroyed",
                                     "D delete charlie", "I The count of Zone Object is \"0\""));
    for (const char* name : {"alpha", "bravo", "charlie"}) {
        EXPECT_THAT(control.calls(), Contains(std::string("lxc_container_put ") + name + " 0 -"));
    }
    EXPECT_TRUE(registry->isEmpty());
    log.clear();
    EXPECT_EQ(registry->getZone("alpha"), nullptr);
    registry->destroy();
    EXPECT_THAT(steps(), ElementsAre("E There is no zone information (zone name : alpha)",
                                     "I The remained count of Zone Object in ZoneContext \"0\"",
                                     "I The count of Zone Object is \"0\""));
}

TEST_F(ZoneContextStepsTest, QuitsEveryLoopAndNamesWhatIsMissing)
{
    define("alpha");
    define("bravo").isMade = false;
    define("charlie").runs = false;
    build();
    EXPECT_FALSE(registry->terminateAllZoneThread());
    EXPECT_THAT(steps(), ElementsAre("I The mainloop of thread is terminated (thread name : thread-alpha)",
                                     "I The mainloop of thread is terminated (thread name : thread-charlie)",
                                     "E Can not get a zone object"));
    EXPECT_FALSE(registry->getZone("alpha")->isRunning());
    EXPECT_EQ(log.texts().front(), "I Thread is terminated(thread name : thread-alpha, thread id : " +
                                       std::to_string(currentThreadId()) + ")");
}

TEST_F(ZoneContextStepsTest, QuitsEveryLoop)
{
    define("alpha");
    build();
    EXPECT_TRUE(registry->terminateAllZoneThread());
}

TEST_F(ZoneContextStepsTest, LooksAtTheThreadsInTurn)
{
    define("alpha");
    define("bravo").runs = false;
    define("charlie").runs = false;
    build();
    EXPECT_FALSE(registry->isRunningZoneThreads());
    EXPECT_THAT(steps(), ElementsAre("E The thread \"thread-bravo\" is not running yet (2 / 3)"));
}

// Events.

TEST_F(ZoneContextStepsTest, HandsAnEventToItsZone)
{
    define("alpha");
    define("bravo");
    build();
    std::string payload = "payload";
    EXPECT_TRUE(registry->sendEventToZone("bravo", eZONE_EVENT_CHANGE_STATE, FROZEN, payload.data()));
    EXPECT_THAT(steps(), ElementsAre("D sendEvent bravo [6 / 7 / payload] requested : 0",
                                     "I zone event(6) is sent (zone name : bravo)"));
}

TEST_F(ZoneContextStepsTest, KeepsAnEventThatIsNotTaken)
{
    define("alpha").delivers = false;
    build();
    EXPECT_FALSE(registry->sendEventToZone("alpha", eZONE_EVENT_STOP, NONE, nullptr));
    EXPECT_THAT(steps(), ElementsAre("D sendEvent alpha [2 / 0 / -] requested : 0",
                                     "E Failed to send zone event to \"alpha : 2\""));
}

TEST_F(ZoneContextStepsTest, SendsNothingToAThreadThatDoesNotRun)
{
    define("alpha").runs = false;
    build();
    createsNoEvent = true; // comes second
    EXPECT_FALSE(registry->sendEventToZone("alpha", eZONE_EVENT_FREEZE, NONE, nullptr));
    EXPECT_THAT(steps(), ElementsAre("E zone thread is not running (zone name : alpha [event type : 3])"));
}

TEST_F(ZoneContextStepsTest, SendsNothingWithoutAnEvent)
{
    define("alpha");
    build();
    createsNoEvent = true;
    EXPECT_FALSE(registry->sendEventToZone("alpha", eZONE_EVENT_UNFREEZE, NONE, nullptr));
    EXPECT_THAT(steps(), ElementsAre("E Failed to create the zone event(4) (zone name : alpha)"));
}

// Queries.

TEST_F(ZoneContextStepsTest, TakesTheSmallestPidForOne)
{
    define("alpha");
    control.set("containers/alpha/init_pid", "55");
    build();
    registry->getZone("alpha")->initPid = 1;
    EXPECT_EQ(registry->getZoneInitPID("alpha"), 1);
    registry->getZone("alpha")->initPid = 0;
    EXPECT_EQ(registry->getZoneInitPID("alpha"), 55);
}

TEST_F(ZoneContextStepsTest, EachFlagIsItsOwn)
{
    define("alpha");
    build();
    Zone* zone = registry->getZone("alpha");
    EXPECT_FALSE(registry->zoneRestartFlag("alpha"));
    EXPECT_EQ(registry->zoneOperationType("alpha"), ZUP::ZONE_OPERATION_NONE);
    zone->restartFlag = true;
    zone->operationType = ZUP::ZONE_OPERATION_UNFREEZE;
    EXPECT_TRUE(registry->zoneRestartFlag("alpha"));
    EXPECT_EQ(registry->zoneOperationType("alpha"), ZUP::ZONE_OPERATION_UNFREEZE);
    registry->setZoneRestartFlag("alpha", false);
    EXPECT_FALSE(zone->restartFlag.load());
    EXPECT_FALSE(zone->autoStartRequested.load());
}

// The automatic start.

TEST_F(ZoneContextStepsTest, MarksAZoneBeforeItIsAskedToStart)
{
    define("alpha").autoStart = true;
    define("bravo").autoStart = true;
    build();
    EXPECT_TRUE(registry->startAutoStartZones());
    EXPECT_THAT(steps(), ElementsAre(PASS_BEGINS, checking("alpha", "0 / 1 / NONE"), "D checkAutoStart alpha",
                                     "D sendEvent alpha [1 / 0 / -] requested : 1",
                                     "I zone event(1) is sent (zone name : alpha)", PASS_ENDS));
    EXPECT_TRUE(registry->getZone("alpha")->autoStartRequested.load());
}

TEST_F(ZoneContextStepsTest, TakesTheMarkBackWhenTheRequestIsNotTaken)
{
    define("alpha");
    Script& bravo = define("bravo");
    bravo.autoStart = true;
    bravo.delivers = false;
    define("charlie").autoStart = true;
    build();
    EXPECT_FALSE(registry->startAutoStartZones());
    EXPECT_THAT(steps(),
                ElementsAre(PASS_BEGINS, checking("alpha", "0 / 0 / NONE"), checking("bravo", "0 / 1 / NONE"),
                            "D checkAutoStart bravo", "D sendEvent bravo [1 / 0 / -] requested : 1",
                            "E Failed to send zone event to \"bravo : 1\"",
                            "E Failed to send eZONE_EVENT_START(auto start) event to \"bravo\" (2 / 3)",
                            PASS_ENDS));
    EXPECT_FALSE(registry->getZone("bravo")->autoStartRequested.load());
    EXPECT_FALSE(registry->getZone("charlie")->autoStartRequested.load());
}

TEST_F(ZoneContextStepsTest, PassesOverAZoneWhoseKindForbidsIt)
{
    Script& alpha = define("alpha");
    alpha.autoStart = true;
    alpha.permitsAutoStart = false;
    define("bravo").autoStart = true;
    build();
    EXPECT_TRUE(registry->startAutoStartZones());
    EXPECT_THAT(steps(), ElementsAre(PASS_BEGINS, checking("alpha", "0 / 1 / NONE"), "D checkAutoStart alpha",
                                     checking("bravo", "0 / 1 / NONE"), "D checkAutoStart bravo",
                                     "D sendEvent bravo [1 / 0 / -] requested : 1",
                                     "I zone event(1) is sent (zone name : bravo)", PASS_ENDS));
    EXPECT_FALSE(registry->getZone("alpha")->autoStartRequested.load());
}

TEST_F(ZoneContextStepsTest, DoesNotAskTheKindOfAZoneThatIsNotDue)
{
    define("alpha");
    define("bravo").autoStart = true;
    define("charlie").autoStart = true;
    build();
    registry->getZone("bravo")->state = RUNNING;
    registry->getZone("charlie")->autoStartRequested = true;
    EXPECT_TRUE(registry->startAutoStartZones());
    EXPECT_THAT(steps(), ElementsAre(PASS_BEGINS, checking("alpha", "0 / 0 / NONE"),
                                     checking("bravo", "0 / 1 / RUNNING"),
                                     checking("charlie", "1 / 1 / NONE"), PASS_ENDS));
}

TEST_F(ZoneContextStepsTest, StartsAZoneInAnyStateButRunning)
{
    define("alpha").autoStart = true;
    build();
    Zone* zone = registry->getZone("alpha");
    const std::vector<std::string> words = {"NONE",     "STOPPED",  "STARTING", "RUNNING", "STOPPING",
                                            "ABORTING", "FREEZING", "FROZEN",   "THAWED"};
    for (int state = NONE; state <= THAWED; ++state) {
        zone->state = static_cast<ZoneState>(state);
        zone->autoStartRequested = false;
        log.clear();
        EXPECT_TRUE(registry->startAutoStartZones());
        EXPECT_THAT(steps(), Contains(checking("alpha", "0 / 1 / " + words[static_cast<size_t>(state)])));
        EXPECT_EQ(zone->autoStartRequested.load(), state != RUNNING) << state;
    }
}

TEST_F(ZoneContextStepsTest, GoesOnPastAZoneThatIsMissing)
{
    define("alpha").autoStart = true;
    define("bravo").isMade = false;
    define("charlie").isMade = false;
    build();
    registry->getZone("alpha")->autoStartRequested = true;
    EXPECT_TRUE(registry->startAutoStartZones());
    EXPECT_THAT(steps(), ElementsAre(PASS_BEGINS, checking("alpha", "1 / 1 / NONE"),
                                     "E Can not get a zone object (2 / 3)",
                                     "E Can not get a zone object (3 / 3)", PASS_ENDS));
}
