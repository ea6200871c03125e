#pragma once

#include "Common/Thread.h"
#include "tests/support/unit/Seam.h"

#include <glib.h>
#include <gmock/gmock.h>

#include <vector>

/// For programs that look at the events on their way to a thread, or let one be missing. They are linked with
/// --wrap for Thread::createZoneEvent.
namespace ZoneTest {

/// Whether Thread::createZoneEvent gives null, as seen from other classes.
inline bool createsNoEvent = false;

/// Keeps copies of the events that the calling thread queues, as long as the object lives.
class QueuedEvents
{
public:
    QueuedEvents() { current = this; }
    ~QueuedEvents() { current = nullptr; }
    QueuedEvents(const QueuedEvents&) = delete;
    QueuedEvents& operator=(const QueuedEvents&) = delete;

    static void keep(const ZoneCore::ZoneEvent& event)
    {
        if (current != nullptr) {
            current->events.push_back(event);
        }
    }

    std::vector<ZoneCore::ZoneEvent> events;

private:
    static inline thread_local QueuedEvents* current = nullptr;
};

MATCHER_P3(IsEvent, type, state, data, "")
{
    return arg.eventType == type && arg.zoneState == state && arg.eventData == data;
}

#define ZONE_TEST_CREATE_EVENT "_ZN8ZoneCore6Thread15createZoneEventENS_14_ZoneEventTypeERKNS_9ZoneStateEPv"
ZoneCore::ZoneEvent* genuineCreateZoneEvent(ZoneCore::ZoneEventType type, const ZoneCore::ZoneState& state,
                                            void* data) asm("__real_" ZONE_TEST_CREATE_EVENT);
ZoneCore::ZoneEvent* createZoneEvent(ZoneCore::ZoneEventType type, const ZoneCore::ZoneState& state,
                                     void* data) asm("__wrap_" ZONE_TEST_CREATE_EVENT);

/// What the linker puts in the place of Thread::createZoneEvent.
// NOLINTNEXTLINE(misc-definitions-in-headers): one source of a program includes this.
ZoneCore::ZoneEvent* createZoneEvent(ZoneCore::ZoneEventType type, const ZoneCore::ZoneState& state,
                                     void* data)
{
    return createsNoEvent ? nullptr : genuineCreateZoneEvent(type, state, data);
}

} // namespace ZoneTest

// NOLINTNEXTLINE(misc-definitions-in-headers): one source of a program includes this.
extern "C" void g_async_queue_push_unlocked(GAsyncQueue* queue, gpointer data)
{
    ZoneTest::QueuedEvents::keep(*static_cast<ZoneCore::ZoneEvent*>(data));
    ZoneTest::genuine(&g_async_queue_push_unlocked, "g_async_queue_push_unlocked")(queue, data);
}
