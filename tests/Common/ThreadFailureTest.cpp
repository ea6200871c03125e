// What a Thread does when GLib cannot give it what it asks for: the functions of GLib that make something are
// replaced in this program.
#include "tests/Common/ThreadProbe.h"
#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/LogCapture.h"
#include "tests/support/unit/Seam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

using testing::Contains;
using testing::ElementsAre;
using ZoneCore::AsyncEventQueue;
using ZoneCore::Thread;
using ZoneCore::ZoneEvent;
using ZoneTest::endLoop;
using ZoneTest::eventually;
using ZoneTest::genuine;
using ZoneTest::LogCapture;
using ZoneTest::nameAndId;
using ZoneTest::ThreadProbe;

namespace {

/// The function of GLib that fails; null for none.
const char* failing = nullptr;
/// The holder that loses its queue when the queue is locked, or when an event is pushed.
AsyncEventQueue* losesQueueWhenLocked = nullptr;
AsyncEventQueue* losesQueueWhenPushed = nullptr;
int droppedContexts = 0;
/// A new thread is not told whose it is.
bool losesItsObject = false;

bool fails(const char* function)
{
    return failing != nullptr && std::string(failing) == function;
}

} // namespace

extern "C" {

GMainLoop* g_main_loop_new(GMainContext* context, gboolean isRunning)
{
    return fails("g_main_loop_new") ? nullptr
                                    : genuine(&g_main_loop_new, "g_main_loop_new")(context, isRunning);
}

GMainContext* g_main_loop_get_context(GMainLoop* loop)
{
    return fails("g_main_loop_get_context")
               ? nullptr
               : genuine(&g_main_loop_get_context, "g_main_loop_get_context")(loop);
}

GMainContext* g_main_context_new()
{
    return fails("g_main_context_new") ? nullptr : genuine(&g_main_context_new, "g_main_context_new")();
}

void g_main_context_unref(GMainContext* context)
{
    ++droppedContexts;
    genuine(&g_main_context_unref, "g_main_context_unref")(context);
}

GSource* g_source_new(GSourceFuncs* functions, guint size)
{
    return fails("g_source_new") ? nullptr : genuine(&g_source_new, "g_source_new")(functions, size);
}

GSource* g_timeout_source_new(guint interval)
{
    return fails("g_timeout_source_new") ? nullptr
                                         : genuine(&g_timeout_source_new, "g_timeout_source_new")(interval);
}

GThread* g_thread_new(const gchar* name, GThreadFunc function, gpointer data)
{
    if (fails("g_thread_new")) {
        return nullptr;
    }
    if (losesItsObject) {
        *static_cast<Thread**>(data) = nullptr; // what it gets begins with that
    }
    return genuine(&g_thread_new, "g_thread_new")(name, function, data);
}

GAsyncQueue* g_async_queue_new()
{
    return fails("g_async_queue_new") ? nullptr : genuine(&g_async_queue_new, "g_async_queue_new")();
}

void g_async_queue_lock(GAsyncQueue* queue)
{
    genuine(&g_async_queue_lock, "g_async_queue_lock")(queue);
    if (losesQueueWhenLocked != nullptr) {
        losesQueueWhenLocked->queue = nullptr;
    }
}

void g_async_queue_push_unlocked(GAsyncQueue* queue, gpointer data)
{
    genuine(&g_async_queue_push_unlocked, "g_async_queue_push_unlocked")(queue, data);
    if (losesQueueWhenPushed != nullptr) {
        losesQueueWhenPushed->queue = nullptr;
    }
}
}

namespace {

class ThreadFailure : public testing::Test
{
protected:
    ~ThreadFailure() override
    {
        failing = nullptr;
        losesItsObject = false;
        losesQueueWhenLocked = nullptr;
        losesQueueWhenPushed = nullptr;
    }

    /// A failed step leaves an object that can be destroyed.
    void destroy(ThreadProbe* thread)
    {
        log.clear();
        delete thread;
        EXPECT_THAT(log.texts(), Contains("I Thread is destroyed" + nameAndId("zone")));
        EXPECT_THAT(log.otherLines(), testing::IsEmpty());
    }

    LogCapture log;
};

/// An event sent to a thread whose queue disappears meanwhile.
class ThreadSendFailure : public ThreadFailure
{
protected:
    ThreadSendFailure()
    {
        EXPECT_TRUE(thread.createEventQueue());
        holder = thread.eventQueue;
        queue = holder->queue;
        EXPECT_TRUE(thread.run());
        EXPECT_TRUE(eventually([this] { return thread.isRunning(); }));
        log.clear();
    }

    ~ThreadSendFailure() override
    {
        g_async_queue_unlock(queue);
        holder->queue = queue;
        endLoop(thread);
        thread.destroyEventQueue();
    }

    ThreadProbe thread{"zone"};
    AsyncEventQueue* holder = nullptr;
    GAsyncQueue* queue = nullptr;
    const std::unique_ptr<ZoneEvent> event{
        Thread::createZoneEvent(ZoneCore::eZONE_EVENT_STOP, ZoneCore::NONE, nullptr)};
};

} // namespace

TEST_F(ThreadFailure, TheDefaultContextHasNoLoop)
{
    auto* thread = new ThreadProbe;
    log.clear();
    failing = "g_main_loop_new";
    EXPECT_FALSE(thread->initialize(true, "zone"));
    EXPECT_THAT(log.texts(),
                ElementsAre("E [Default Context] Failed to create the main event loop" + nameAndId("zone")));
    EXPECT_FALSE(thread->isRunning());
    destroy(thread);
}

