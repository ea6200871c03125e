// The watchdog service is replaced in this program by one that remembers its calls.
#include "platform/watchdog/platform_watchdog.h"
#include "tests/Common/ThreadProbe.h"
#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using ZoneCore::currentThreadId;
using ZoneCore::ThreadGate;
using ZoneTest::endLoop;
using ZoneTest::eventually;
using ZoneTest::iterate;
using ZoneTest::LogCapture;
using ZoneTest::nameAndId;
using ZoneTest::OnLoop;
using ZoneTest::ThreadProbe;

namespace {

/// The calls of the watchdog service, each with the thread that made it.
class Calls
{
public:
    void addRegistration(int interval)
    {
        const std::lock_guard lock(mutex);
        registered.emplace_back(currentThreadId(), interval);
    }
    void addNotification()
    {
        const std::lock_guard lock(mutex);
        notified.push_back(currentThreadId());
    }
    [[nodiscard]] std::vector<std::pair<pid_t, int>> registrations() const
    {
        const std::lock_guard lock(mutex);
        return registered;
    }
    [[nodiscard]] std::vector<pid_t> notifications() const
    {
        const std::lock_guard lock(mutex);
        return notified;
    }
    void forget()
    {
        const std::lock_guard lock(mutex);
        registered.clear();
        notified.clear();
    }

private:
    mutable std::mutex mutex;
    std::vector<std::pair<pid_t, int>> registered;
    std::vector<pid_t> notified;
};
Calls calls;

class ThreadWatchDog : public testing::Test
{
protected:
    ThreadWatchDog() { calls.forget(); }

    LogCapture log;
};

/// A thread that gets no timer.
class WithoutTimers : public ThreadProbe
{
public:
    using ThreadProbe::ThreadProbe;
    void* attachTimerSource(unsigned /*interval*/, int (* /*func*/)(void*), void* /*data*/,
                            bool /*keep*/) override
    {
        return nullptr;
    }
};

} // namespace

extern "C" {

int platform_watchdog_register(int interval_seconds) noexcept
{
    calls.addRegistration(interval_seconds);
    return -1; // nobody looks
}

int platform_watchdog_notify() noexcept
{
    calls.addNotification();
    return -1;
}
}

TEST_F(ThreadWatchDog, RegistersTheCallingThread)
{
    ThreadProbe thread("zone");
    log.clear();
    EXPECT_TRUE(thread.registerWatchDog(360, 15000));
    EXPECT_THAT(calls.registrations(), ElementsAre(Pair(currentThreadId(), 360)));
    EXPECT_THAT(calls.notifications(), IsEmpty());
    EXPECT_THAT(log.texts(), ElementsAre("I Timer Source Count : 0" + nameAndId("zone"),
                                         "I Watchdog Is registered[360 / 15000]" + nameAndId("zone", "tid")));
    EXPECT_EQ(g_source_get_context(thread.watchDogSource), thread.mainContext);
    EXPECT_THAT(thread.timerSources, IsEmpty());
}

TEST_F(ThreadWatchDog, PassesTheIntervalOnAsItIs)
{
    ThreadProbe thread("zone");
    EXPECT_TRUE(thread.registerWatchDog(-5, 100));
    EXPECT_THAT(calls.registrations(), ElementsAre(Pair(currentThreadId(), -5)));
}

TEST_F(ThreadWatchDog, NotifiesAgainAndAgainOnTheThreadsLoop)
{
    ThreadProbe thread("zone");
    EXPECT_TRUE(thread.registerWatchDog(360, 0));
    for (int round = 0; round < 3; ++round) {
        iterate(thread.mainContext);
    }
    EXPECT_THAT(calls.notifications(), ElementsAre(currentThreadId(), currentThreadId(), currentThreadId()));
}

TEST_F(ThreadWatchDog, ASecondRegistrationTakesThePlaceOfTheFirst)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.registerWatchDog(360, 0));
    GSource* const first = g_source_ref(thread.watchDogSource);
    log.clear();
    EXPECT_TRUE(thread.registerWatchDog(180, 20000));
    EXPECT_THAT(log.texts(),
                ElementsAre("W Invalid reqeust to set watch dog timer source" + nameAndId("zone"),
                            "I release the event source from the main context" + nameAndId("zone"),
                            "I Timer Source Count : 0" + nameAndId("zone"),
                            "I Watchdog Is registered[180 / 20000]" + nameAndId("zone", "tid")));
    EXPECT_THAT(calls.registrations(),
                ElementsAre(Pair(currentThreadId(), 360), Pair(currentThreadId(), 180)));
    EXPECT_TRUE(g_source_is_destroyed(first));
    EXPECT_NE(thread.watchDogSource, first);
    iterate(thread.mainContext);
    EXPECT_THAT(calls.notifications(), IsEmpty());
    g_source_unref(first);
}

