// What a Thread asks of GLib and of the watchdog service, and in which order: by GlibCalls.cpp, the calls
// stand in the log among the thread's records.
#include "tests/Common/GlibCalls.h"
#include "tests/Common/ThreadFixture.h"
#include "tests/support/unit/Seam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::ElementsAreArray;
using ZoneCore::currentThreadId;
using ZoneCore::ZoneEvent;
using ZoneTest::anyEvent;
using ZoneTest::countAndEnd;
using ZoneTest::countAndGoOn;
using ZoneTest::endLoop;
using ZoneTest::eventually;
using ZoneTest::lastTimer;
using ZoneTest::LogRecord;
using ZoneTest::nameAndId;
using ZoneTest::named;
using ZoneTest::nameOf;
using ZoneTest::noteCall;
using ZoneTest::RunningThread;
using ZoneTest::ThreadFixture;
using ZoneTest::ThreadProbe;

namespace {

class ThreadCalls : public ThreadFixture
{
protected:
    /// The kernel's id of the thread that has logged beside the test's own.
    [[nodiscard]] pid_t otherThread() const
    {
        const auto records = log.records();
        const auto other = std::ranges::find_if(
            records, [](const LogRecord& record) { return record.thread != currentThreadId(); });
        return other == records.end() ? 0 : other->thread;
    }

    [[nodiscard]] std::vector<std::string> textsOf(pid_t thread) const
    {
        std::vector<std::string> texts;
        for (const auto& record : log.records()) {
            if (record.thread == thread) {
                texts.push_back(std::string(1, record.level) + " " + record.body);
            }
        }
        return texts;
    }

    /// Runs a thread's loop until it is there, then ends it.
    static void runOnce(ThreadProbe& thread)
    {
        ASSERT_TRUE(thread.run());
        ASSERT_TRUE(eventually([&] { return thread.isRunning(); }));
        endLoop(thread);
    }

    /// The last act of a thread, as it has a reference of its own on its loop.
    const std::string ownReference = "D g_main_loop_unref(loop)";
    const std::string id = nameAndId("zone");
    const std::string release = "I release the event source from the main context" + id;
};

/// A thread that tells of its virtual operations.
class Overriding : public ThreadProbe
{
public:
    using ThreadProbe::ThreadProbe;

    void* attachTimerSource(unsigned interval, int (*func)(void*), void* data, bool keep) override
    {
        noteCall(keep ? "attachTimerSource, kept" : "attachTimerSource");
        return ThreadProbe::attachTimerSource(interval, func, data, keep);
    }
    void releaseEventSource(GSource* source) override
    {
        noteCall("releaseEventSource(" + nameOf(source) + ")");
        ThreadProbe::releaseEventSource(source);
    }
    bool sendEvent(ZoneEvent* event) override
    {
        noteCall("sendEvent of kind " + std::to_string(event->eventType));
        return false;
    }
};

} // namespace

// Set-up

TEST_F(ThreadCalls, TheDefaultContextComesWithItsLoop)
{
    ThreadProbe thread;
    const ZoneCore::GMainContextPtr taken(g_main_context_ref(g_main_context_default()));
    static_cast<void>(g_main_context_ref(taken.get())); // for the thread's destructor
    log.clear();
    EXPECT_TRUE(thread.initialize(true, "zone"));
    EXPECT_THAT(log.texts(), ElementsAre("D g_main_loop_new(null, 0)", "D g_main_loop_get_context(loop)"));
}

TEST_F(ThreadCalls, AnOwnContextIsMadeBeforeItsLoop)
{
    ThreadProbe thread;
    log.clear();
    EXPECT_TRUE(thread.initialize(false, "zone"));
    EXPECT_THAT(log.texts(), ElementsAre("D g_main_context_new", "D g_main_loop_new(context, 0)"));
}

TEST_F(ThreadCalls, AQueueIsDroppedAfterItsRecordAndItsHolderWithNothingInIt)
{
    ThreadProbe thread("zone");
    log.clear();
    EXPECT_TRUE(thread.createEventQueue());
    EXPECT_THAT(log.texts(), ElementsAre("D g_async_queue_new"));
    log.clear();
    thread.destroyEventQueue();
    EXPECT_THAT(log.texts(), ElementsAre("I destroy the async event queue" + id,
                                         "D g_async_queue_unref(queue)", "D g_async_queue_unref(null)"));
}

TEST_F(ThreadCalls, AHolderThatHasLostItsQueueIsDroppedAllTheSame)
{
    ThreadProbe thread("zone");
    ASSERT_TRUE(thread.createEventQueue());
    g_async_queue_unref(thread.eventQueue.load()->queue.exchange(nullptr));
    log.clear();
    thread.destroyEventQueue();
    EXPECT_FALSE(thread.hasEventQueue());
    EXPECT_THAT(log.texts(),
                ElementsAre("I destroy the async event queue" + id, "D g_async_queue_unref(null)"));
}

// Sources

