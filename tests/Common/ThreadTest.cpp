#include "Common/Thread.h"

#include "tests/Common/ThreadFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using ZoneCore::ZoneEvent;
using ZoneTest::anyEvent;
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

using ThreadSetUp = ThreadFixture;
using ThreadQueue = ThreadFixture;
using ThreadSource = ThreadFixture;
using ThreadRun = ThreadFixture;

} // namespace

// Set-up

TEST_F(ThreadSetUp, BeginsWithNothing)
{
    const ThreadProbe thread;
    EXPECT_THAT(log.texts(), ElementsAre("I Thread is created"));
    EXPECT_EQ(thread.name(), "");
    EXPECT_FALSE(thread.usesDefaultContext());
    EXPECT_FALSE(thread.hasEventQueue());
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(thread.mainLoop, nullptr);
    EXPECT_EQ(thread.mainContext, nullptr);
    EXPECT_EQ(thread.gthread, nullptr);
    EXPECT_EQ(thread.eventSource, nullptr);
    EXPECT_EQ(thread.watchDogSource, nullptr);
    EXPECT_FALSE(thread.watchDogEnabled);
    EXPECT_EQ(thread.watchDogInterval, 360);
    EXPECT_EQ(thread.watchDogNotifyPeriod, 15000);
    EXPECT_THAT(thread.timerSources, IsEmpty());
}

TEST_F(ThreadSetUp, BorrowsTheDefaultContext)
{
    const ThreadProbe thread("main", true);
    EXPECT_TRUE(thread.initialized);
    EXPECT_TRUE(thread.usesDefaultContext());
    EXPECT_EQ(thread.name(), "main");
    EXPECT_EQ(thread.mainContext, g_main_context_default());
    EXPECT_EQ(g_main_loop_get_context(thread.mainLoop), g_main_context_default());
    EXPECT_FALSE(thread.isRunning());
}

TEST_F(ThreadSetUp, MakesAContextOfItsOwn)
{
    const ThreadProbe thread("own");
    EXPECT_TRUE(thread.initialized);
    EXPECT_FALSE(thread.usesDefaultContext());
    EXPECT_NE(thread.mainContext, g_main_context_default());
    EXPECT_EQ(g_main_loop_get_context(thread.mainLoop), thread.mainContext);
    EXPECT_FALSE(thread.isRunning());
}

// Event queue

TEST_F(ThreadQueue, IsMadeEmpty)
{
    ThreadProbe thread("zone");
    EXPECT_TRUE(thread.createEventQueue());
    EXPECT_TRUE(thread.hasEventQueue());
    EXPECT_EQ(thread.eventQueue.load()->asyncQueueLength(), 0);
    thread.destroyEventQueue();
}

TEST_F(ThreadQueue, AHolderWithoutAQueueHasNoLength)
{
    log.clear();
    {
        const ZoneCore::AsyncEventQueue holder;
        EXPECT_EQ(holder.asyncQueueLength(), 0);
    }
    EXPECT_THAT(log.otherLines(), Contains(HasSubstr("g_async_queue_unref: assertion")))
        << "the null queue goes to GLib, which reports and ignores it";
}

TEST_F(ThreadQueue, ASecondOneIsMadeWithoutALook)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.createEventQueue());
    const std::unique_ptr<ZoneCore::AsyncEventQueue> first(thread.eventQueue.load());
    EXPECT_TRUE(thread.createEventQueue());
    EXPECT_NE(thread.eventQueue.load(), first.get());
    thread.destroyEventQueue();
}

TEST_F(ThreadQueue, IsDroppedWithWhatIsInItButTheEventsLive)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.createEventQueue());
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    g_async_queue_push(thread.eventQueue.load()->queue.load(), event.get());
    log.clear();
    thread.destroyEventQueue();
    EXPECT_THAT(log.texts(), ElementsAre("I destroy the async event queue" + nameAndId("zone")));
    EXPECT_FALSE(thread.hasEventQueue());
    EXPECT_EQ(event->eventType, ZoneCore::eZONE_EVENT_START);
}

TEST_F(ThreadQueue, DroppingNoneDoesNothing)
{
    ThreadProbe thread("zone");
    log.clear();
    thread.destroyEventQueue();
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(log.otherLines(), IsEmpty());
}

// Event source

TEST_F(ThreadSource, IsAttachedUnderItsName)
{
    ThreadProbe thread("zone");
    log.clear();
    EXPECT_TRUE(thread.attachEventSource());
    EXPECT_STREQ(g_source_get_name(thread.eventSource), "ThreadEvent");
    EXPECT_EQ(g_source_get_context(thread.eventSource), thread.mainContext);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ThreadSource, ASecondOneTakesThePlaceOfTheFirst)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.attachEventSource());
    const SourcePtr first = watch(thread.eventSource);
    log.clear();
    EXPECT_TRUE(thread.attachEventSource());
    EXPECT_THAT(log.texts(),
                ElementsAre("W [THREAD] event source is already created" + nameAndId("zone"),
                            "I release the event source from the main context" + nameAndId("zone")));
    EXPECT_TRUE(g_source_is_destroyed(first.get()));
    EXPECT_NE(thread.eventSource, first.get());
    EXPECT_EQ(g_source_get_context(thread.eventSource), thread.mainContext);
}

