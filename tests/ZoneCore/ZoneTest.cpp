#include "ZoneCore/Zone.h"
#include "ZoneCore/ZoneMonitor.h"
#include "tests/ZoneCore/ZoneFixtures.h"

#include <gtest/gtest.h>
#include <lxc/lxccontainer.h>

#include <memory>
#include <string>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using ZoneTest::atThread;
using ZoneTest::Driven;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;
using ZoneTest::ManagerFixture;

namespace {

constexpr const char* NAME = "alpha";
/// The thread has another name than the zone, so that no message can mix them up.
constexpr const char* THREAD = "thread-alpha";

/// A zone with a container of the fake liblxc, whose events are dispatched by the test.
class ZoneTestCase : public testing::Test
{
protected:
    void SetUp() override
    {
        control.define(NAME, 2);
        zone = std::make_unique<Driven<Zone>>();
        zone->zoneName = NAME;
        zone->container->setHandle(lxc_container_new(NAME, ZoneTest::BASE_PATH));
        zone->setUp(THREAD);
        log.clear();
    }
    void TearDown() override
    {
        if (zone != nullptr) {
            zone->destroyEventQueue();
        }
    }

    /// Queues an event and dispatches it.
    /// @return what the handler wrote, without the lines around it
    std::vector<std::string> handle(ZoneEventType type, ZoneState state = NONE)
    {
        EXPECT_TRUE(zone->sendEvent(Thread::createZoneEvent(type, state, nullptr)));
        log.clear();
        EXPECT_EQ(zone->drain(), 1);
        auto texts = log.texts();
        EXPECT_GE(texts.size(), 2U);
        texts.erase(texts.begin(), texts.begin() + 2);
        return texts;
    }
    void container(const std::string& file, const std::string& value = "") const
    {
        control.set(std::string("containers/") + NAME + "/" + file, value);
    }
    [[nodiscard]] bool called(const std::string& function) const
    {
        for (const std::string& call : control.calls()) {
            if (call.rfind(function + " ", 0) == 0) {
                return true;
            }
        }
        return false;
    }

    LogCapture log;
    FakeLxcControl control;
    std::unique_ptr<Driven<Zone>> zone;
};

/// A message of the zone's thread, which is the test's own here.
std::string at(const std::string& text)
{
    return text + atThread(THREAD);
}

std::string releaseLine()
{
    return "I release the event source from the main context(thread name : " + std::string(THREAD) +
           ", thread id : " + std::to_string(currentThreadId()) + ")";
}

std::string timerLine()
{
    return "I Timer Source Count : 0(thread name : " + std::string(THREAD) +
           ", thread id : " + std::to_string(currentThreadId()) + ")";
}

} // namespace

// Life.

TEST_F(ZoneTestCase, StartsEmpty)
{
    log.clear();
    const Zone fresh;
    EXPECT_THAT(log.texts(), ElementsAre("I Thread is created", "I Zone object is created"));
    EXPECT_EQ(fresh.initPid.load(), 0);
    EXPECT_EQ(fresh.zoneName, "");
    EXPECT_EQ(fresh.basePath, "");
    EXPECT_EQ(fresh.rootfsPath, "");
    EXPECT_FALSE(fresh.autoStart);
    EXPECT_FALSE(fresh.autoStartRequested.load());
    EXPECT_FALSE(fresh.restartFlag.load());
    EXPECT_EQ(fresh.operationType.load(), ZUP::ZONE_OPERATION_NONE);
    EXPECT_EQ(fresh.state.load(), NONE);
    EXPECT_EQ(fresh.watcherTimerId, 0U);
    ASSERT_NE(fresh.container, nullptr);
    EXPECT_EQ(fresh.container->getHandle(), nullptr);
}

TEST_F(ZoneTestCase, IsOfNoKindAndPermitsEverything)
{
    zone->setZoneType(ZUP::ZONE_TYPE_HYBRID);
    EXPECT_EQ(zone->getZoneType(), ZUP::ZONE_TYPE_NONE);
    EXPECT_TRUE(zone->checkZoneSmackLabel());
    EXPECT_TRUE(zone->checkROZoneSmackLabel("/nowhere", "!"));
    EXPECT_TRUE(zone->checkRWZoneSmackLabel("/nowhere", "!"));
    EXPECT_TRUE(zone->checkAutoStart());
}

