#include "Common/Thread.h"

#include "tests/Common/ThreadFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::Contains;
using testing::ElementsAre;
using ZoneCore::Thread;
using ZoneCore::ZoneEvent;
using ZoneTest::anyEvent;
using ZoneTest::endLoop;
using ZoneTest::eventually;
using ZoneTest::nameAndId;
using ZoneTest::RunningThread;
using ZoneTest::ThreadFixture;
using ZoneTest::ThreadProbe;

namespace {

// Two numbers of 32 bits and an address, on every machine: three words where addresses have 32 bits.
static_assert(offsetof(ZoneEvent, zoneState) == 4 && offsetof(ZoneEvent, eventData) == 8 &&
              sizeof(ZoneEvent) == 8 + sizeof(void*));

using ThreadSend = ThreadFixture;

} // namespace

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