TEST_F(ThreadCalls, AnEventSourceIsNamedAndOwnedBeforeItIsAttached)
{
    Overriding thread("zone");
    const std::vector<std::string> attached = {"D g_source_new", "D g_source_set_name(events, ThreadEvent)",
                                               "D g_source_attach(events, context)"};
    log.clear();
    EXPECT_TRUE(thread.attachEventSource());
    EXPECT_THAT(log.texts(), ElementsAreArray(attached));
    EXPECT_EQ(reinterpret_cast<ZoneCore::EventSource*>(thread.eventSource)->owner, &thread);

    log.clear();
    EXPECT_TRUE(thread.attachEventSource());
    std::vector<std::string> again = {"W [THREAD] event source is already created" + id,
                                      "D releaseEventSource(events)", release, "D g_source_destroy(events)",
                                      "D g_source_unref(events)"};
    again.insert(again.end(), attached.begin(), attached.end());
    EXPECT_THAT(log.texts(), ElementsAreArray(again));
}

TEST_F(ThreadCalls, ATimerIsMadeThenArmedThenCounted)
{
    ThreadProbe thread("zone");
    int count = 0;
    log.clear();
    void* const timer = thread.attachTimerSource(75, countAndEnd, &count, true);
    EXPECT_THAT(log.texts(),
                ElementsAre("D g_timeout_source_new(75)", "D g_source_set_callback(timer of 75)",
                            "D g_source_attach(timer of 75, context)", "I Timer Source Count : 1" + id));
    EXPECT_EQ(nameOf(timer), "timer of 75");
    EXPECT_EQ(lastTimer.function, countAndEnd);
    EXPECT_EQ(lastTimer.data, &count);
}

TEST_F(ThreadCalls, AnIntervalBeyondTheSignedRangeIsHandedOnAsItIs)
{
    ThreadProbe thread("zone");
    log.clear();
    EXPECT_NE(thread.attachTimerSource(3000000000, countAndEnd, nullptr, true), nullptr);
    EXPECT_EQ(log.texts().at(0), "D g_timeout_source_new(3000000000)");
}

TEST_F(ThreadCalls, ATimerOfTheDefaultContextIsAddedInSilence)
{
    ThreadProbe thread("zone");
    int count = 0;
    log.clear();
    EXPECT_TRUE(thread.addTimerEvent(250, countAndGoOn, &count));
    EXPECT_THAT(log.texts(), ElementsAre("D g_timeout_add(250)"));
    EXPECT_EQ(lastTimer.function, countAndGoOn);
    EXPECT_EQ(lastTimer.data, &count);
}

TEST_F(ThreadCalls, ASourceIsReleasedAfterTheRecord)
{
    ThreadProbe thread("zone");
    void* const timer = thread.attachTimerSource(75, countAndEnd, nullptr, false);
    log.clear();
    thread.releaseEventSource(static_cast<GSource*>(timer));
    EXPECT_THAT(log.texts(),
                ElementsAre(release, "D g_source_destroy(timer of 75)", "D g_source_unref(timer of 75)"));
}

// Watchdog

TEST_F(ThreadCalls, TheTimerIsThereBeforeTheWatchdogIsTold)
{
    Overriding thread("zone");
    const std::vector<std::string> registered = {"D attachTimerSource",
                                                 "D g_timeout_source_new(15000)",
                                                 "D g_source_set_callback(timer of 15000)",
                                                 "D g_source_attach(timer of 15000, context)",
                                                 "I Timer Source Count : 0" + id,
                                                 "D platform_watchdog_register(360)",
                                                 "I Watchdog Is registered[360 / 15000]" +
                                                     nameAndId("zone", "tid")};
    log.clear();
    EXPECT_TRUE(thread.registerWatchDog(360, 15000));
    EXPECT_THAT(log.texts(), ElementsAreArray(registered));

    log.clear();
    EXPECT_EQ(lastTimer.function(lastTimer.data), G_SOURCE_CONTINUE);
    EXPECT_THAT(log.texts(), ElementsAre("D platform_watchdog_notify"));

    log.clear();
    EXPECT_TRUE(thread.registerWatchDog(360, 15000));
    std::vector<std::string> again = {
        "W Invalid reqeust to set watch dog timer source" + id, "D releaseEventSource(timer of 15000)",
        release, "D g_source_destroy(timer of 15000)", "D g_source_unref(timer of 15000)"};
    again.insert(again.end(), registered.begin(), registered.end());
    EXPECT_THAT(log.texts(), ElementsAreArray(again));
}

// Running

TEST_F(ThreadCalls, TheThreadIsMadeThenTold)
{
    ThreadProbe thread("zone");
    log.clear();
    runOnce(thread);
    const pid_t other = otherThread();
    const std::string there = "(thread name : zone, thread id : " + std::to_string(other) + ")";
    EXPECT_THAT(textsOf(other), ElementsAre("I Start thread" + there, "D g_main_loop_run",
                                            "I the main loop of thread is terminated" + there, ownReference));
    EXPECT_THAT(textsOf(currentThreadId()),
                ElementsAre("D g_thread_new(zone)", "I thread is created" + id, "I Thread is terminated" + id,
                            "D g_main_loop_quit(loop)"));
}