TEST_F(ZoneTestCase, EndsWithItsWatcherThenItsContainer)
{
    container("init_pid", "77");
    static_cast<void>(handle(eZONE_EVENT_CHANGE_STATE, RUNNING));
    ASSERT_NE(zone->watcherTimerId, 0U);
    zone->destroyEventQueue();
    log.clear();
    zone.reset();
    const auto texts = log.texts();
    ASSERT_GE(texts.size(), 4U);
    EXPECT_THAT(std::vector<std::string>(texts.begin(), texts.begin() + 4),
                ElementsAre(releaseLine(), "I thread count of container...[1]",
                            "I Container object is destroyed...",
                            "I Zone object is destroyed(zone name : alpha)"));
    EXPECT_THAT(texts.back(), HasSubstr("Thread is destroyed"));
    EXPECT_EQ(control.calls().back(), "lxc_container_put alpha 0 -");
}

TEST_F(ZoneTestCase, NamesItsEventSource)
{
    EXPECT_STREQ(g_source_get_name(zone->source()), "ZoneEvent");
    EXPECT_EQ(g_source_get_context(zone->source()), zone->context());
}

TEST_F(ZoneTestCase, ReplacesItsEventSource)
{
    GSource* first = g_source_ref(zone->source());
    EXPECT_TRUE(zone->attachEventSource());
    EXPECT_THAT(log.texts(),
                ElementsAre("W [Zone] event source is already created(thread name : " + std::string(THREAD) +
                                ", thread id : " + std::to_string(currentThreadId()) + ")",
                            releaseLine()));
    EXPECT_TRUE(g_source_is_destroyed(first));
    g_source_unref(first);
    EXPECT_FALSE(g_source_is_destroyed(zone->source()));
}

// Prepare.

TEST_F(ZoneTestCase, AsksForAPollEveryThreeSeconds)
{
    gint timeout = 0;
    EXPECT_FALSE(Zone::prepareCallback(zone->source(), &timeout));
    EXPECT_EQ(timeout, 3000);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ZoneTestCase, IsReadyWhileAnEventWaits)
{
    EXPECT_TRUE(zone->sendEvent(Thread::createZoneEvent(eZONE_EVENT_ATTACH, NONE, nullptr)));
    gint timeout = 0;
    EXPECT_TRUE(Zone::prepareCallback(zone->source(), &timeout));
    EXPECT_EQ(timeout, 3000);
    zone->drain();
}

TEST_F(ZoneTestCase, PollsFastUntilItsAutomaticStartWasRequested)
{
    zone->autoStart = true;
    gint timeout = 0;
    EXPECT_FALSE(Zone::prepareCallback(zone->source(), &timeout));
    EXPECT_EQ(timeout, 200);
    zone->autoStartRequested = true;
    EXPECT_FALSE(Zone::prepareCallback(zone->source(), &timeout));
    EXPECT_EQ(timeout, 3000);
}

TEST_F(ZoneTestCase, WritesTheNotStartedLineOnEveryFifthCallOfAnyZone)
{
    zone->autoStart = true;
    Driven<Zone> other;
    other.autoStart = true;
    other.setUp("thread-other");
    log.clear();
    gint timeout = 0;
    for (int call = 0; call < 10; ++call) {
        static_cast<void>(Zone::prepareCallback(zone->source(), &timeout));
        static_cast<void>(Zone::prepareCallback(other.source(), &timeout));
    }
    other.destroyEventQueue();
    const std::string beginning =
        "I Auto start zone is not started yet. the timeout of prepare callback is set to 200 "
        "miliseconds(thread name : thread-";
    std::vector<int> counts;
    for (const std::string& text : log.texts()) {
        if (text.rfind(beginning, 0) == 0) {
            EXPECT_THAT(text, HasSubstr(", tid : " + std::to_string(currentThreadId()) + ")["));
            counts.push_back(std::stoi(text.substr(text.rfind('[') + 1)));
        }
    }
    ASSERT_EQ(counts.size(), 4U);
    EXPECT_EQ(counts[0] % 5, 0);
    EXPECT_THAT(counts, ElementsAre(counts[0], counts[0] + 5, counts[0] + 10, counts[0] + 15));
}

TEST_F(ZoneTestCase, ReportsASourceWithoutAZone)
{
    const std::string line = "E prepare callback event error. set timeout to 5000 miliseconds";
    EventSource record{};
    for (GSource* source : {static_cast<GSource*>(nullptr), &record.source}) {
        log.clear();
        gint timeout = 0;
        EXPECT_FALSE(Zone::prepareCallback(source, &timeout));
        EXPECT_EQ(timeout, 5000);
        EXPECT_THAT(log.texts(), ElementsAre(line));
    }
}

