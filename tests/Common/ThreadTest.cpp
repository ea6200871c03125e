#include "Common/Thread.h"

#include "tests/Common/ThreadProbe.h"
#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <latch>
#include <memory>
#include <thread>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using ZoneCore::Thread;
using ZoneCore::ThreadGate;
using ZoneCore::ZoneEvent;
using ZoneTest::endLoop;
using ZoneTest::eventually;
using ZoneTest::iterate;
using ZoneTest::LogCapture;
using ZoneTest::nameAndId;
using ZoneTest::OnLoop;
using ZoneTest::ThreadProbe;

namespace {

class ThreadTest : public testing::Test
{
protected:
    LogCapture log;
};
using ThreadSetUp = ThreadTest;
using ThreadQueue = ThreadTest;
using ThreadSource = ThreadTest;
using ThreadSend = ThreadTest;
using ThreadTimer = ThreadTest;
using ThreadRun = ThreadTest;
using ThreadTeardown = ThreadTest;

/// A thread whose loop runs; ended with the object.
class RunningThread
{
public:
    explicit RunningThread(const std::string& name) : probe(name)
    {
        EXPECT_TRUE(probe.run());
        EXPECT_TRUE(eventually([this] { return probe.isRunning(); }));
    }
    ~RunningThread() { endLoop(probe); }
    RunningThread(const RunningThread&) = delete;
    RunningThread& operator=(const RunningThread&) = delete;

    ThreadProbe probe;
};

ZoneEvent* anyEvent()
{
    return Thread::createZoneEvent(ZoneCore::eZONE_EVENT_START, ZoneCore::NONE, nullptr);
}

int countAndGoOn(void* counter)
{
    ++*static_cast<int*>(counter);
    return G_SOURCE_CONTINUE;
}

int countAndEnd(void* counter)
{
    ++*static_cast<int*>(counter);
    return G_SOURCE_REMOVE;
}

/// How long a context would wait in poll if nothing happened; milliseconds.
int pollTimeoutOf(GMainContext* context)
{
    int priority = 0;
    int timeout = 0;
    std::array<GPollFD, 8> fds{};
    EXPECT_TRUE(g_main_context_acquire(context));
    static_cast<void>(g_main_context_prepare(context, &priority));
    static_cast<void>(
        g_main_context_query(context, priority, &timeout, fds.data(), static_cast<int>(fds.size())));
    g_main_context_release(context);
    return timeout;
}

/// A reference by which a test can look at a source that somebody else has released.
using SourcePtr = std::unique_ptr<GSource, ZoneCore::FreeWith<g_source_unref>>;
SourcePtr watch(void* source)
{
    return SourcePtr(g_source_ref(static_cast<GSource*>(source)));
}

using ContextPtr = ZoneCore::GMainContextPtr;

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

// Sending

TEST_F(ThreadSend, FailsWhileTheLoopDoesNotRun)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.createEventQueue());
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    log.clear();
    EXPECT_FALSE(thread.sendEvent(event.get()));
    EXPECT_THAT(log.texts(), ElementsAre("E The current thread is not running" + nameAndId("zone")));
    EXPECT_EQ(thread.eventQueue.load()->asyncQueueLength(), 0);
    thread.destroyEventQueue();
}

TEST_F(ThreadSend, FailsOnceTheLoopHasBeenQuit)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.createEventQueue());
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(eventually([&] { return thread.isRunning(); }));
    endLoop(thread);
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    log.clear();
    EXPECT_FALSE(thread.sendEvent(event.get()));
    EXPECT_THAT(log.texts(), Contains("E The current thread is not running" + nameAndId("zone")));
    EXPECT_EQ(thread.eventQueue.load()->asyncQueueLength(), 0);
    thread.destroyEventQueue();
}

TEST_F(ThreadSend, FailsWithoutAQueue)
{
    RunningThread thread("zone");
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    log.clear();
    EXPECT_FALSE(thread.probe.sendEvent(event.get()));
    EXPECT_THAT(log.texts(), ElementsAre("E The event queue is not created" + nameAndId("zone")));
}

TEST_F(ThreadSend, FailsWithAHolderWithoutAQueue)
{
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    g_async_queue_unref(thread.probe.eventQueue.load()->queue.exchange(nullptr));
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    log.clear();
    EXPECT_FALSE(thread.probe.sendEvent(event.get()));
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to lock the event queue" + nameAndId("zone")));
    thread.probe.destroyEventQueue();
}