TEST_F(ThreadCalls, TheWatchdogIsToldOfAThreadBeforeItsLoopStarts)
{
    ThreadProbe thread("zone");
    thread.setWatchDog(true, 180, 20000);
    log.clear();
    runOnce(thread);
    const pid_t other = otherThread();
    const std::string there = "(thread name : zone, thread id : " + std::to_string(other) + ")";
    const std::string tid = "(thread name : zone, tid : " + std::to_string(other) + ")";
    EXPECT_THAT(textsOf(other),
                ElementsAre("D g_timeout_source_new(20000)", "D g_source_set_callback(timer of 20000)",
                            "D g_source_attach(timer of 20000, context)", "I Timer Source Count : 0" + there,
                            "D platform_watchdog_register(180)",
                            "I Watchdog Is registered[180 / 20000]" + tid, "I Start thread" + there,
                            "D g_main_loop_run", "I the main loop of thread is terminated" + there,
                            ownReference));
}

// Sending

TEST_F(ThreadCalls, AnEventIsPushedBetweenLockAndUnlock)
{
    const std::unique_ptr<ZoneEvent> event(anyEvent());
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    named(event.get(), "event");
    log.clear();
    EXPECT_TRUE(thread.probe.sendEvent(event.get()));
    EXPECT_THAT(log.texts(),
                ElementsAre("D g_async_queue_lock(queue)", "D g_async_queue_push_unlocked(queue, event)",
                            "D g_async_queue_unlock(queue)",
                            "I the zone event is sent to zone thread(thread id : " +
                                std::to_string(currentThreadId()) + ")"));
    thread.probe.destroyEventQueue();
}

TEST_F(ThreadCalls, ANullEventLeavesTheQueueLocked)
{
    RunningThread thread("zone");
    ASSERT_TRUE(thread.probe.createEventQueue());
    GAsyncQueue* const queue = thread.probe.eventQueue.load()->queue.load();
    log.clear();
    EXPECT_FALSE(thread.probe.sendEvent(nullptr));
    EXPECT_THAT(log.texts(),
                ElementsAre("D g_async_queue_lock(queue)", "E Failed to push the event to event queue" + id));
    g_async_queue_unlock(queue);
    thread.probe.destroyEventQueue();
}

TEST_F(ThreadCalls, AWatchDogEventGoesTheWayOfEveryEvent)
{
    Overriding thread("zone");
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(eventually([&] { return thread.isRunning(); }));
    log.clear();
    EXPECT_FALSE(thread.sendWatchDogEvent(1, 2));
    EXPECT_THAT(log.texts(), ElementsAre("D sendEvent of kind 9"));
    endLoop(thread);
}

// Teardown

TEST_F(ThreadCalls, TheTeardownTakesItsStepsInOrder)
{
    auto thread = std::make_unique<Overriding>("zone");
    thread->setWatchDog(true, 180, 20000);
    ASSERT_TRUE(thread->attachEventSource());
    ASSERT_NE(thread->attachTimerSource(75, countAndGoOn, nullptr, true), nullptr);
    ASSERT_NE(thread->attachTimerSource(76, countAndGoOn, nullptr, true), nullptr);
    runOnce(*thread);
    log.clear();
    thread.reset();

    const std::string remove = "I remove the timer event source from the main context" + id;
    const std::string remained = "I the remained count of timer source in current context is ";
    EXPECT_THAT(log.texts(),
                ElementsAre("D g_thread_unref(thread)",                                        //
                            release, "D g_source_destroy(events)", "D g_source_unref(events)", //
                            release, "D g_source_destroy(timer of 20000)", "D g_source_unref(timer of 20000)",
                            remove, release, "D g_source_destroy(timer of 75)",
                            "D g_source_unref(timer of 75)", remained + "1", //
                            remove, release, "D g_source_destroy(timer of 76)",
                            "D g_source_unref(timer of 76)", remained + "0", //
                            "D g_main_loop_unref(loop)", "D g_main_context_unref(context)",
                            "I Thread is destroyed" + id));
}

TEST_F(ThreadCalls, TheTeardownOfABareThreadReleasesNothing)
{
    auto thread = std::make_unique<ThreadProbe>();
    log.clear();
    thread.reset();
    EXPECT_THAT(log.texts(), ElementsAre("I release the event source from the main context" + nameAndId(""),
                                         "I Thread is destroyed" + nameAndId("")));
}

TEST_F(ThreadCalls, ADefaultContextThreadDropsTheContextButNoThread)
{
    auto thread = std::make_unique<ThreadProbe>("zone", true);
    thread->gthread = g_thread_self();
    log.clear();
    thread.reset();
    EXPECT_THAT(log.texts(), ElementsAre(release, "D g_main_loop_unref(loop)",
                                         "D g_main_context_unref(context)", "I Thread is destroyed" + id));
}
