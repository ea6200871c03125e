#include "ZoneCore/ZoneManager.h"
#include "tests/ZoneCore/EventSeams.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/Failure.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using ZoneTest::atThread;
using ZoneTest::byThread;
using ZoneTest::createsNoEvent;
using ZoneTest::eventually;
using ZoneTest::Failure;
using ZoneTest::FakeLxcControl;
using ZoneTest::IsEvent;
using ZoneTest::LogCapture;
using ZoneTest::ManagerFixture;
using ZoneTest::ownTexts;
using ZoneTest::QueuedEvents;
using ZoneTest::RegistryFixture;

ZONE_TEST_MAY_FAIL(gpointer, g_async_queue_try_pop, (GAsyncQueue * queue), (queue))

namespace {

std::string at(const std::string& text)
{
    return text + atThread("zone-manager");
}

std::string by(const std::string& level, const std::string& text)
{
    return level + " " + byThread("zone-manager") + text;
}

constexpr guint LARGEST_SOURCE_ID = 10000; ///< far beyond what this program makes

/// A manager with a monitor, and two zones of which the second is marked for automatic start.
class ZoneManagerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        control.define("alpha", ZUP::ZONE_TYPE_HYBRID);
        control.define("bravo", ZUP::ZONE_TYPE_HYBRID);
        control.set("containers/bravo/auto", "1");
        manager = std::make_unique<ManagerFixture>();
        manager->setMonitor(ZoneTest::runningMonitor());
        log.clear();
    }
    void TearDown() override
    {
        registry.reset();
        manager.reset();
    }

    void buildRegistry()
    {
        registry = std::make_unique<RegistryFixture>(std::vector<std::string>{"alpha", "bravo"});
        log.clear();
    }
    void stopMonitor() const { manager->setMonitor(new ZoneMonitor); }
    ZoneManager* get() const { return manager->get(); }

    /// What handling one event writes, without the lines around it.
    std::vector<std::string> handle(ZoneEventType type, void* data)
    {
        auto texts = manager->whileRunning(log, [&] {
            EXPECT_TRUE(get()->sendEvent(type, NONE, data));
            log.clear();
        });
        EXPECT_GE(texts.size(), 2U);
        EXPECT_EQ(texts[0], at("I [GSource Name : ZoneManagerEvent] Dispatch the event"));
        EXPECT_EQ(texts[1], at("I Dispatch the event"));
        texts.erase(texts.begin(), texts.begin() + 2);
        return texts;
    }
    /// The manager's own source in the default context.
    [[nodiscard]] static EventSource* eventSource()
    {
        for (guint id = 1; id < LARGEST_SOURCE_ID; ++id) {
            GSource* source = g_main_context_find_source_by_id(nullptr, id);
            if (source != nullptr && g_strcmp0(g_source_get_name(source), "ZoneManagerEvent") == 0) {
                return reinterpret_cast<EventSource*>(source);
            }
        }
        return nullptr;
    }
    /// Dispatches the source once, which it must outlive. @return what that wrote
    std::vector<std::string> dispatch(EventSource* source)
    {
        log.clear();
        EXPECT_TRUE(source->source.source_funcs->dispatch(&source->source, nullptr, nullptr));
        return ownTexts(log);
    }
    /// Ends one zone's thread and waits for it.
    void end(const std::string& name)
    {
        Zone* zone = (*registry)->getZone(name);
        zone->terminate();
        ASSERT_TRUE(eventually([&] { return !zone->isRunning(); }));
        log.clear();
    }

    LogCapture log;
    FakeLxcControl control;
    std::unique_ptr<ManagerFixture> manager;
    std::unique_ptr<RegistryFixture> registry;
};

const std::string GSOURCE_LINE = at("I [GSource Name : ZoneManagerEvent] Dispatch the event");
constexpr const char* MONITOR_STOPPED = "Monitor Thread is not running";

} // namespace

// Life.