TEST_F(ThreadSource, LooksEveryFiveSecondsAndIsReadyForAnEventOnly)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.attachEventSource());
    log.clear();
    EXPECT_EQ(pollTimeoutOf(thread.mainContext), 5000) << "without a queue";
    ASSERT_TRUE(thread.createEventQueue());
    EXPECT_EQ(pollTimeoutOf(thread.mainContext), 5000) << "with an empty queue";
    iterate(thread.mainContext);
    EXPECT_THAT(log.texts(), IsEmpty());

    const std::unique_ptr<ZoneEvent> event(anyEvent());
    g_async_queue_push(thread.eventQueue.load()->queue.load(), event.get());
    for (int round = 0; round < 2; ++round) {
        iterate(thread.mainContext);
    }
    EXPECT_THAT(log.texts(), ElementsAre("I [GSource Name : ThreadEvent] Dispatch the event",
                                         "I [GSource Name : ThreadEvent] Dispatch the event"))
        << "the base class takes no event out of the queue";
    EXPECT_EQ(thread.eventQueue.load()->asyncQueueLength(), 1);
    thread.destroyEventQueue();
}

TEST_F(ThreadSource, IsNeverReadyWithoutAnOwner)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.attachEventSource());
    reinterpret_cast<ZoneCore::EventSource*>(thread.eventSource)->owner = nullptr;
    log.clear();
    iterate(thread.mainContext);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ThreadSource, AnIdleLoopFindsAnEventWhenSomethingElseWakesIt)
{
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    log.clear();
    OnLoop(thread.probe.mainContext, [&] { EXPECT_TRUE(thread.probe.attachEventSource()); });
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    ASSERT_TRUE(thread.probe.sendEvent(event.get()));
    OnLoop(thread.probe.mainContext, [] {});
    EXPECT_TRUE(log.waitForText("I [GSource Name : ThreadEvent] Dispatch the event"));
    endLoop(thread.probe);
    thread.probe.destroyEventQueue();
}

// Running

TEST_F(ThreadRun, NeedsALoop)
{
    ThreadProbe thread;
    log.clear();
    EXPECT_FALSE(thread.run());
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get the main event loop(thread name : )"));
}

TEST_F(ThreadRun, RunsTheLoopOnAThreadOfItsName)
{
    ThreadProbe thread("zone-name");
    log.clear();
    EXPECT_TRUE(thread.run());
    ASSERT_TRUE(eventually([&] { return thread.isRunning(); }));
    std::string threadName;
    pid_t thread_id = 0;
    OnLoop(thread.mainContext, [&] {
        std::ifstream("/proc/thread-self/comm") >> threadName;
        thread_id = ZoneCore::currentThreadId();
    });
    EXPECT_EQ(threadName, "zone-name");
    EXPECT_NE(thread_id, ZoneCore::currentThreadId());
    endLoop(thread);

    const std::string onThread = "(thread name : zone-name, thread id : " + std::to_string(thread_id) + ")";
    EXPECT_TRUE(log.waitForText("I the main loop of thread is terminated" + onThread));
    EXPECT_THAT(log.texts(), testing::UnorderedElementsAre(
                                 "I thread is created" + nameAndId("zone-name"), "I Start thread" + onThread,
                                 "I Thread is terminated" + nameAndId("zone-name"),
                                 "I the main loop of thread is terminated" + onThread));
}

TEST_F(ThreadRun, ARunningThreadGetsNoSecondOne)
{
    RunningThread thread("zone");
    GThread* const first = thread.probe.gthread;
    log.clear();
    EXPECT_TRUE(thread.probe.run());
    EXPECT_THAT(log.texts(), ElementsAre("I Thread is already running" + nameAndId("zone")));
    EXPECT_EQ(thread.probe.gthread, first);
}

TEST_F(ThreadRun, IsRunningExactlyWhileTheLoopRuns)
{
    ThreadProbe thread("main", true);
    EXPECT_FALSE(thread.isRunning());
    static_cast<void>(g_idle_add(
        [](gpointer data) -> gboolean {
            auto* running = static_cast<ThreadProbe*>(data);
            EXPECT_TRUE(running->isRunning());
            running->terminate();
            EXPECT_FALSE(running->isRunning());
            return G_SOURCE_REMOVE;
        },
        &thread));
    g_main_loop_run(thread.mainLoop);
    EXPECT_FALSE(thread.isRunning());
}

TEST_F(ThreadRun, TerminatingAStoppedThreadOnlyLogs)
{
    log.clear();
    ThreadProbe uninitialized;
    ThreadProbe stopped("zone");
    uninitialized.terminate();
    stopped.terminate();
    EXPECT_THAT(log.texts(), ElementsAre("I Thread is created", "I Thread is created",
                                         "I Thread is not running" + nameAndId(""),
                                         "I Thread is not running" + nameAndId("zone")));
}

TEST_F(ThreadRun, EndsWhileTheLoopRestsInPoll)
{
    RunningThread thread("zone");
    log.clear();
    thread.probe.terminate();
    EXPECT_FALSE(thread.probe.isRunning());
    EXPECT_TRUE(eventually([&] {
        return testing::Value(log.texts(), Contains(StartsWith("I the main loop of thread is terminated")));
    }));
}