TEST_F(ThreadWatchDog, WithoutATimerThereIsNoRegistration)
{
    ThreadProbe thread;
    log.clear();
    EXPECT_FALSE(thread.registerWatchDog(7, 100));
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get the main context of thread" + nameAndId(""),
                                         "E Failed to register the stallwarden(thread name : , thread id : " +
                                             std::to_string(currentThreadId()) + ", interval : 7)"));
    EXPECT_THAT(calls.registrations(), IsEmpty());
}

TEST_F(ThreadWatchDog, ItsTimerGoesWithTheThread)
{
    auto thread = std::make_unique<ThreadProbe>("zone");
    const ZoneCore::GMainContextPtr context(g_main_context_ref(thread->mainContext));
    ASSERT_TRUE(thread->registerWatchDog(360, 0));
    thread.reset();
    iterate(context.get());
    EXPECT_THAT(calls.notifications(), IsEmpty());
}

TEST_F(ThreadWatchDog, IsNotAskedForUnlessItIsEnabled)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(eventually([&] { return thread.isRunning(); }));
    EXPECT_THAT(calls.registrations(), IsEmpty());
    endLoop(thread);
}

TEST_F(ThreadWatchDog, AnEnabledThreadRegistersItselfAndNotifiesWhileItsLoopRuns)
{
    ThreadProbe thread("zone");
    thread.setWatchDog(true, 180, 1);
    ASSERT_TRUE(thread.run());
    EXPECT_TRUE(eventually([&] { return calls.notifications().size() >= 3; }));
    pid_t loopThread = 0;
    OnLoop(thread.mainContext, [&] { loopThread = currentThreadId(); });
    EXPECT_THAT(calls.registrations(), ElementsAre(Pair(loopThread, 180)));
    EXPECT_THAT(calls.notifications(), Each(loopThread));
    endLoop(thread);
}

TEST_F(ThreadWatchDog, ALoopThatIsHeldUpDoesNotNotify)
{
    ThreadProbe thread("zone");
    thread.setWatchDog(true, 180, 1);
    ASSERT_TRUE(thread.run());
    EXPECT_TRUE(eventually([&] { return !calls.notifications().empty(); }));
    std::latch inside(1);
    std::latch mayLeave(1);
    {
        const OnLoop callback(thread.mainContext, [&] {
            inside.count_down();
            mayLeave.wait();
        });
        inside.wait();
        calls.forget();
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_THAT(calls.notifications(), IsEmpty());
        mayLeave.count_down();
    }
    EXPECT_TRUE(eventually([&] { return !calls.notifications().empty(); }));
    endLoop(thread);
}

TEST_F(ThreadWatchDog, AThreadThatCannotRegisterDoesNotRunItsLoop)
{
    WithoutTimers thread("zone");
    thread.setWatchDog(true, 180, 1);
    ASSERT_TRUE(thread.run());
    static_cast<void>(g_thread_join(g_thread_ref(thread.gthread)));
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(thread.closeGate()) << "the thread has left";

    std::vector<std::string> texts;
    for (const auto& record : log.records()) {
        if (record.thread != currentThreadId()) {
            const std::string id = std::to_string(record.thread);
            texts.push_back(record.body.substr(0, record.body.find(", thread id : " + id)));
        }
    }
    EXPECT_THAT(texts, ElementsAre("Failed to register the stallwarden(thread name : zone",
                                   "Failed to set watch dog for thread(thread name : zone"));
    EXPECT_THAT(calls.registrations(), IsEmpty());
}

TEST_F(ThreadWatchDog, BehindAClosedGateNobodyNotifies)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.registerWatchDog(360, 0));
    std::thread([&] {
        ThreadGate closed;
        EXPECT_TRUE(closed.close());
        closed.guardThisThread();
        iterate(thread.mainContext);
    }).join();
    EXPECT_THAT(calls.notifications(), IsEmpty());
    iterate(thread.mainContext);
    EXPECT_THAT(calls.notifications(), ElementsAre(currentThreadId())) << "the timer goes on";
}