TEST_F(ThreadSend, ANullEventFailsAndLeavesTheQueueLocked)
{
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    GAsyncQueue* queue = thread.probe.eventQueue.load()->queue.load();
    log.clear();
    EXPECT_FALSE(thread.probe.sendEvent(nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to push the event to event queue" + nameAndId("zone")));

    std::atomic<bool> gotIn{false};
    std::thread other([&] {
        static_cast<void>(g_async_queue_length(queue));
        gotIn = true;
    });
    EXPECT_FALSE(eventually([&] { return gotIn.load(); }, std::chrono::milliseconds(50)));
    g_async_queue_unlock(queue);
    other.join();
    thread.probe.destroyEventQueue();
}

TEST_F(ThreadSend, QueuesTheEvent)
{
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    log.clear();
    EXPECT_TRUE(thread.probe.sendEvent(event.get()));
    EXPECT_THAT(log.texts(), ElementsAre("I the zone event is sent to zone thread(thread id : " +
                                         std::to_string(ZoneCore::currentThreadId()) + ")"));
    EXPECT_EQ(g_async_queue_try_pop(thread.probe.eventQueue.load()->queue.load()), event.get());
    thread.probe.destroyEventQueue();
}

TEST_F(ThreadSend, KeepsTheOrderAndEveryEventOfSeveralSenders)
{
    constexpr int EACH = 500;
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    log.clear();
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 3; ++sender) {
        senders.emplace_back([&thread, sender] {
            for (int number = 0; number < EACH; ++number) {
                auto* event = anyEvent();
                event->zoneState = static_cast<ZoneCore::ZoneState>(sender);
                event->eventData = reinterpret_cast<void*>(static_cast<std::intptr_t>(number));
                EXPECT_TRUE(thread.probe.sendEvent(event));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    std::array<std::intptr_t, 3> next{};
    GAsyncQueue* queue = thread.probe.eventQueue.load()->queue.load();
    while (auto* event = static_cast<ZoneEvent*>(g_async_queue_try_pop(queue))) {
        const std::unique_ptr<ZoneEvent> owner(event);
        auto& expected = next.at(static_cast<std::size_t>(event->zoneState));
        EXPECT_EQ(reinterpret_cast<std::intptr_t>(event->eventData), expected++);
    }
    EXPECT_THAT(next, testing::Each(EACH));
    thread.probe.destroyEventQueue();
}

TEST_F(ThreadSend, AWatchDogEventCarriesItsTwoNumbers)
{
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    log.clear();
    EXPECT_TRUE(thread.probe.sendWatchDogEvent(7, -3));
    const std::string sent =
        "I the zone event is sent to zone thread(thread id : " + std::to_string(ZoneCore::currentThreadId()) +
        ")";
    EXPECT_THAT(log.texts(), ElementsAre(sent, sent));

    const std::unique_ptr<ZoneEvent> event(
        static_cast<ZoneEvent*>(g_async_queue_try_pop(thread.probe.eventQueue.load()->queue.load())));
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->eventType, ZoneCore::eZONE_EVENT_WATCHDOG);
    EXPECT_EQ(event->zoneState, ZoneCore::NONE);
    const std::unique_ptr<ZoneCore::WatchDogEventData> numbers(
        static_cast<ZoneCore::WatchDogEventData*>(event->eventData));
    EXPECT_EQ(numbers->first, 7);
    EXPECT_EQ(numbers->second, -3);
    thread.probe.destroyEventQueue();
}

TEST_F(ThreadSend, AWatchDogEventFailsWhileTheLoopDoesNotRun)
{
    ThreadProbe thread("zone");
    log.clear();
    EXPECT_FALSE(thread.sendWatchDogEvent(1, 2));
    EXPECT_THAT(log.texts(), ElementsAre("E The current thread is not running" + nameAndId("zone")));
}

TEST_F(ThreadSend, AWatchDogEventThatCannotBeSentIsFreed)
{
    RunningThread thread("zone");
    log.clear();
    EXPECT_FALSE(thread.probe.sendWatchDogEvent(1, 2));
    EXPECT_THAT(log.texts(), ElementsAre("E The event queue is not created" + nameAndId("zone")));
}

TEST_F(ThreadSend, AnEventIsMadeOfWhatItIsGiven)
{
    int payload = 0;
    const std::unique_ptr<ZoneEvent> event(
        Thread::createZoneEvent(ZoneCore::eZONE_EVENT_CHANGE_STATE, ZoneCore::THAWED, &payload));
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->eventType, ZoneCore::eZONE_EVENT_CHANGE_STATE);
    EXPECT_EQ(event->zoneState, ZoneCore::THAWED);
    EXPECT_EQ(event->eventData, &payload);
}

TEST_F(ThreadSend, EventKindsHaveTheirNumbers)
{
    EXPECT_EQ(ZoneCore::eZONE_EVENT_START, 1);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_STOP, 2);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_FREEZE, 3);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_UNFREEZE, 4);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_ATTACH, 5);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_CHANGE_STATE, 6);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_RESTART, 7);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_CHECK_AUTO_START, 8);
    EXPECT_EQ(ZoneCore::eZONE_EVENT_WATCHDOG, 9);
}

// Timers