TEST(ZoneManagerSingleton, IsMadeOnFirstUse)
{
    LogCapture log;
    auto* first = ZoneManager::singleton();
    EXPECT_EQ(ZoneManager::singleton(), first);
    EXPECT_EQ(first->groupController, nullptr);
    EXPECT_EQ(first->zoneMonitor, nullptr);
    EXPECT_EQ(first->dbusInterface.load(), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("I Thread is created", "I zone manager instance is created",
                                         "I Singletone object of Zone Manager is created..."));
    log.clear();
    ZoneManager::deleteSingleton();
    EXPECT_EQ(log.texts().front(), "I zone manager instance is destroyed");
    EXPECT_THAT(log.texts().back(), HasSubstr("Thread is destroyed"));
}

TEST_F(ZoneManagerTest, ReplacesItsEventSource)
{
    EXPECT_TRUE(get()->attachEventSource());
    const std::string where =
        "(thread name : zone-manager, thread id : " + std::to_string(currentThreadId()) + ")";
    EXPECT_THAT(log.texts(), ElementsAre("W [ZoneManager] event source is already created" + where,
                                         "I release the event source from the main context" + where));
    // One source is left: an event is handled once.
    EXPECT_THAT(handle(eZONE_EVENT_START, nullptr), ElementsAre(at("E event type is invalid")));
}

// Sending.

TEST_F(ZoneManagerTest, TakesNoEventBeforeItsLoopRuns)
{
    EXPECT_FALSE(get()->sendEvent(eZONE_EVENT_CHECK_AUTO_START, NONE, nullptr));
    EXPECT_THAT(log.texts(), ElementsAre(by("E", "ZoneManager is not running")));
}

TEST_F(ZoneManagerTest, ReportsAQueueThatIsMissing)
{
    get()->destroyEventQueue();
    std::string payload = "alpha"; // stays the caller's
    const auto texts = manager->whileRunning(
        log, [&] { EXPECT_FALSE(get()->sendEvent(eZONE_EVENT_RESTART, NONE, &payload)); });
    EXPECT_THAT(texts, ElementsAre(HasSubstr("The event queue is not created"),
                                   by("E", "Failed to send the zone event(7) for ZoneManager")));
}

TEST_F(ZoneManagerTest, TellsThatAnEventIsQueued)
{
    std::vector<std::string> texts;
    static_cast<void>(manager->whileRunning(log, [&] {
        EXPECT_TRUE(get()->sendEvent(eZONE_EVENT_WATCHDOG, NONE, nullptr));
        texts = ownTexts(log);
    }));
    EXPECT_THAT(texts, ElementsAre(HasSubstr("the zone event is sent to zone-manager thread"),
                                   by("I", "zone event(9) is sent to Zone Manager")));
}

TEST_F(ZoneManagerTest, QueuesAnEventAsItIs)
{
    std::string payload = "alpha";
    const QueuedEvents queued;
    static_cast<void>(manager->whileRunning(
        log, [&] { EXPECT_TRUE(get()->sendEvent(eZONE_EVENT_START, FROZEN, &payload)); }));
    EXPECT_THAT(queued.events, ElementsAre(IsEvent(eZONE_EVENT_START, FROZEN, &payload)));
}

TEST_F(ZoneManagerTest, ReportsAnEventThatCannotBeMade)
{
    const auto texts = manager->whileRunning(log, [&] {
        createsNoEvent = true;
        EXPECT_FALSE(get()->sendEvent(eZONE_EVENT_CHECK_AUTO_START, NONE, nullptr));
        createsNoEvent = false;
    });
    EXPECT_THAT(texts, ElementsAre(by("E", "Failed to create the zone event(8) for ZoneManager")));
}

// Its event source.

TEST_F(ZoneManagerTest, LooksAtItsQueueEveryFiveSeconds)
{
    EventSource* source = eventSource();
    ASSERT_NE(source, nullptr);
    const auto expectReady = [&](bool ready) {
        gint timeout = 0;
        EXPECT_EQ(source->source.source_funcs->prepare(&source->source, &timeout) != FALSE, ready);
        EXPECT_EQ(timeout, 5000);
    };
    EXPECT_EQ(source->source.source_funcs->check, nullptr);
    static_cast<void>(manager->whileRunning(log, [&] {
        expectReady(false);
        EXPECT_TRUE(get()->sendEvent(eZONE_EVENT_START, NONE, nullptr));
        expectReady(true);
        source->owner = nullptr;
        expectReady(false);
        source->owner = get();
    }));
    get()->destroyEventQueue();
    expectReady(false);
    gint timeout = 0;
    EXPECT_FALSE(source->source.source_funcs->prepare(nullptr, &timeout));
    EXPECT_EQ(timeout, 5000);
}

