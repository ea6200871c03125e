#include "Common/Thread.h"

#include "tests/Common/ThreadFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <memory>
#include <string>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using ZoneCore::ThreadGate;
using ZoneCore::ZoneEvent;
using ZoneTest::anyEvent;
using ZoneTest::countAndGoOn;
using ZoneTest::endLoop;
using ZoneTest::eventually;
using ZoneTest::iterate;
using ZoneTest::nameAndId;
using ZoneTest::OnLoop;
using ZoneTest::pollTimeoutOf;
using ZoneTest::RunningThread;
using ZoneTest::SourcePtr;
using ZoneTest::ThreadFixture;
using ZoneTest::ThreadProbe;
using ZoneTest::watch;

namespace {

using ThreadTeardown = ThreadFixture;

/// A thread that is held up before its loop starts.
class SlowToStart : public ThreadProbe
{
public:
    explicit SlowToStart(const std::string& name) : ThreadProbe(name) { setWatchDog(true, 180, 20000); }

    void* attachTimerSource(unsigned interval, int (*func)(void*), void* data, bool keep) override
    {
        started.count_down();
        mayGoOn.wait();
        return ThreadProbe::attachTimerSource(interval, func, data, keep);
    }

    std::latch started{1};
    std::latch mayGoOn{1};
};

} // namespace

// Gate

TEST_F(ThreadTeardown, TheGateClosesWhileTheLoopRests)
{
    RunningThread thread("zone");
    ASSERT_TRUE(eventually([&] { return thread.probe.closeGate(); }));
    EXPECT_TRUE(thread.probe.closeGate());
}

TEST_F(ThreadTeardown, TheGateStaysOpenUntilTheLoopStarts)
{
    SlowToStart thread("zone");
    ASSERT_TRUE(thread.run());
    thread.started.wait();
    EXPECT_FALSE(thread.closeGate());
    thread.mayGoOn.count_down();
    EXPECT_TRUE(eventually([&] { return thread.isRunning(); }));
    EXPECT_TRUE(eventually([&] { return thread.closeGate(); }));
    endLoop(thread);
}

TEST_F(ThreadTeardown, ARefusedSecondRunKeepsNobodyInside)
{
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.run());
    EXPECT_TRUE(eventually([&] { return thread.probe.closeGate(); }));
}

TEST_F(ThreadTeardown, TheGateStaysOpenWhileACallbackGoesOn)
{
    RunningThread thread("zone");
    std::latch inside(1);
    std::latch mayLeave(1);
    {
        const OnLoop callback(thread.probe.mainContext, [&] {
            const ThreadGate::Pass pass;
            inside.count_down();
            mayLeave.wait();
        });
        inside.wait();
        thread.probe.terminate();
        EXPECT_FALSE(thread.probe.closeGate());
        EXPECT_FALSE(thread.probe.closeGate());
        mayLeave.count_down();
    }
    EXPECT_TRUE(eventually([&] { return thread.probe.closeGate(); }));
}

TEST_F(ThreadTeardown, BehindAClosedGateNoCallbackRuns)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.createEventQueue());
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    g_async_queue_push(thread.eventQueue.load()->queue.load(), event.get());
    ASSERT_TRUE(thread.attachEventSource());
    log.clear();
    std::thread([&] {
        ThreadGate closed;
        ASSERT_TRUE(closed.close());
        closed.guardThisThread();
        EXPECT_EQ(pollTimeoutOf(thread.mainContext), 5000) << "nothing is ready";
        iterate(thread.mainContext);
    }).join();
    EXPECT_THAT(log.texts(), IsEmpty());
    iterate(thread.mainContext);
    EXPECT_THAT(log.texts(), SizeIs(1)) << "the event was there";
    thread.destroyEventQueue();
}

// Destruction