TEST_F(ThreadFailure, TheLoopHasNoDefaultContext)
{
    auto* thread = new ThreadProbe;
    log.clear();
    failing = "g_main_loop_get_context";
    EXPECT_FALSE(thread->initialize(true, "zone"));
    EXPECT_THAT(log.texts(),
                ElementsAre("E [Default Context] Failed to get the default context" + nameAndId("zone")));
    destroy(thread);
}

TEST_F(ThreadFailure, AThreadHasNoContextOfItsOwn)
{
    auto* thread = new ThreadProbe;
    log.clear();
    failing = "g_main_context_new";
    EXPECT_FALSE(thread->initialize(false, "zone"));
    EXPECT_THAT(log.texts(),
                ElementsAre("E [Thread Context] Failed to create the thread context" + nameAndId("zone")));
    EXPECT_EQ(thread->mainLoop, nullptr);
    destroy(thread);
}

TEST_F(ThreadFailure, AThreadHasNoLoopOfItsOwn)
{
    auto* thread = new ThreadProbe;
    log.clear();
    failing = "g_main_loop_new";
    EXPECT_FALSE(thread->initialize(false, "zone"));
    EXPECT_THAT(log.texts(),
                ElementsAre("E [Thread Context] Failed to create the main event loop" + nameAndId("zone")));
    destroy(thread);
}

TEST_F(ThreadFailure, ThereIsNoQueue)
{
    auto* thread = new ThreadProbe("zone");
    log.clear();
    failing = "g_async_queue_new";
    EXPECT_FALSE(thread->createEventQueue());
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to create the async queue of thread" + nameAndId("zone")));
    EXPECT_THAT(log.otherLines(), Contains(testing::HasSubstr("g_async_queue_unref: assertion")))
        << "the holder is deleted, which hands its null queue to GLib";
    EXPECT_FALSE(thread->hasEventQueue());
    destroy(thread);
}

TEST_F(ThreadFailure, ThereIsNoEventSource)
{
    auto* thread = new ThreadProbe("zone");
    log.clear();
    failing = "g_source_new";
    EXPECT_FALSE(thread->attachEventSource());
    EXPECT_THAT(log.texts(), testing::IsEmpty());
    EXPECT_EQ(thread->eventSource, nullptr);
    destroy(thread);
}

TEST_F(ThreadFailure, ThereIsNoSecondEventSourceAndTheFirstIsGone)
{
    auto* thread = new ThreadProbe("zone");
    ASSERT_TRUE(thread->attachEventSource());
    log.clear();
    failing = "g_source_new";
    EXPECT_FALSE(thread->attachEventSource());
    EXPECT_THAT(log.texts(),
                ElementsAre("W [THREAD] event source is already created" + nameAndId("zone"),
                            "I release the event source from the main context" + nameAndId("zone")));
    EXPECT_EQ(thread->eventSource, nullptr);
    destroy(thread);
}

TEST_F(ThreadFailure, ThereIsNoTimer)
{
    auto* thread = new ThreadProbe("zone");
    log.clear();
    failing = "g_timeout_source_new";
    EXPECT_EQ(thread->attachTimerSource(
                  75, [](void*) { return 0; }, nullptr, true),
              nullptr);
    EXPECT_THAT(log.texts(),
                ElementsAre("E Failed to create the gsource of timer(thread name : zone, thread id : " +
                            std::to_string(ZoneCore::currentThreadId()) + ", timer interval : 75)"));
    EXPECT_THAT(thread->timerSources, testing::IsEmpty());
    destroy(thread);
}

TEST_F(ThreadFailure, ThereIsNoThread)
{
    auto* thread = new ThreadProbe("zone");
    log.clear();
    failing = "g_thread_new";
    EXPECT_FALSE(thread->run());
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to create gthread object(thread name : zone)"));
    EXPECT_FALSE(thread->isRunning());
    EXPECT_TRUE(thread->closeGate()) << "nobody is inside";
    destroy(thread);
}

TEST_F(ThreadFailure, AThreadWithoutItsObjectEndsAtOnce)
{
    auto* thread = new ThreadProbe("zone");
    losesItsObject = true;
    log.clear();
    EXPECT_TRUE(thread->run());
    static_cast<void>(g_thread_join(g_thread_ref(thread->gthread)));
    EXPECT_THAT(log.texts(),
                testing::UnorderedElementsAre("I thread is created" + nameAndId("zone"), "E thread is NULL"));
    EXPECT_FALSE(thread->isRunning());
    destroy(thread);
}

TEST_F(ThreadFailure, ADefaultContextLosesAReferenceThatWasNeverTaken)
{
    for (const bool useDefault : {true, false}) {
        auto* thread = new ThreadProbe("zone", useDefault);
        droppedContexts = 0;
        delete thread;
        EXPECT_EQ(droppedContexts, 1);
    }
}

TEST_F(ThreadSendFailure, TheQueueIsGoneOnceItIsLocked)
{
    losesQueueWhenLocked = holder;
    EXPECT_FALSE(thread.sendEvent(event.get()));
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to push the event to event queue" + nameAndId("zone")));
    EXPECT_EQ(g_async_queue_length_unlocked(queue), 0);
}

TEST_F(ThreadSendFailure, TheQueueIsGoneOnceTheEventIsIn)
{
    losesQueueWhenPushed = holder;
    EXPECT_FALSE(thread.sendEvent(event.get()));
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to unlock the event queue queue" + nameAndId("zone")));
    EXPECT_EQ(g_async_queue_try_pop_unlocked(queue), event.get());
}