TEST_F(ZoneManagerTest, DispatchesOneEventAtATime)
{
    EventSource* source = eventSource();
    ASSERT_NE(source, nullptr);
    static_cast<void>(manager->whileRunning(log, [&] {
        EXPECT_TRUE(get()->sendEvent(eZONE_EVENT_RESTART, NONE, nullptr));
        EXPECT_TRUE(get()->sendEvent(eZONE_EVENT_START, NONE, nullptr));
        EXPECT_THAT(dispatch(source), ElementsAre(GSOURCE_LINE, at("I Dispatch the event"),
                                                  at("I receive the event - ZONE RESTART"),
                                                  at("I event object(zonename) is null")));
        EXPECT_THAT(dispatch(source),
                    ElementsAre(GSOURCE_LINE, at("I Dispatch the event"), at("E event type is invalid")));
        EXPECT_THAT(dispatch(source), IsEmpty());
    }));
}

TEST_F(ZoneManagerTest, DispatchesNothingThatIsNotThere)
{
    EventSource* source = eventSource();
    ASSERT_NE(source, nullptr);
    static_cast<void>(manager->whileRunning(log, [&] {
        EXPECT_TRUE(get()->sendEvent(eZONE_EVENT_START, NONE, nullptr));
        source->owner = nullptr;
        EXPECT_THAT(dispatch(source), IsEmpty());
        source->owner = get();
        const Failure failure("g_async_queue_try_pop"); // somebody was quicker
        EXPECT_THAT(dispatch(source), ElementsAre(GSOURCE_LINE));
    }));
    get()->destroyEventQueue();
    EXPECT_THAT(dispatch(source), IsEmpty());
    EXPECT_TRUE(source->source.source_funcs->dispatch(nullptr, nullptr, nullptr));
    EXPECT_THAT(log.texts(), IsEmpty());
}

// Events.

TEST_F(ZoneManagerTest, DropsARestartWithoutAName)
{
    EXPECT_THAT(handle(eZONE_EVENT_RESTART, nullptr), ElementsAre(at("I receive the event - ZONE RESTART"),
                                                                  at("I event object(zonename) is null")));
}

TEST_F(ZoneManagerTest, RestartsAZone)
{
    buildRegistry();
    EXPECT_THAT(
        handle(eZONE_EVENT_RESTART, new std::string("alpha")),
        ElementsAre(at("I receive the event - ZONE RESTART"), HasSubstr("the zone event is sent to alpha"),
                    "I zone event(1) is sent (zone name : alpha)", at("I Restart event for alpha is sent")));
}

TEST_F(ZoneManagerTest, ReportsARestartThatFails)
{
    buildRegistry();
    EXPECT_THAT(handle(eZONE_EVENT_RESTART, new std::string("nobody")),
                ElementsAre(at("I receive the event - ZONE RESTART"), "I There is no \"nobody\" object",
                            "E Can not find zone object (zone name : nobody)",
                            by("E", "Failed to send start event for zone(nobody)"),
                            at("E Failed to start nobody")));
}

TEST_F(ZoneManagerTest, ChecksTheAutomaticStart)
{
    buildRegistry();
    EXPECT_THAT(
        handle(eZONE_EVENT_CHECK_AUTO_START, nullptr),
        ElementsAre(
            at("I receive the event - CHECK AUTO START ZONE"), "I ZoneContainerState instance is created",
            "I Checking auto start zone for \"alpha\" - 0 / 0 / NONE",
            "I Checking auto start zone for \"bravo\" - 0 / 1 / NONE", HasSubstr("Auto start is permitted"),
            HasSubstr("the zone event is sent to bravo"), "I zone event(1) is sent (zone name : bravo)",
            "I ZoneContainerState instance is destroyed", at("I Requested to check auto start zone")));
    EXPECT_TRUE((*registry)->getZone("bravo")->autoStartRequested.load());
}

TEST_F(ZoneManagerTest, ReportsACheckThatFails)
{
    stopMonitor();
    EXPECT_THAT(handle(eZONE_EVENT_CHECK_AUTO_START, nullptr),
                ElementsAre(at("I receive the event - CHECK AUTO START ZONE"), by("E", MONITOR_STOPPED),
                            at("E Failed to request to check auto start zone")));
}

