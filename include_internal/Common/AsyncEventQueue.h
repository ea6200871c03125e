#pragma once

#include <glib.h>

#include <atomic>

namespace ZoneCore {

/// Holds a thread's queue of ZoneEvent pointers. Written by the owner's creating thread, read by every
/// sender.
class AsyncEventQueue
{
public:
    AsyncEventQueue() = default;
    /// Drops the queue. Passes on a null queue too, which GLib reports and ignores.
    ~AsyncEventQueue() { g_async_queue_unref(queue.load()); }
    AsyncEventQueue(const AsyncEventQueue&) = delete;
    AsyncEventQueue& operator=(const AsyncEventQueue&) = delete;

    /// The number of waiting events; 0 without a queue.
    [[nodiscard]] int asyncQueueLength() const
    {
        GAsyncQueue* current = queue.load(std::memory_order_acquire);
        return current == nullptr ? 0 : g_async_queue_length(current);
    }

    std::atomic<GAsyncQueue*> queue{nullptr};
};

} // namespace ZoneCore
