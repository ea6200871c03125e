#include "Common/Thread.h"

#include "Common/Handles.h"
#include "Common/Log.h"
#include "Common/ThreadId.h"
#include "platform/watchdog/platform_watchdog.h"

namespace ZoneCore {

namespace {

constexpr int PREPARE_TIMEOUT_MS = 5000;

} // namespace

/// What a new thread takes with it: enough to outlive the object.
struct Thread::Entry
{
    Thread* thread;
    std::shared_ptr<LoopShare> share;
    GMainLoopPtr loop;
};

Thread::Thread()
{
    ZLOGI("Thread is created");
}

Thread::~Thread()
{
    if (!isDefaultContext && gthread != nullptr) {
        g_thread_unref(gthread);
    }
    if (eventSource != nullptr) {
        Thread::releaseEventSource(eventSource);
        eventSource = nullptr;
    }
    Thread::releaseEventSource(watchDogSource);
    watchDogSource = nullptr;
    while (!timerSources.empty()) {
        ZLOGI("remove the timer event source from the main context(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        Thread::releaseEventSource(timerSources.front());
        timerSources.erase(timerSources.begin());
        ZLOGI("the remained count of timer source in current context is %zu", timerSources.size());
    }
    if (mainLoop != nullptr) {
        g_main_loop_unref(mainLoop);
    }
    // For the default context this drops a reference that initialize() never took: whoever lets a thread use
    // it keeps one for that.
    if (mainContext != nullptr) {
        g_main_context_unref(mainContext);
    }
    ZLOGI("Thread is destroyed(thread name : %s, thread id : %d)", threadName.c_str(), currentThreadId());
}

bool Thread::initialize(bool useDefaultContext, const std::string& name)
{
    isDefaultContext = useDefaultContext;
    threadName = name;
    share->name = name;
    return isDefaultContext ? initializeDefaultContext() : initializeOwnContext();
}

bool Thread::initializeDefaultContext()
{
    mainLoop = g_main_loop_new(nullptr, FALSE);
    if (mainLoop == nullptr) {
        ZLOGE("[Default Context] Failed to create the main event loop(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        return false;
    }
    mainContext = g_main_loop_get_context(mainLoop);
    if (mainContext == nullptr) {
        ZLOGE("[Default Context] Failed to get the default context(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        return false;
    }
    return true;
}

bool Thread::initializeOwnContext()
{
    mainContext = g_main_context_new();
    if (mainContext == nullptr) {
        ZLOGE("[Thread Context] Failed to create the thread context(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        return false;
    }
    mainLoop = g_main_loop_new(mainContext, FALSE);
    if (mainLoop == nullptr) {
        ZLOGE("[Thread Context] Failed to create the main event loop(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        return false;
    }
    return true;
}

bool Thread::createEventQueue()
{
    auto* holder = new AsyncEventQueue;
    eventQueue.store(holder, std::memory_order_release);
    holder->queue.store(g_async_queue_new(), std::memory_order_release);
    if (holder->queue.load() == nullptr) {
        ZLOGE("Failed to create the async queue of thread(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        eventQueue.store(nullptr);
        delete holder;
        return false;
    }
    return true;
}

void Thread::destroyEventQueue()
{
    AsyncEventQueue* holder = eventQueue.exchange(nullptr);
    if (holder == nullptr) {
        return;
    }
    ZLOGI("destroy the async event queue(thread name : %s, thread id : %d)", threadName.c_str(),
          currentThreadId());
    if (GAsyncQueue* queue = holder->queue.exchange(nullptr); queue != nullptr) {
        g_async_queue_unref(queue);
    }
    delete holder;
}

bool Thread::attachEventSource()
{
    if (eventSource != nullptr) {
        ZLOGW("[THREAD] event source is already created(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        releaseEventSource(eventSource);
        eventSource = nullptr;
    }
    return createEventSource("ThreadEvent", prepareCallback, dispatchCallback, finalizeCallback);
}

bool Thread::createEventSource(const char* sourceName, gboolean (*prepare)(GSource*, gint*),
                               gboolean (*dispatch)(GSource*, GSourceFunc, gpointer),
                               void (*finalize)(GSource*))
{
    share->sourceFuncs = GSourceFuncs{prepare, nullptr, dispatch, finalize, nullptr, nullptr};
    eventSource = g_source_new(&share->sourceFuncs, sizeof(EventSource));
    if (eventSource == nullptr) {
        return false;
    }
    g_source_set_name(eventSource, sourceName);
    reinterpret_cast<EventSource*>(eventSource)->owner = this;
    static_cast<void>(g_source_attach(eventSource, mainContext));
    return true;
}

gboolean Thread::prepareCallback(GSource* source, gint* timeout)
{
    *timeout = PREPARE_TIMEOUT_MS;
    const ThreadGate::Pass pass;
    if (!pass) {
        return FALSE;
    }
    const auto* owner = ownerOf<Thread>(source);
    if (owner == nullptr) {
        return FALSE;
    }
    const AsyncEventQueue* holder = owner->queueHolder();
    return holder != nullptr && holder->asyncQueueLength() > 0;
}

gboolean Thread::dispatchCallback(GSource* source, GSourceFunc /*func*/, gpointer /*data*/)
{
    const ThreadGate::Pass pass;
    if (pass) {
        ZLOGI("[GSource Name : %s] Dispatch the event", g_source_get_name(source));
    }
    return G_SOURCE_CONTINUE;
}

void Thread::finalizeCallback(GSource* /*source*/) {}

void* Thread::attachTimerSource(unsigned interval, int (*func)(void*), void* data, bool keep)
{
    if (mainContext == nullptr) {
        ZLOGE("Failed to get the main context of thread(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        return nullptr;
    }
    GSource* source = g_timeout_source_new(interval);
    if (source == nullptr) {
        ZLOGE("Failed to create the gsource of timer(thread name : %s, thread id : %d, timer interval : %d)",
              threadName.c_str(), currentThreadId(), static_cast<int>(interval));
        return nullptr;
    }
    g_source_set_callback(source, func, data, nullptr);
    static_cast<void>(g_source_attach(source, mainContext));
    if (keep) {
        timerSources.push_back(source);
    }
    ZLOGI("Timer Source Count : %zu(thread name : %s, thread id : %d)", timerSources.size(),
          threadName.c_str(), currentThreadId());
    return source;
}

bool Thread::addTimerEvent(unsigned interval, int (*func)(void*), void* data)
{
    if (mainLoop == nullptr) {
        ZLOGE("Failed to add the timer event(thread name : %s, thread id : %d, timer interval : %d)",
              threadName.c_str(), currentThreadId(), static_cast<int>(interval));
        return false;
    }
    static_cast<void>(g_timeout_add(interval, func, data));
    return true;
}

void Thread::releaseEventSource(GSource* source)
{
    ZLOGI("release the event source from the main context(thread name : %s, thread id : %d)",
          threadName.c_str(), currentThreadId());
    if (source != nullptr) {
        g_source_destroy(source);
        g_source_unref(source);
    }
}

bool Thread::run()
{
    if (mainLoop == nullptr) {
        ZLOGE("Failed to get the main event loop(thread name : %s)", threadName.c_str());
        return false;
    }
    if (isRunning()) {
        ZLOGI("Thread is already running(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return true;
    }
    // The new thread is inside from its first moment on: it leaves when its loop starts.
    static_cast<void>(share->gate.enter());
    auto entry = std::make_unique<Entry>(Entry{this, share, GMainLoopPtr(g_main_loop_ref(mainLoop))});
    gthread = g_thread_new(threadName.c_str(), threadEntry, entry.get());
    if (gthread == nullptr) {
        share->gate.leave();
        ZLOGE("Failed to create gthread object(thread name : %s)", threadName.c_str());
        return false;
    }
    static_cast<void>(entry.release()); // the thread's now
    ZLOGI("thread is created(thread name : %s, thread id : %d)", threadName.c_str(), currentThreadId());
    return true;
}

gpointer Thread::threadEntry(gpointer data)
{
    const std::unique_ptr<Entry> entry(static_cast<Entry*>(data));
    Thread* thread = entry->thread;
    if (thread == nullptr) {
        ZLOGE("thread is NULL");
        return nullptr;
    }
    LoopShare& share = *entry->share;
    share.gate.guardThisThread();
    if (thread->watchDogEnabled &&
        !thread->registerWatchDog(thread->watchDogInterval, thread->watchDogNotifyPeriod)) {
        ZLOGE("Failed to set watch dog for thread(thread name : %s, thread id : %d)", share.name.c_str(),
              currentThreadId());
        share.gate.leave();
        return nullptr;
    }
    ZLOGI("Start thread(thread name : %s, thread id : %d)", share.name.c_str(), currentThreadId());
    share.gate.leave(); // from here on the object may be gone at any moment
    g_main_loop_run(entry->loop.get());
    ZLOGI("the main loop of thread is terminated(thread name : %s, thread id : %d)", share.name.c_str(),
          currentThreadId());
    return nullptr;
}

bool Thread::isRunning() const
{
    return mainLoop != nullptr && g_main_loop_is_running(mainLoop);
}

void Thread::terminate()
{
    if (!isRunning()) {
        ZLOGI("Thread is not running(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return;
    }
    ZLOGI("Thread is terminated(thread name : %s, thread id : %d)", threadName.c_str(), currentThreadId());
    g_main_loop_quit(mainLoop);
}

bool Thread::closeGate()
{
    return share->gate.close();
}

bool Thread::sendEvent(ZoneEvent* event)
{
    if (!isRunning()) {
        ZLOGE("The current thread is not running(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return false;
    }
    AsyncEventQueue* holder = queueHolder();
    if (holder == nullptr) {
        ZLOGE("The event queue is not created(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return false;
    }
    GAsyncQueue* queue = holder->queue.load(std::memory_order_acquire);
    if (queue == nullptr) {
        ZLOGE("Failed to lock the event queue(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return false;
    }
    g_async_queue_lock(queue);
    if (event == nullptr || holder->queue.load(std::memory_order_acquire) == nullptr) {
        // The queue stays locked here, on purpose.
        ZLOGE("Failed to push the event to event queue(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return false;
    }
    g_async_queue_push_unlocked(queue, event);
    if (GAsyncQueue* current = holder->queue.load(std::memory_order_acquire); current != nullptr) {
        g_async_queue_unlock(current);
        ZLOGI("the zone event is sent to %s thread(thread id : %d)", threadName.c_str(), currentThreadId());
        return true;
    }
    ZLOGE("Failed to unlock the event queue queue(thread name : %s, thread id : %d)", threadName.c_str(),
          currentThreadId());
    return false;
}

bool Thread::sendWatchDogEvent(int first, int second)
{
    if (!isRunning()) {
        ZLOGE("The current thread is not running(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return false;
    }
    auto payload = std::make_unique<WatchDogEventData>(WatchDogEventData{first, second});
    std::unique_ptr<ZoneEvent> event(createZoneEvent(eZONE_EVENT_WATCHDOG, NONE, payload.get()));
    if (event == nullptr) {
        ZLOGE("The current thread is not running(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        return false;
    }
    if (!sendEvent(event.get())) {
        return false;
    }
    // The queue's now; no receiver of this kind exists that would free the payload.
    static_cast<void>(event.release());
    static_cast<void>(payload.release());
    ZLOGI("the zone event is sent to %s thread(thread id : %d)", threadName.c_str(), currentThreadId());
    return true;
}

ZoneEvent* Thread::createZoneEvent(ZoneEventType type, const ZoneState& state, void* data)
{
    return new ZoneEvent{type, state, data};
}

void Thread::setWatchDog(bool enabled, int interval, int notifyPeriod)
{
    watchDogEnabled = enabled;
    watchDogInterval = interval;
    watchDogNotifyPeriod = notifyPeriod;
}

bool Thread::registerWatchDog(int interval, int notifyPeriod)
{
    if (watchDogSource != nullptr) {
        ZLOGW("Invalid reqeust to set watch dog timer source(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        releaseEventSource(watchDogSource);
        watchDogSource = nullptr;
    }
    watchDogSource = static_cast<GSource*>(
        attachTimerSource(static_cast<unsigned>(notifyPeriod), watchDogNotifyCallback, this, false));
    if (watchDogSource == nullptr) {
        ZLOGE("Failed to register the stallwarden(thread name : %s, thread id : %d, interval : %d)",
              threadName.c_str(), currentThreadId(), interval);
        return false;
    }
    static_cast<void>(platform_watchdog_register(interval));
    ZLOGI("Watchdog Is registered[%d / %d](thread name : %s, tid : %d)", interval, notifyPeriod,
          threadName.c_str(), currentThreadId());
    return true;
}

int Thread::watchDogNotifyCallback(void* /*data*/)
{
    const ThreadGate::Pass pass;
    if (pass) {
        static_cast<void>(platform_watchdog_notify());
    }
    return G_SOURCE_CONTINUE;
}

} // namespace ZoneCore
