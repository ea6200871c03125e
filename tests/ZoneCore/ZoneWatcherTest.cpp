// What a zone does when the monitor reports a state, and the watcher that looks after its init process. What
// it asks liblxc meanwhile stands among its records, as "D NAME".
#include "ZoneCore/Zone.h"
#include "tests/ZoneCore/ZoneThreadFixture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace ZoneCore;
using testing::ElementsAre;
using testing::IsEmpty;
using ZoneTest::Driven;
using ZoneTest::KeptSource;

namespace {

constexpr const char* RUNNING_REPORTED = "I receive the event - ZONE CHANGE STATE[3] ";
constexpr gint64 WATCHER_INTERVAL_US = 15000000;

/// A zone whose context takes no timers after the first ones.
class ZoneWithFewTimers : public Driven<Zone>
{
public:
    explicit ZoneWithFewTimers(int count) : left(count) {}
    void* attachTimerSource(unsigned interval, int (*func)(void*), void* data, bool keep) override
    {
        EXPECT_EQ(interval, 15000U);
        EXPECT_EQ(func, &Zone::zoneWatcherTimer);
        EXPECT_EQ(data, this);
        EXPECT_FALSE(keep);
        return left-- > 0 ? Driven<Zone>::attachTimerSource(interval, func, data, keep) : nullptr;
    }

private:
    int left;
};

class ZoneWatcher : public ZoneTest::ZoneThreadTest
{
protected:
    /// Lets the zone come up, with a watcher for this init process.
    void watch(const std::string& pid)
    {
        container("init_pid", pid);
        static_cast<void>(handle(eZONE_EVENT_CHANGE_STATE, RUNNING));
        ASSERT_NE(watcher(), nullptr);
        log.clear();
    }
    [[nodiscard]] GSource* watcher() const
    {
        return zone->watcherTimerId == 0
                   ? nullptr
                   : g_main_context_find_source_by_id(zone->context(), zone->watcherTimerId);
    }
    /// Lets the watcher's time come.
    /// @return what it wrote
    std::vector<std::string> tick()
    {
        log.clear();
        g_source_set_ready_time(watcher(), 0);
        EXPECT_EQ(zone->drain(), 1);
        return log.texts();
    }
    [[nodiscard]] static std::string timerLine() { return atId("I Timer Source Count : 0"); }
    [[nodiscard]] static std::string restartingLine(const std::string& pid)
    {
        return "W Restarting alpha(current zone pid : " + pid + ", thread name : " + ZoneTest::ZONE_THREAD +
               ", tid : " + std::to_string(currentThreadId()) + ")";
    }
};

} // namespace

// The reports.

TEST_F(ZoneWatcher, BeginsWhenTheZoneRuns)
{
    container("init_pid", "77");
    const gint64 before = g_get_monotonic_time();
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at(RUNNING_REPORTED), at("F Now, alpha is running"), "D init_pid",
                            at("I The init pid(77) of zone(alpha) is set"), timerLine(),
                            at("I Zone Watcher Is registered[interval : 15000]"),
                            at("I Starting zone watcher timer for checking zone alive")));
    const gint64 after = g_get_monotonic_time();
    EXPECT_EQ(zone->state.load(), RUNNING);
    EXPECT_EQ(zone->initPid.load(), 77);
    ASSERT_NE(watcher(), nullptr);
    EXPECT_GE(g_source_get_ready_time(watcher()), before + WATCHER_INTERVAL_US);
    EXPECT_LE(g_source_get_ready_time(watcher()), after + WATCHER_INTERVAL_US);
}

TEST_F(ZoneWatcher, ReplacesAnEarlierOne)
{
    watch("77");
    const KeptSource first(watcher());
    const unsigned firstId = zone->watcherTimerId;
    container("init_pid", "78");
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at(RUNNING_REPORTED), at("F Now, alpha is running"), "D init_pid",
                            at("I The init pid(78) of zone(alpha) is set"),
                            atId("I Release previous watcher timer source", ", interval : 15000"),
                            releaseLine(), timerLine(), at("I Zone Watcher Is registered[interval : 15000]"),
                            at("I Starting zone watcher timer for checking zone alive")));
    EXPECT_EQ(zone->initPid.load(), 78);
    EXPECT_TRUE(first.isReleased());
    EXPECT_NE(zone->watcherTimerId, firstId);
    ASSERT_NE(watcher(), nullptr);
}