TEST_F(ZoneTestCase, ReportsAZoneWithoutAQueue)
{
    zone->destroyEventQueue();
    log.clear();
    gint timeout = 0;
    EXPECT_FALSE(Zone::prepareCallback(zone->source(), &timeout));
    EXPECT_EQ(timeout, 5000);
    EXPECT_THAT(log.texts(), ElementsAre("E prepare callback event error. set timeout to 5000 miliseconds"));
}

// Dispatch.

TEST_F(ZoneTestCase, DispatchesOneEventAtATime)
{
    EXPECT_TRUE(zone->sendEvent(Thread::createZoneEvent(eZONE_EVENT_CHANGE_STATE, STARTING, nullptr)));
    EXPECT_TRUE(zone->sendEvent(Thread::createZoneEvent(eZONE_EVENT_CHANGE_STATE, STOPPING, nullptr)));
    log.clear();
    EXPECT_TRUE(g_main_context_iteration(zone->context(), FALSE));
    EXPECT_EQ(zone->state.load(), STARTING);
    EXPECT_THAT(log.texts(),
                ElementsAre(at("I [GSource Name : ZoneEvent] Dispatch the event"), at("I Dispatch the event"),
                            at("I receive the event - ZONE CHANGE STATE[2] ")));
    EXPECT_TRUE(g_main_context_iteration(zone->context(), FALSE));
    EXPECT_EQ(zone->state.load(), STOPPING);
    EXPECT_EQ(zone->drain(), 0);
}

TEST_F(ZoneTestCase, DropsAnUnknownKindAndGoesOn)
{
    for (const ZoneEventType type :
         {eZONE_EVENT_RESTART, eZONE_EVENT_CHECK_AUTO_START, eZONE_EVENT_WATCHDOG}) {
        EXPECT_THAT(handle(type), ElementsAre(at("E event type is invalid")));
    }
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, STARTING),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[2] ")));
}

TEST_F(ZoneTestCase, IgnoresADispatchWithoutAnEvent)
{
    EXPECT_TRUE(Zone::dispatchCallback(nullptr, nullptr, nullptr));
    EXPECT_TRUE(Zone::dispatchCallback(zone->source(), nullptr, nullptr));
    EXPECT_THAT(log.texts(), IsEmpty());
}

// START.

TEST_F(ZoneTestCase, StartsTheContainer)
{
    zone->restartFlag = true;
    zone->state = FROZEN; // anything but RUNNING
    EXPECT_THAT(handle(eZONE_EVENT_START),
                ElementsAre(at("I receive the event - ZONE START"), at("I alpha is started successfully")));
    EXPECT_EQ(control.launches(), 1U);
    EXPECT_FALSE(zone->restartFlag.load());
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_START);
    EXPECT_EQ(zone->state.load(), FROZEN); // the monitor's business
    EXPECT_FALSE(called("may_control"));
}

TEST_F(ZoneTestCase, DoesNotStartARunningZone)
{
    zone->restartFlag = true;
    zone->state = RUNNING;
    EXPECT_THAT(handle(eZONE_EVENT_START),
                ElementsAre(at("I receive the event - ZONE START"), at("W alpha is already running")));
    EXPECT_EQ(control.launches(), 0U);
    EXPECT_TRUE(zone->restartFlag.load());
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_NONE);
}

TEST_F(ZoneTestCase, AsksNobodyAfterAFailedStartOnRequest)
{
    const ManagerFixture manager;
    container("start", "exit 0");
    zone->restartFlag = true;
    std::vector<std::string> texts;
    const auto all = manager.whileRunning(log, [&] { texts = handle(eZONE_EVENT_START); });
    EXPECT_THAT(texts, ElementsAre(at("I receive the event - ZONE START"), at("F Failed to start alpha")));
    EXPECT_TRUE(zone->restartFlag.load());
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_NONE);
    EXPECT_THAT(all, Not(Contains(HasSubstr("is sent to Zone Manager"))));
}