TEST_F(ThreadTimer, NeedsAContext)
{
    ThreadProbe thread;
    int count = 0;
    log.clear();
    EXPECT_EQ(thread.attachTimerSource(1, countAndGoOn, &count, true), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get the main context of thread" + nameAndId("")));
    EXPECT_THAT(thread.timerSources, IsEmpty());
}

TEST_F(ThreadTimer, RunsOnTheThreadsOwnContextUntilItsCallbackEndsIt)
{
    ThreadProbe thread("zone");
    int goesOn = 0;
    int ends = 0;
    void* first = thread.attachTimerSource(0, countAndGoOn, &goesOn, true);
    void* second = thread.attachTimerSource(0, countAndEnd, &ends, true);
    EXPECT_EQ(g_source_get_context(static_cast<GSource*>(first)), thread.mainContext);
    EXPECT_EQ(g_source_get_context(static_cast<GSource*>(second)), thread.mainContext);
    iterate(thread.mainContext);
    iterate(thread.mainContext);
    EXPECT_EQ(goesOn, 2);
    EXPECT_EQ(ends, 1);
}

TEST_F(ThreadTimer, TakesItsIntervalInMilliseconds)
{
    ThreadProbe thread("zone");
    int count = 0;
    static_cast<void>(thread.attachTimerSource(1234, countAndGoOn, &count, true));
    const int timeout = pollTimeoutOf(thread.mainContext);
    EXPECT_LE(timeout, 1234);
    EXPECT_GT(timeout, 200);
}

TEST_F(ThreadTimer, IsKeptWhenItIsAskedFor)
{
    ThreadProbe thread("zone");
    int count = 0;
    log.clear();
    void* kept = thread.attachTimerSource(1000, countAndGoOn, &count, true);
    void* notKept = thread.attachTimerSource(1000, countAndGoOn, &count, false);
    void* alsoKept = thread.attachTimerSource(1000, countAndGoOn, &count, true);
    EXPECT_THAT(thread.timerSources, ElementsAre(kept, alsoKept));
    EXPECT_THAT(log.texts(), ElementsAre("I Timer Source Count : 1" + nameAndId("zone"),
                                         "I Timer Source Count : 1" + nameAndId("zone"),
                                         "I Timer Source Count : 2" + nameAndId("zone")));
    thread.releaseEventSource(static_cast<GSource*>(notKept));
}

TEST_F(ThreadTimer, OnTheDefaultContextNeedsALoop)
{
    ThreadProbe thread;
    int count = 0;
    log.clear();
    EXPECT_FALSE(thread.addTimerEvent(250, countAndEnd, &count));
    EXPECT_THAT(log.texts(),
                ElementsAre("E Failed to add the timer event(thread name : , thread id : " +
                            std::to_string(ZoneCore::currentThreadId()) + ", timer interval : 250)"));
}

TEST_F(ThreadTimer, OnTheDefaultContextWhateverTheThreadsOwnIs)
{
    ThreadProbe thread("zone");
    int count = 0;
    EXPECT_TRUE(thread.addTimerEvent(0, countAndEnd, &count));
    iterate(thread.mainContext);
    EXPECT_EQ(count, 0);
    iterate(g_main_context_default());
    iterate(g_main_context_default());
    EXPECT_EQ(count, 1);
    EXPECT_THAT(thread.timerSources, IsEmpty());
}

TEST_F(ThreadTimer, ReleasingNoneOnlyLogs)
{
    ThreadProbe thread("zone");
    log.clear();
    thread.releaseEventSource(nullptr);
    EXPECT_THAT(log.texts(),
                ElementsAre("I release the event source from the main context" + nameAndId("zone")));
}

TEST_F(ThreadTimer, ReleasingTakesTheSourceOutOfItsContext)
{
    ThreadProbe thread("zone");
    int count = 0;
    void* timer = thread.attachTimerSource(0, countAndGoOn, &count, false);
    const SourcePtr watched = watch(timer);
    thread.releaseEventSource(static_cast<GSource*>(timer));
    EXPECT_TRUE(g_source_is_destroyed(watched.get()));
    iterate(thread.mainContext);
    EXPECT_EQ(count, 0);
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

// Gate

TEST_F(ThreadTeardown, TheGateClosesWhileTheLoopRests)
{
    RunningThread thread("zone");
    ASSERT_TRUE(eventually([&] { return thread.probe.closeGate(); }));
    EXPECT_TRUE(thread.probe.closeGate());
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
    ASSERT_TRUE(thread.closeGate());
    log.clear();
    std::thread([&] {
        ThreadGate closed;
        ASSERT_TRUE(closed.close());
        closed.guardThisThread();
        for (int round = 0; round < 3; ++round) {
            iterate(thread.mainContext);
        }
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
    const ContextPtr context(g_main_context_ref(thread->mainContext));
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
        const ContextPtr context(g_main_context_ref(thread->mainContext));
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