TEST_F(ZoneWatcher, IsThereForEveryPidThatIsNotNegative)
{
    container("init_pid", "0");
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at(RUNNING_REPORTED), at("F Now, alpha is running"), "D init_pid",
                            at("I The init pid(0) of zone(alpha) is set"), timerLine(),
                            at("I Zone Watcher Is registered[interval : 15000]"),
                            at("I Starting zone watcher timer for checking zone alive")));
    EXPECT_NE(watcher(), nullptr);
}

TEST_F(ZoneWatcher, DoesNotBeginWithoutAnInitPid)
{
    container("init_pid", "-1");
    zone->initPid = 5;
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at(RUNNING_REPORTED), at("F Now, alpha is running"), "D init_pid",
                            at("E Failed to get initpid of alpha")));
    EXPECT_EQ(zone->state.load(), RUNNING);
    EXPECT_EQ(zone->watcherTimerId, 0U);
    EXPECT_EQ(zone->initPid.load(), 5);
}

TEST_F(ZoneWatcher, StaysWhenTheNextInitPidCannotBeRead)
{
    watch("77");
    const unsigned id = zone->watcherTimerId;
    container("init_pid", "-1");
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at(RUNNING_REPORTED), at("F Now, alpha is running"), "D init_pid",
                            at("E Failed to get initpid of alpha")));
    EXPECT_EQ(zone->watcherTimerId, id);
    EXPECT_NE(watcher(), nullptr);
    EXPECT_EQ(zone->initPid.load(), 77);
}

TEST_F(ZoneWatcher, ReportsATimerThatCannotBeMade)
{
    use(std::make_unique<ZoneWithFewTimers>(1));
    watch("77");
    const KeptSource first(watcher());
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, RUNNING),
                ElementsAre(at(RUNNING_REPORTED), at("F Now, alpha is running"), "D init_pid",
                            at("I The init pid(77) of zone(alpha) is set"),
                            atId("I Release previous watcher timer source", ", interval : 15000"),
                            releaseLine(),
                            atId("E Failed to register the zone watcher", ", interval : 15000")));
    EXPECT_TRUE(first.isReleased());
    EXPECT_EQ(zone->watcherTimerId, 0U);
}

TEST_F(ZoneWatcher, EndsWhenTheZoneStopped)
{
    watch("77");
    const KeptSource first(watcher());
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, STOPPED),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[1] "), releaseLine(),
                            at("I Zone Watcher Is removed"),
                            at("I Removing zone watcher timer from zone thread context")));
    EXPECT_TRUE(first.isReleased());
    EXPECT_EQ(zone->state.load(), STOPPED);
    EXPECT_EQ(zone->watcherTimerId, 0U);
    EXPECT_EQ(zone->initPid.load(), 77); // until it comes up again
}

TEST_F(ZoneWatcher, NeedNotBeThereToEnd)
{
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, STOPPED),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[1] "),
                            at("I Zone Watcher Is removed"),
                            at("I Removing zone watcher timer from zone thread context")));
}

TEST_F(ZoneWatcher, StaysInEveryOtherState)
{
    watch("77");
    const unsigned id = zone->watcherTimerId;
    for (const ZoneState state : {NONE, STARTING, STOPPING, ABORTING, FREEZING, FROZEN, THAWED}) {
        EXPECT_THAT(
            handle(eZONE_EVENT_CHANGE_STATE, state),
            ElementsAre(at("I receive the event - ZONE CHANGE STATE[" + std::to_string(state) + "] ")));
        EXPECT_EQ(zone->state.load(), state);
    }
    EXPECT_EQ(zone->watcherTimerId, id);
    EXPECT_NE(watcher(), nullptr);
}

// The timer.