TEST_F(ZoneManagerTest, DropsAnUnknownKind)
{
    for (const ZoneEventType type : {eZONE_EVENT_START, eZONE_EVENT_CHANGE_STATE, eZONE_EVENT_WATCHDOG}) {
        EXPECT_THAT(handle(type, nullptr), ElementsAre(at("E event type is invalid")));
    }
}

// Requests.

TEST_F(ZoneManagerTest, AsksNothingWhileNobodyListens)
{
    buildRegistry();
    stopMonitor();
    log.clear();
    const QueuedEvents queued;
    ZUP::LXCAttachCommand command{};
    EXPECT_FALSE(get()->startZone("alpha"));
    EXPECT_FALSE(get()->stopZone("alpha"));
    EXPECT_FALSE(get()->unfreezeZone("alpha"));
    EXPECT_FALSE(get()->zoneAttach("alpha", &command));
    EXPECT_TRUE(queued.events.empty());
    const std::string line = by("E", std::string(MONITOR_STOPPED) + "(target zone : alpha)");
    EXPECT_THAT(ownTexts(log), ElementsAre(line, line, line, line));
    log.clear();
    EXPECT_FALSE(get()->startAutoStartZones());
    EXPECT_THAT(ownTexts(log), ElementsAre(by("E", MONITOR_STOPPED)));
}

TEST_F(ZoneManagerTest, QueuesRequests)
{
    buildRegistry();
    ZUP::LXCAttachCommand command{};
    const auto expectSent = [this](int type) {
        EXPECT_THAT(ownTexts(log),
                    ElementsAre(HasSubstr("the zone event is sent to alpha"),
                                "I zone event(" + std::to_string(type) + ") is sent (zone name : alpha)"));
        log.clear();
    };
    const QueuedEvents queued;
    EXPECT_TRUE(get()->startZone("alpha"));
    expectSent(1);
    EXPECT_TRUE(get()->stopZone("alpha"));
    expectSent(2);
    EXPECT_TRUE(get()->unfreezeZone("alpha"));
    expectSent(4);
    EXPECT_TRUE(get()->zoneAttach("alpha", &command));
    expectSent(5);
    EXPECT_THAT(queued.events, ElementsAre(IsEvent(eZONE_EVENT_START, NONE, nullptr),
                                           IsEvent(eZONE_EVENT_STOP, NONE, nullptr),
                                           IsEvent(eZONE_EVENT_UNFREEZE, NONE, nullptr),
                                           IsEvent(eZONE_EVENT_ATTACH, NONE, static_cast<void*>(&command))));
}

TEST_F(ZoneManagerTest, ReportsRequestsThatAreNotDelivered)
{
    buildRegistry();
    end("alpha");
    ZUP::LXCAttachCommand command{};
    const auto expectFailed = [this](const std::string& word) {
        EXPECT_EQ(ownTexts(log).back(), by("E", "Failed to send " + word + " event for zone(alpha)"));
        log.clear();
    };
    EXPECT_FALSE(get()->startZone("alpha"));
    expectFailed("start");
    EXPECT_FALSE(get()->stopZone("alpha"));
    expectFailed("stop");
    EXPECT_FALSE(get()->unfreezeZone("alpha"));
    expectFailed("unfreeze");
    EXPECT_FALSE(get()->zoneAttach("alpha", &command));
    expectFailed("attach");
}

// The start-up timer.