TEST_F(ZoneTestCase, AsksTheManagerOnceAfterAFailedAutomaticStart)
{
    const ManagerFixture manager;
    manager.setMonitor(new ZoneMonitor); // does not run, so the manager goes no further
    container("start", "exit 0");
    zone->autoStartRequested = true;
    std::vector<std::string> texts;
    const auto after = manager.whileRunning(log, [&] {
        texts = handle(eZONE_EVENT_START);
        log.clear();
    });
    EXPECT_THAT(texts, Contains(at("F Failed to start alpha")));
    EXPECT_THAT(texts,
                Contains("I " + ZoneTest::byThread("zone-manager") + "zone event(7) is sent to Zone Manager")
                    .Times(1));
    EXPECT_THAT(after, ElementsAre("I [GSource Name : ZoneManagerEvent] Dispatch the event" +
                                       atThread("zone-manager"),
                                   "I Dispatch the event" + atThread("zone-manager"),
                                   "I receive the event - ZONE RESTART" + atThread("zone-manager"),
                                   "E " + ZoneTest::byThread("zone-manager") +
                                       "Monitor Thread is not running(target zone : alpha)",
                                   "E Failed to start alpha" + atThread("zone-manager")));
}

TEST_F(ZoneTestCase, ReportsAManagerThatTakesNoRestart)
{
    const ManagerFixture manager; // its loop does not run
    container("start", "exit 0");
    zone->autoStartRequested = true;
    const auto texts = handle(eZONE_EVENT_START);
    ASSERT_EQ(texts.size(), 4U);
    EXPECT_EQ(texts[1], at("F Failed to start alpha"));
    EXPECT_EQ(texts[2], "E " + ZoneTest::byThread("zone-manager") + "ZoneManager is not running");
    EXPECT_THAT(texts[3],
                testing::MatchesRegex(
                    "E \\[Zone\\.cpp:[0-9]+\\] Failed to send restart event\\[zone name : alpha\\]"));
}

// STOP.

TEST_F(ZoneTestCase, StopsTheContainer)
{
    container("state", "RUNNING");
    container("running", "1");
    zone->restartFlag = true;
    EXPECT_THAT(handle(eZONE_EVENT_STOP),
                ElementsAre(at("I receive the event - ZONE STOP"), at("I alpha is stopped successfully")));
    EXPECT_EQ(control.launches(), 1U);
    EXPECT_FALSE(zone->restartFlag.load());
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_STOP);
}

TEST_F(ZoneTestCase, RecordsTheStopBeforeItHappens)
{
    // The second question comes after the launcher.
    static std::vector<ZUP::ZoneOperationType> seen;
    static Zone* observed = nullptr;
    seen.clear();
    observed = zone.get();
    zone->operationType = ZUP::ZONE_OPERATION_START;
    zone->container->getHandle()->is_running = [](lxc_container*) {
        seen.push_back(observed->operationType.load());
        return seen.size() == 1;
    };
    static_cast<void>(handle(eZONE_EVENT_STOP));
    EXPECT_THAT(seen, ElementsAre(ZUP::ZONE_OPERATION_START, ZUP::ZONE_OPERATION_STOP));
}

TEST_F(ZoneTestCase, ForgetsAStopThatFailed)
{
    container("running", "1");
    container("stop", "exit 0");
    zone->restartFlag = true;
    zone->operationType = ZUP::ZONE_OPERATION_START;
    EXPECT_THAT(handle(eZONE_EVENT_STOP),
                ElementsAre(at("I receive the event - ZONE STOP"), at("E Failed to stop alpha")));
    EXPECT_TRUE(zone->restartFlag.load());
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_NONE);
}

TEST_F(ZoneTestCase, DoesNotStopAZoneThatDoesNotRun)
{
    container("running", "0");
    zone->operationType = ZUP::ZONE_OPERATION_START;
    EXPECT_THAT(handle(eZONE_EVENT_STOP),
                ElementsAre(at("I receive the event - ZONE STOP"), at("I alpha is not running")));
    EXPECT_EQ(control.launches(), 0U);
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_START);
}

// FREEZE and UNFREEZE.

TEST_F(ZoneTestCase, RefusesWhatItMayNotControl)
{
    container("may_control", "0");
    container("running", "1");
    container("state", "FROZEN");
    EXPECT_THAT(handle(eZONE_EVENT_STOP),
                ElementsAre(at("I receive the event - ZONE STOP"), at("I alpha is not controlled")));
    EXPECT_THAT(handle(eZONE_EVENT_FREEZE),
                ElementsAre(at("I receive the event - ZONE FREEZE"), at("I alpha is not controlled")));
    EXPECT_THAT(handle(eZONE_EVENT_UNFREEZE),
                ElementsAre(at("I receive the event - ZONE UNFREEZE"), at("I alpha is not controlled")));
    EXPECT_FALSE(called("state"));
    EXPECT_FALSE(called("is_running"));
    EXPECT_EQ(control.launches(), 0U);
}