TEST_F(ZoneWatcher, EndsWithoutAZone)
{
    EXPECT_FALSE(Zone::zoneWatcherTimer(nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("I Failed to get zone object"));
}

TEST_F(ZoneWatcher, IsSilentWhileTheInitProcessIsTheSame)
{
    watch("77");
    zone->operationType = ZUP::ZONE_OPERATION_STOP;
    zone->restartFlag = true;
    EXPECT_THAT(tick(), ElementsAre("D may_control", "D init_pid"));
    EXPECT_NE(watcher(), nullptr);
    EXPECT_EQ(control.launches(), 0U);
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_STOP);
    EXPECT_TRUE(zone->restartFlag.load());
}

TEST_F(ZoneWatcher, DoesNotTakeAStopOnRequestForADeath)
{
    watch("77");
    container("init_pid", "-1");
    zone->stopAwaitsReport = true;
    EXPECT_THAT(tick(), IsEmpty());
    EXPECT_NE(watcher(), nullptr);
    EXPECT_EQ(control.launches(), 0U);
}

TEST_F(ZoneWatcher, LooksAgainOnceTheStopWasReportedOrTheZoneRunsAgain)
{
    container("init_pid", "78");
    for (const ZoneState reported : {STOPPED, RUNNING}) {
        zone->stopAwaitsReport = true;
        static_cast<void>(handle(eZONE_EVENT_CHANGE_STATE, reported));
        EXPECT_FALSE(zone->stopAwaitsReport);
    }
}

TEST_F(ZoneWatcher, IsNotMisledByReportsThatTheStopHasOvertaken)
{
    container("init_pid", "-1");
    zone->stopAwaitsReport = true;
    for (const ZoneState reported : {STARTING, RUNNING, STOPPING}) {
        static_cast<void>(handle(eZONE_EVENT_CHANGE_STATE, reported));
        EXPECT_TRUE(zone->stopAwaitsReport);
    }
}

TEST_F(ZoneWatcher, RestartsWhenTheInitProcessChanged)
{
    watch("77");
    container("init_pid", "78");
    zone->restartFlag = true;
    EXPECT_THAT(tick(), ElementsAre("D may_control", "D init_pid", restartingLine("78"), "D is_running",
                                    at("I alpha is re-started successfully")));
    EXPECT_NE(watcher(), nullptr);
    EXPECT_EQ(control.launches(), 1U);
    EXPECT_THAT(control.text("launches"), testing::HasSubstr(R"("start","alpha"])"));
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_START);
    EXPECT_FALSE(zone->restartFlag.load());
    EXPECT_EQ(zone->initPid.load(), 77); // until the next report
}

TEST_F(ZoneWatcher, RestartsWhenTheInitProcessIsGone)
{
    watch("77");
    container("init_pid", "-1");
    EXPECT_THAT(tick(), ElementsAre("D may_control", "D init_pid", restartingLine("-1"), "D is_running",
                                    at("I alpha is re-started successfully")));
}

TEST_F(ZoneWatcher, TriesAgainWhenARestartFailed)
{
    watch("77");
    container("may_control", "0");
    container("start", "exit 1");
    zone->operationType = ZUP::ZONE_OPERATION_FREEZE;
    zone->restartFlag = true;
    for (std::size_t launches = 1; launches <= 2; ++launches) {
        EXPECT_THAT(tick(), ElementsAre("D may_control", restartingLine("-1"), "D is_running",
                                        at("E Failed to re-start alpha")));
        EXPECT_EQ(control.launches(), launches);
    }
    EXPECT_NE(watcher(), nullptr);
    EXPECT_EQ(zone->operationType.load(), ZUP::ZONE_OPERATION_FREEZE);
    EXPECT_TRUE(zone->restartFlag.load());
    EXPECT_EQ(zone->initPid.load(), 77);
}

TEST_F(ZoneWatcher, LeavesTheZoneAloneOnceTheGateIsClosed)
{
    watch("77");
    container("may_control", "0");
    ZoneTest::behindAClosedGate([this] { EXPECT_TRUE(Zone::zoneWatcherTimer(zone.get())); });
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(control.launches(), 0U);
}