TEST_F(ThreadTeardown, ReleasesWhatItHasInOrder)
{
    auto thread = std::make_unique<ThreadProbe>("zone");
    const ZoneCore::GMainContextPtr context(g_main_context_ref(thread->mainContext));
    int count = 0;
    ASSERT_TRUE(thread->attachEventSource());
    const guint event = g_source_get_id(thread->eventSource);
    const SourcePtr first = watch(thread->attachTimerSource(1000, countAndGoOn, &count, true));
    const SourcePtr second = watch(thread->attachTimerSource(1000, countAndGoOn, &count, true));
    void* const notKept = thread->attachTimerSource(1000, countAndGoOn, &count, false);
    log.clear();
    thread.reset();

    const std::string release = "I release the event source from the main context" + nameAndId("zone");
    const std::string remove = "I remove the timer event source from the main context" + nameAndId("zone");
    EXPECT_THAT(log.texts(),
                ElementsAre(release, // the event source
                            release, // the watchdog's timer, though there is none
                            remove, release, "I the remained count of timer source in current context is 1",
                            remove, release, "I the remained count of timer source in current context is 0",
                            "I Thread is destroyed" + nameAndId("zone")));
    EXPECT_EQ(g_main_context_find_source_by_id(context.get(), event), nullptr);
    EXPECT_TRUE(g_source_is_destroyed(first.get()));
    EXPECT_TRUE(g_source_is_destroyed(second.get()));
    EXPECT_FALSE(g_source_is_destroyed(static_cast<GSource*>(notKept))) << "its caller's to release";
    g_source_destroy(static_cast<GSource*>(notKept));
    g_source_unref(static_cast<GSource*>(notKept));
}

TEST_F(ThreadTeardown, ABareObjectCanBeDestroyed)
{
    auto thread = std::make_unique<ThreadProbe>();
    log.clear();
    thread.reset();
    EXPECT_THAT(log.texts(), ElementsAre("I release the event source from the main context" + nameAndId(""),
                                         "I Thread is destroyed" + nameAndId("")));
    EXPECT_THAT(log.otherLines(), IsEmpty());
}

TEST_F(ThreadTeardown, LeavesTheQueueToItsOwner)
{
    auto thread = std::make_unique<ThreadProbe>("zone");
    ASSERT_TRUE(thread->createEventQueue());
    const std::unique_ptr<ZoneCore::AsyncEventQueue> queue(thread->eventQueue.load());
    thread.reset();
    EXPECT_EQ(queue->asyncQueueLength(), 0);
}

// The teardown quits a loop and deletes its object without waiting for the thread.
TEST_F(ThreadTeardown, AnObjectMayGoWhileItsThreadRestsInPoll)
{
    constexpr std::size_t ROUNDS = 300;
    log.clear();
    for (std::size_t round = 0; round < ROUNDS; ++round) {
        auto thread = std::make_unique<ThreadProbe>("short-lived");
        ASSERT_TRUE(thread->createEventQueue());
        ASSERT_TRUE(thread->attachEventSource());
        ASSERT_TRUE(thread->run());
        ASSERT_TRUE(eventually([&] { return thread->isRunning(); }));
        thread->terminate();
        ASSERT_TRUE(eventually([&] { return thread->closeGate(); }));
        thread->destroyEventQueue();
        thread.reset();
    }
    EXPECT_TRUE(eventually([&] {
        return std::ranges::count_if(log.texts(), [](const std::string& text) {
                   return text.starts_with("I the main loop of thread is terminated(thread name : short-");
               }) == ROUNDS;
    })) << "every thread comes to its end";
}

TEST_F(ThreadTeardown, AThreadThatOutlivesItsObjectTouchesNothingOfIt)
{
    log.clear();
    for (int round = 0; round < 50; ++round) {
        auto thread = std::make_unique<ThreadProbe>("orphan");
        const ZoneCore::GMainContextPtr context(g_main_context_ref(thread->mainContext));
        const ZoneCore::GMainLoopPtr loop(g_main_loop_ref(thread->mainLoop));
        ASSERT_TRUE(thread->createEventQueue());
        ASSERT_TRUE(thread->attachEventSource());
        ASSERT_TRUE(thread->run());
        ASSERT_TRUE(eventually([&] { return thread->isRunning(); }));
        // Wakes the loop again and again, so that it is on its way through our callbacks at any moment.
        std::atomic<bool> quit{false};
        std::thread waker([&] {
            while (!quit) {
                g_main_context_wakeup(context.get());
                std::this_thread::yield();
            }
        });
        ASSERT_TRUE(eventually([&] { return thread->closeGate(); }));
        thread->destroyEventQueue();
        thread.reset();
        OnLoop(context.get(), [] {});
        quit = true;
        waker.join();
        g_main_loop_quit(loop.get());
    }
    EXPECT_TRUE(eventually([&] {
        return std::ranges::count_if(log.texts(), [](const std::string& text) {
                   return text.starts_with("I the main loop of thread is terminated(thread name : orphan");
               }) == 50;
    }));
}