TEST_F(ZoneTestCase, Freezes)
{
    container("state", "RUNNING");
    const auto texts = handle(eZONE_EVENT_FREEZE);
    EXPECT_EQ(texts.front(), at("I receive the event - ZONE FREEZE"));
    EXPECT_EQ(texts.back(), at("I alpha is freezed successfully"));
    EXPECT_TRUE(called("freeze"));
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_FREEZE);
}

TEST_F(ZoneTestCase, ReportsAFailedFreeze)
{
    container("state", "RUNNING");
    container("freeze_fails");
    EXPECT_EQ(handle(eZONE_EVENT_FREEZE).back(), at("E Failed to freeze alpha"));
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_NONE);
}

TEST_F(ZoneTestCase, DoesNotFreezeAgain)
{
    for (const char* word : {"FREEZING", "FROZEN"}) {
        container("state", word);
        const auto texts = handle(eZONE_EVENT_FREEZE);
        EXPECT_THAT(texts, ElementsAre(at("I receive the event - ZONE FREEZE"),
                                       "I The state of zone is received - \"" + std::string(word) + "\"",
                                       "I ZoneContainerState instance is created",
                                       "I ZoneContainerState instance is destroyed"));
    }
    EXPECT_FALSE(called("freeze"));
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_NONE);
}

TEST_F(ZoneTestCase, Unfreezes)
{
    container("state", "FROZEN");
    const auto texts = handle(eZONE_EVENT_UNFREEZE);
    EXPECT_EQ(texts.front(), at("I receive the event - ZONE UNFREEZE"));
    EXPECT_EQ(texts.back(), at("I alpha is unfreezed successfully"));
    EXPECT_TRUE(called("unfreeze"));
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_UNFREEZE);
}

TEST_F(ZoneTestCase, ReportsAFailedUnfreeze)
{
    container("state", "FROZEN");
    container("unfreeze_fails");
    EXPECT_EQ(handle(eZONE_EVENT_UNFREEZE).back(), at("E Failed to unfreeze alpha"));
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_NONE);
}

TEST_F(ZoneTestCase, UnfreezesAFrozenZoneOnly)
{
    for (const char* word : {"FREEZING", "RUNNING", "STOPPED", "THAWED"}) {
        container("state", word);
        const auto texts = handle(eZONE_EVENT_UNFREEZE);
        EXPECT_EQ(texts.size(), 4U);
        EXPECT_EQ(texts.back(), "I ZoneContainerState instance is destroyed");
    }
    EXPECT_FALSE(called("unfreeze"));
}

// ATTACH.

TEST_F(ZoneTestCase, OnlyLooksWhetherItRunsWhenAttached)
{
    container("running", "1");
    EXPECT_THAT(handle(eZONE_EVENT_ATTACH), ElementsAre(at("I receive the event - ZONE ATTACH")));
    container("running", "0");
    EXPECT_THAT(handle(eZONE_EVENT_ATTACH),
                ElementsAre(at("I receive the event - ZONE ATTACH"), "E Failed to unfreeze zone : alpha"));
    EXPECT_FALSE(called("may_control"));
}

// CHANGE_STATE.

TEST_F(ZoneTestCase, WatchesARunningZone)
{
    container("init_pid", "77");
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[3] "), at("F Now, alpha is running"),
                            at("I The init pid(77) of zone(alpha) is set"), timerLine(),
                            at("I Zone Watcher Is registered[interval : 15000]"),
                            at("I Starting zone watcher timer for checking zone alive")));
    EXPECT_EQ(zone->state.load(), RUNNING);
    EXPECT_EQ(zone->initPid.load(), 77);
    ASSERT_NE(zone->watcherTimerId, 0U);
    EXPECT_NE(g_main_context_find_source_by_id(zone->context(), zone->watcherTimerId), nullptr);
}

