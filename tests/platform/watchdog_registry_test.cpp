#include "platform/watchdog/watchdog_registry.h"

#include <gtest/gtest.h>

using Platform::WatchdogRegistry;
using std::chrono::seconds;

namespace {

constexpr pid_t MANAGER = 10;
constexpr pid_t MONITOR = 11;

class WatchdogRegistryTest : public testing::Test
{
protected:
    WatchdogRegistry::Clock::time_point now{seconds(1000)};
    WatchdogRegistry registry{[this] { return now; }};
};

} // namespace

TEST_F(WatchdogRegistryTest, AThreadThatIsNotRegisteredIsRefused)
{
    const auto outcome = registry.notify(MANAGER);
    EXPECT_FALSE(outcome.registered);
    EXPECT_FALSE(outcome.allAlive);
}

TEST_F(WatchdogRegistryTest, AThreadThatHasNotNotifiedYetIsAliveForItsInterval)
{
    registry.add(MANAGER, "manager", seconds(360));
    registry.add(MONITOR, "monitor", seconds(180));
    now += seconds(180);
    EXPECT_TRUE(registry.notify(MANAGER).allAlive);
    now += seconds(1);
    EXPECT_FALSE(registry.notify(MANAGER).allAlive);
}

TEST_F(WatchdogRegistryTest, EveryThreadIsMeasuredByItsOwnInterval)
{
    registry.add(MANAGER, "manager", seconds(360));
    registry.add(MONITOR, "monitor", seconds(180));
    now += seconds(181);
    EXPECT_TRUE(registry.notify(MONITOR).allAlive); // the manager still has time, the monitor is back
    now += seconds(180);
    const auto outcome = registry.notify(MONITOR);
    EXPECT_FALSE(outcome.allAlive);
    ASSERT_EQ(outcome.newStalls.size(), 1U);
    EXPECT_EQ(outcome.newStalls[0].threadName, "manager");
}

TEST_F(WatchdogRegistryTest, AStallIsToldOnceAndAgainAfterARecovery)
{
    registry.add(MANAGER, "manager", seconds(360));
    registry.add(MONITOR, "monitor", seconds(180));
    for (int stall = 0; stall < 2; ++stall) {
        now += seconds(200);
        const auto first = registry.notify(MANAGER);
        ASSERT_EQ(first.newStalls.size(), 1U);
        EXPECT_EQ(first.newStalls[0].threadName, "monitor");
        EXPECT_EQ(first.newStalls[0].tid, MONITOR);
        EXPECT_EQ(first.newStalls[0].silent, seconds(200));
        const auto second = registry.notify(MANAGER);
        EXPECT_FALSE(second.allAlive);
        EXPECT_TRUE(second.newStalls.empty());

        const auto back = registry.notify(MONITOR);
        EXPECT_TRUE(back.allAlive);
        EXPECT_TRUE(back.newStalls.empty());
    }
}

TEST_F(WatchdogRegistryTest, AThreadThatComesBackLateIsToldThoughNobodyElseLooked)
{
    registry.add(MANAGER, "manager", seconds(360));
    now += seconds(400);
    const auto outcome = registry.notify(MANAGER);
    EXPECT_TRUE(outcome.allAlive);
    ASSERT_EQ(outcome.newStalls.size(), 1U);
    EXPECT_EQ(outcome.newStalls[0].silent, seconds(400));
}

TEST_F(WatchdogRegistryTest, RegisteringAgainReplacesTheIntervalAndBeginsAnew)
{
    registry.add(MANAGER, "manager", seconds(360));
    registry.add(MONITOR, "monitor", seconds(10));
    now += seconds(20);
    registry.add(MONITOR, "monitor", seconds(180));
    EXPECT_TRUE(registry.notify(MANAGER).allAlive);
    now += seconds(181);
    EXPECT_FALSE(registry.notify(MANAGER).allAlive);
}
