#pragma once

#include "Common/AsyncEventQueue.h"
#include "Common/ThreadGate.h"
#include "Common/ZoneEvent.h"

#include <glib.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace ZoneCore {

class Thread;

/// A thread's custom event source: a GSource with its owner behind it.
struct EventSource
{
    GSource source;
    Thread* owner;
};

/// The base of every active object: a GLib main loop, a queue of zone events, a source that drains the queue
/// on that loop, and timers. It either borrows the process's default context and runs on the caller's thread
/// (the zone manager on the main thread) or makes a context of its own and runs on a thread of its own.
///
/// Nothing wakes a loop when an event is pushed: the event source asks for a poll timeout and looks when it
/// expires.
///
/// Threads: set up and destroyed by the main thread; the owning thread runs the loop, the dispatch and the
/// timers; other threads call sendEvent, sendWatchDogEvent, isRunning and terminate only. GLib's callbacks
/// point at the object, so it can be neither copied nor moved.
class Thread
{
public:
    Thread();
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Creates and attaches the source that drains the event queue, in place of an older one.
    /// @return false when the source cannot be created.
    [[nodiscard]] virtual bool attachEventSource();

    /// Adds a timer to the thread's own context.
    /// @param interval milliseconds
    /// @param keep true: the destructor releases the timer; false: the caller does, through
    /// releaseEventSource
    /// @return the GSource, or null
    virtual void* attachTimerSource(unsigned interval, int (*func)(void*), void* data, bool keep);

    /// Takes a source out of its context and drops the reference kept on it. Null only logs.
    virtual void releaseEventSource(GSource* source);

    /// Queues an event for this thread; called on any thread.
    /// @return false when it could not be delivered: the event then still belongs to the caller.
    virtual bool sendEvent(ZoneEvent* event);

    /// Queues an eZONE_EVENT_WATCHDOG event with a payload of these two numbers.
    virtual bool sendWatchDogEvent(int first, int second);

    /// Chooses the context and makes the loop.
    /// @param useDefaultContext true: the process's default context, run on the caller's thread
    /// @param name the thread's name in every log line
    [[nodiscard]] bool initialize(bool useDefaultContext, const std::string& name);

    [[nodiscard]] bool createEventQueue();

    /// Drops the queue and what is still in it; the events themselves are not freed.
    void destroyEventQueue();

    /// Adds a timer to the process's default context. It ends when the callback returns false.
    /// @param interval milliseconds
    [[nodiscard]] bool addTimerEvent(unsigned interval, int (*func)(void*), void* data);

    /// Starts the thread that runs the loop; for threads with a context of their own.
    [[nodiscard]] bool run();

    /// True exactly while the loop runs.
    [[nodiscard]] bool isRunning() const;

    /// Quits the loop, without waiting for the thread. Safe on any thread.
    void terminate();

    /// Makes sure that the thread runs no more of our code, without waiting. Main thread, during the
    /// teardown.
    /// @return false while the thread is in the middle of something; the object must then stay alive.
    [[nodiscard]] bool closeGate();

    /// Registers the calling thread with the watchdog service and arms the timer that notifies it.
    /// @param interval seconds; @param notifyPeriod milliseconds
    [[nodiscard]] bool registerWatchDog(int interval, int notifyPeriod);

    [[nodiscard]] static ZoneEvent* createZoneEvent(ZoneEventType type, const ZoneState& state, void* data);

    [[nodiscard]] const std::string& name() const { return threadName; }
    [[nodiscard]] bool usesDefaultContext() const { return isDefaultContext; }
    [[nodiscard]] bool hasEventQueue() const { return eventQueue.load() != nullptr; }

    /// Sets what the thread hands to the watchdog service when its loop starts. Before run().
    /// @param interval seconds; @param notifyPeriod milliseconds
    void setWatchDog(bool enabled, int interval, int notifyPeriod);

protected:
    /// Creates the event source with these functions, names it and attaches it. The overrides of
    /// attachEventSource differ in nothing else.
    [[nodiscard]] bool createEventSource(const char* sourceName, gboolean (*prepare)(GSource*, gint*),
                                         gboolean (*dispatch)(GSource*, GSourceFunc, gpointer),
                                         void (*finalize)(GSource*));

    /// Ready when the owner's queue holds an event; asks for a poll timeout of 5000 ms.
    static gboolean prepareCallback(GSource* source, gint* timeout);
    static gboolean dispatchCallback(GSource* source, GSourceFunc func, gpointer data);
    static void finalizeCallback(GSource* source);

    /// The source's owner as the class that it is; null for a source without one.
    template <typename Owner>
    [[nodiscard]] static Owner* ownerOf(GSource* source)
    {
        return source == nullptr ? nullptr
                                 : static_cast<Owner*>(reinterpret_cast<EventSource*>(source)->owner);
    }

    [[nodiscard]] AsyncEventQueue* queueHolder() const { return eventQueue.load(std::memory_order_acquire); }

    // All fields: written by the main thread during set-up and teardown, while the loop does not run.
    // Exceptions say so.

    /// While attached.
    GSource* eventSource = nullptr;
    bool isDefaultContext = false;
    GMainLoop* mainLoop = nullptr;       ///< read by every sender
    GMainContext* mainContext = nullptr; ///< for a default-context thread without a reference of its own
    GThread* gthread = nullptr;
    GSource* watchDogSource = nullptr; ///< the notify timer; set by the owning thread before its loop starts
    /// Read by every sender; made after other threads have been started.
    std::atomic<AsyncEventQueue*> eventQueue{nullptr};
    std::string threadName;
    bool watchDogEnabled = false;
    int watchDogInterval = 360;       ///< seconds
    int watchDogNotifyPeriod = 15000; ///< milliseconds
    std::vector<GSource*> timerSources;

private:
    /// What the running thread and GLib go on using after the object itself has been deleted.
    struct LoopShare
    {
        ThreadGate gate;
        /// GLib reads it whenever it lets go of the event source.
        GSourceFuncs sourceFuncs{};
        std::string name; ///< a copy of threadName for the running thread
    };
    struct Entry;

    static gpointer threadEntry(gpointer data);
    static int watchDogNotifyCallback(void* data);
    [[nodiscard]] bool initializeDefaultContext();
    [[nodiscard]] bool initializeOwnContext();

    std::shared_ptr<LoopShare> share = std::make_shared<LoopShare>();
};

} // namespace ZoneCore