TEST_F(ZoneManagerTest, ChecksAgainWithoutAManager)
{
    EXPECT_TRUE(ZoneManager::threadRunningCheckCallback(nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("E [Main Thread] ZoneManager is null"));
}

TEST_F(ZoneManagerTest, ChecksAgainUntilTheMonitorRuns)
{
    buildRegistry();
    end("alpha"); // nobody looks
    stopMonitor();
    log.clear();
    EXPECT_TRUE(ZoneManager::threadRunningCheckCallback(get()));
    EXPECT_THAT(ownTexts(log), ElementsAre(at("I [Main Thread] ZoneMonitor thread is not initialized yet")));
}

TEST_F(ZoneManagerTest, ChecksAgainUntilEveryZoneThreadRuns)
{
    buildRegistry();
    end("alpha");
    for (int tick = 0; tick < 2; ++tick) {
        log.clear();
        EXPECT_TRUE(ZoneManager::threadRunningCheckCallback(get()));
        EXPECT_THAT(ownTexts(log), ElementsAre("E The thread \"alpha\" is not running yet (1 / 2)",
                                               at("I [Main Thread] Zone Threads are not initialized yet")));
    }
    EXPECT_FALSE((*registry)->getZone("bravo")->autoStartRequested.load());
}

TEST_F(ZoneManagerTest, EndsTheCheckWithTheFirstSuccessfulPass)
{
    control.set("containers/alpha/auto", "1");
    buildRegistry();
    EXPECT_FALSE(ZoneManager::threadRunningCheckCallback(get()));
    EXPECT_EQ(ownTexts(log).back(), at("I [Main Thread] thread running check timer is terminated"));
    EXPECT_TRUE((*registry)->getZone("alpha")->autoStartRequested.load());
    EXPECT_FALSE((*registry)->getZone("bravo")->autoStartRequested.load());
    // The second comes up when the first has reported that it runs.
    static_cast<void>(handle(eZONE_EVENT_CHECK_AUTO_START, nullptr));
    EXPECT_TRUE((*registry)->getZone("bravo")->autoStartRequested.load());
}

TEST_F(ZoneManagerTest, ChecksAgainAfterAPassThatFailed)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer cannot see that the zone's thread waits for its launcher";
#endif
    // A thread that runs but has no queue any more. It does not look at the queue while its launcher runs.
    control.set("containers/bravo/start", "wait go");
    buildRegistry();
    Zone* zone = (*registry)->getZone("bravo");
    EXPECT_TRUE(get()->startZone("bravo"));
    ASSERT_TRUE(eventually([&] { return control.launches() == 1; }));
    zone->destroyEventQueue();
    log.clear();
    EXPECT_TRUE(ZoneManager::threadRunningCheckCallback(get()));
    const auto texts = ownTexts(log);
    ASSERT_GE(texts.size(), 5U);
    EXPECT_THAT(std::vector<std::string>(texts.end() - 5, texts.end()),
                ElementsAre(HasSubstr("The event queue is not created"),
                            "E Failed to send zone event to \"bravo : 1\"",
                            "E Failed to send eZONE_EVENT_START(auto start) event to \"bravo\" (2 / 2)",
                            "I ZoneContainerState instance is destroyed",
                            at("E [Main Thread] Failed to start Default Zones")));
    EXPECT_FALSE(zone->autoStartRequested.load());
    control.set("go");
}

// The end.

TEST_F(ZoneManagerTest, EndsEveryLoop)
{
    buildRegistry();
    const auto texts = manager->whileRunning(log, [&] { get()->terminateMainloop(); });
    EXPECT_THAT(ownTexts(log), Contains("I The mainloop of thread is terminated (thread name : alpha)"));
    EXPECT_THAT(ownTexts(log), Contains("I The mainloop of thread is terminated (thread name : bravo)"));
    EXPECT_THAT(ownTexts(log), Contains(by("I", "The mainloop of thread zone-manager is terminated")));
    EXPECT_FALSE(get()->zoneMonitor->isRunning());
    EXPECT_FALSE(get()->isRunning());
    EXPECT_THAT(texts, IsEmpty()); // nothing is dispatched any more
}

TEST_F(ZoneManagerTest, DoesNotRunWithoutALoop)
{
    manager.reset();
    auto* bare = ZoneManager::singleton();
    log.clear();
    EXPECT_FALSE(bare->run());
    EXPECT_THAT(log.texts(), ElementsAre("E [:" + std::to_string(currentThreadId()) +
                                         "] the main loop of main thread is invalid"));
    ZoneManager::deleteSingleton();
}

TEST_F(ZoneManagerTest, HasNothingToDestroyWithoutAMonitor)
{
    manager->setMonitor(nullptr);
    log.clear();
    EXPECT_TRUE(get()->closeMonitorGate());
    get()->destroyZoneMonitor();
    EXPECT_THAT(log.texts(), IsEmpty());
}