TEST_F(ZoneTestCase, ReplacesItsWatcher)
{
    container("init_pid", "77");
    static_cast<void>(handle(eZONE_EVENT_CHANGE_STATE, RUNNING));
    const unsigned first = zone->watcherTimerId;
    container("init_pid", "78");
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[3] "), at("F Now, alpha is running"),
                            at("I The init pid(78) of zone(alpha) is set"),
                            "I Release previous watcher timer source(thread name : " + std::string(THREAD) +
                                ", thread id : " + std::to_string(currentThreadId()) + ", interval : 15000)",
                            releaseLine(), timerLine(), at("I Zone Watcher Is registered[interval : 15000]"),
                            at("I Starting zone watcher timer for checking zone alive")));
    EXPECT_EQ(zone->initPid.load(), 78);
    EXPECT_NE(zone->watcherTimerId, first);
    EXPECT_EQ(g_main_context_find_source_by_id(zone->context(), first), nullptr);
    EXPECT_NE(g_main_context_find_source_by_id(zone->context(), zone->watcherTimerId), nullptr);
}

TEST_F(ZoneTestCase, LeavesAZoneWithoutAnInitPidUnwatched)
{
    container("init_pid", "-1");
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[3] "), at("F Now, alpha is running"),
                            at("E Failed to get initpid of alpha")));
    EXPECT_EQ(zone->watcherTimerId, 0U);
    EXPECT_EQ(zone->initPid.load(), 0);
}

TEST_F(ZoneTestCase, StopsWatchingAStoppedZone)
{
    container("init_pid", "77");
    static_cast<void>(handle(eZONE_EVENT_CHANGE_STATE, RUNNING));
    const unsigned watcher = zone->watcherTimerId;
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, STOPPED),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[1] "), releaseLine(),
                            at("I Zone Watcher Is removed"),
                            at("I Removing zone watcher timer from zone thread context")));
    EXPECT_EQ(zone->state.load(), STOPPED);
    EXPECT_EQ(zone->watcherTimerId, 0U);
    EXPECT_EQ(g_main_context_find_source_by_id(zone->context(), watcher), nullptr);
    // The same without a watcher.
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, STOPPED),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[1] "),
                            at("I Zone Watcher Is removed"),
                            at("I Removing zone watcher timer from zone thread context")));
}

TEST_F(ZoneTestCase, TakesNoteOfTheOtherStatesOnly)
{
    for (const ZoneState state : {NONE, STARTING, STOPPING, ABORTING, FREEZING, FROZEN, THAWED}) {
        EXPECT_THAT(
            handle(eZONE_EVENT_CHANGE_STATE, state),
            ElementsAre(at("I receive the event - ZONE CHANGE STATE[" + std::to_string(state) + "] ")));
        EXPECT_EQ(zone->state.load(), state);
    }
}

// The watcher.

TEST_F(ZoneTestCase, EndsAWatcherWithoutAZone)
{
    EXPECT_FALSE(Zone::zoneWatcherTimer(nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("I Failed to get zone object"));
}

TEST_F(ZoneTestCase, IsSilentWhileTheInitProcessIsTheSame)
{
    container("init_pid", "77");
    zone->initPid = 77;
    EXPECT_TRUE(Zone::zoneWatcherTimer(zone.get()));
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(control.launches(), 0U);
}

TEST_F(ZoneTestCase, RestartsWhenTheInitProcessChanged)
{
    container("init_pid", "78");
    zone->initPid = 77;
    zone->restartFlag = true;
    EXPECT_TRUE(Zone::zoneWatcherTimer(zone.get()));
    EXPECT_THAT(log.texts(),
                ElementsAre("W Restarting alpha(current zone pid : 78, thread name : " + std::string(THREAD) +
                                ", tid : " + std::to_string(currentThreadId()) + ")",
                            at("I alpha is re-started successfully")));
    EXPECT_EQ(control.launches(), 1U);
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_START);
    EXPECT_FALSE(zone->restartFlag.load());
    EXPECT_EQ(zone->initPid.load(), 77); // until the next report
}

TEST_F(ZoneTestCase, RestartsAZoneThatItMayNotControlAnyMore)
{
    container("may_control", "0");
    container("init_pid", "77");
    container("start", "exit 1");
    zone->initPid = 77;
    zone->restartFlag = true;
    EXPECT_TRUE(Zone::zoneWatcherTimer(zone.get())); // and tries again
    EXPECT_THAT(log.texts(),
                ElementsAre("W Restarting alpha(current zone pid : -1, thread name : " + std::string(THREAD) +
                                ", tid : " + std::to_string(currentThreadId()) + ")",
                            at("E Failed to re-start alpha")));
    EXPECT_FALSE(called("init_pid"));
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_NONE);
    EXPECT_TRUE(zone->restartFlag.load());
}
