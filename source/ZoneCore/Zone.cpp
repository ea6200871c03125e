#include "ZoneCore/Zone.h"

#include "Common/Log.h"
#include "Common/ThreadId.h"
#include "ZoneCore/ZoneManager.h"

#include <limits>

namespace ZoneCore {

namespace {

constexpr int PREPARE_TIMEOUT_MS = 3000;
constexpr int PREPARE_TIMEOUT_AUTO_START_MS =
    200; // an automatic-start zone that has not been asked to start yet
constexpr int PREPARE_TIMEOUT_ERROR_MS = 5000;
constexpr int NOT_STARTED_LOG_PERIOD = 5; // every so manieth call writes the line
constexpr int ZONE_WATCHER_INTERVAL_MS = 15000;

/// Throttles one log line; shared by all zones' threads, who may lose each other's counts.
std::atomic<int> logcount{0};

gboolean prepareFailed(gint* timeout)
{
    *timeout = PREPARE_TIMEOUT_ERROR_MS;
    ZLOGE("prepare callback event error. set timeout to %d miliseconds", *timeout);
    return FALSE;
}

} // namespace

Zone::Zone() : container(std::make_unique<ContainerCore::Container>())
{
    ZLOGI("Zone object is created");
}

Zone::~Zone()
{
    releaseWatcherSource();
    container.reset();
    ZLOGI("Zone object is destroyed(zone name : %s)", zoneName.c_str());
}

void Zone::setZoneType(const ZUP::ZoneType& /*type*/) {}

ZUP::ZoneType Zone::getZoneType()
{
    return ZUP::ZONE_TYPE_NONE;
}

bool Zone::checkZoneSmackLabel()
{
    return true;
}

bool Zone::checkROZoneSmackLabel(const std::string& /*path*/, const std::string& /*label*/)
{
    return true;
}

bool Zone::checkRWZoneSmackLabel(const std::string& /*path*/, const std::string& /*label*/)
{
    return true;
}

bool Zone::checkAutoStart()
{
    return true;
}

bool Zone::attachEventSource()
{
    if (eventSource != nullptr) {
        ZLOGW("[Zone] event source is already created(thread name : %s, thread id : %d)", threadName.c_str(),
              currentThreadId());
        releaseEventSource(eventSource);
        eventSource = nullptr;
    }
    return createEventSource("ZoneEvent", prepareCallback, dispatchCallback, finalizeCallback);
}

gboolean Zone::prepareCallback(GSource* source, gint* timeout)
{
    const ThreadGate::Pass pass;
    if (!pass) {
        *timeout = PREPARE_TIMEOUT_ERROR_MS;
        return FALSE;
    }
    const auto* zone = ownerOf<Zone>(source);
    if (zone == nullptr) {
        return prepareFailed(timeout);
    }
    if (zone->autoStart && !zone->autoStartRequested.load(std::memory_order_relaxed)) {
        *timeout = PREPARE_TIMEOUT_AUTO_START_MS;
        int count = logcount.load(std::memory_order_relaxed);
        if (count == std::numeric_limits<int>::max()) {
            count = 0;
        }
        if (count % NOT_STARTED_LOG_PERIOD == 0) {
            ZLOGI("Auto start zone is not started yet. the timeout of prepare callback is set to %d "
                  "miliseconds(thread name : %s, tid : %d)[%d]",
                  *timeout, zone->threadName.c_str(), currentThreadId(), count);
        }
        logcount.store(count + 1, std::memory_order_relaxed);
    } else {
        *timeout = PREPARE_TIMEOUT_MS;
    }
    const AsyncEventQueue* holder = zone->queueHolder();
    if (holder == nullptr) {
        return prepareFailed(timeout);
    }
    return holder->asyncQueueLength() > 0;
}

gboolean Zone::dispatchCallback(GSource* source, GSourceFunc /*func*/, gpointer /*data*/)
{
    const ThreadGate::Pass pass;
    if (!pass) {
        return G_SOURCE_CONTINUE;
    }
    auto* zone = ownerOf<Zone>(source);
    AsyncEventQueue* holder = zone == nullptr ? nullptr : zone->queueHolder();
    if (holder == nullptr || holder->asyncQueueLength() <= 0) {
        return G_SOURCE_CONTINUE;
    }
    ZLOGI("[GSource Name : %s] Dispatch the event(thread name : %s, tid : %d)", g_source_get_name(source),
          zone->threadName.c_str(), currentThreadId());
    const std::unique_ptr<ZoneEvent> event(
        static_cast<ZoneEvent*>(g_async_queue_try_pop(holder->queue.load())));
    if (event == nullptr) {
        return G_SOURCE_CONTINUE;
    }
    ZLOGI("Dispatch the event(thread name : %s, tid : %d)", zone->threadName.c_str(), currentThreadId());
    zone->handleEvent(*event);
    return G_SOURCE_CONTINUE;
}

void Zone::finalizeCallback(GSource* /*source*/) {}

void Zone::handleEvent(const ZoneEvent& event)
{
    switch (event.eventType) {
    case eZONE_EVENT_START:
        return handleStart();
    case eZONE_EVENT_STOP:
        return handleStop();
    case eZONE_EVENT_FREEZE:
        return handleFreeze();
    case eZONE_EVENT_UNFREEZE:
        return handleUnfreeze();
    case eZONE_EVENT_ATTACH:
        return handleAttach();
    case eZONE_EVENT_CHANGE_STATE:
        return handleChangeState(event.zoneState);
    default:
        ZLOGE("event type is invalid(thread name : %s, tid : %d)", threadName.c_str(), currentThreadId());
    }
}

void Zone::handleStart()
{
    ZLOGI("receive the event - ZONE START(thread name : %s, tid : %d)", threadName.c_str(),
          currentThreadId());
    if (state.load(std::memory_order_relaxed) == RUNNING) {
        ZLOGW("%s is already running(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    if (container->start()) {
        restartFlag.store(false, std::memory_order_relaxed);
        operationType.store(ZUP::ZONE_OPERATION_START, std::memory_order_relaxed);
        ZLOGI("%s is started successfully(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    ZLOGF("Failed to start %s(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
          currentThreadId());
    if (autoStartRequested.load(std::memory_order_relaxed)) {
        requestRestart();
    }
}

void Zone::requestRestart()
{
    auto name = std::make_unique<std::string>(zoneName);
    if (!ZoneManager::singleton()->sendEvent(eZONE_EVENT_RESTART, state.load(std::memory_order_relaxed),
                                             name.get())) {
        ZLOGE("[%s:%d] Failed to send restart event[zone name : %s]", LogDetail::baseName(__FILE__), __LINE__,
              zoneName.c_str());
        return;
    }
    static_cast<void>(name.release()); // the receiver's now
}

void Zone::handleStop()
{
    ZLOGI("receive the event - ZONE STOP(thread name : %s, tid : %d)", threadName.c_str(), currentThreadId());
    if (!container->mayControl()) {
        ZLOGI("%s is not controlled(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    if (!container->isRunning()) {
        ZLOGI("%s is not running(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    // Before the stop: the exit message that follows must not count as a death.
    operationType.store(ZUP::ZONE_OPERATION_STOP, std::memory_order_relaxed);
    if (container->stop()) {
        stopAwaitsReport = true;
        restartFlag.store(false, std::memory_order_relaxed);
        ZLOGI("%s is stopped successfully(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    operationType.store(ZUP::ZONE_OPERATION_NONE, std::memory_order_relaxed);
    ZLOGE("Failed to stop %s(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
          currentThreadId());
}

void Zone::handleFreeze()
{
    ZLOGI("receive the event - ZONE FREEZE(thread name : %s, tid : %d)", threadName.c_str(),
          currentThreadId());
    if (!container->mayControl()) {
        ZLOGI("%s is not controlled(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    const ZoneState current = container->state();
    if (current == FREEZING || current == FROZEN) {
        return;
    }
    if (!container->freeze()) {
        ZLOGE("Failed to freeze %s(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    operationType.store(ZUP::ZONE_OPERATION_FREEZE, std::memory_order_relaxed);
    ZLOGI("%s is freezed successfully(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
          currentThreadId());
}

void Zone::handleUnfreeze()
{
    ZLOGI("receive the event - ZONE UNFREEZE(thread name : %s, tid : %d)", threadName.c_str(),
          currentThreadId());
    if (!container->mayControl()) {
        ZLOGI("%s is not controlled(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    if (container->state() != FROZEN) {
        return;
    }
    if (!container->unfreeze()) {
        ZLOGE("Failed to unfreeze %s(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return;
    }
    operationType.store(ZUP::ZONE_OPERATION_UNFREEZE, std::memory_order_relaxed);
    ZLOGI("%s is unfreezed successfully(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
          currentThreadId());
}

void Zone::handleAttach()
{
    ZLOGI("receive the event - ZONE ATTACH(thread name : %s, tid : %d)", threadName.c_str(),
          currentThreadId());
    if (!container->isRunning()) {
        ZLOGE("Failed to unfreeze zone : %s", container->getHandle()->name);
    }
}

void Zone::handleChangeState(ZoneState newState)
{
    ZLOGI("receive the event - ZONE CHANGE STATE[%d] (thread name : %s, tid : %d)", newState,
          threadName.c_str(), currentThreadId());
    state.store(newState, std::memory_order_relaxed);
    if (newState == STOPPED) {
        stopAwaitsReport = false;
        removeZoneWatcherTimer();
        ZLOGI("Removing zone watcher timer from zone thread context(thread name : %s, tid : %d)",
              threadName.c_str(), currentThreadId());
        return;
    }
    if (newState != RUNNING) {
        return;
    }
    ZLOGF("Now, %s is running(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
          currentThreadId());
    static_cast<void>(setZoneWatcherTimer(ZONE_WATCHER_INTERVAL_MS));
}

bool Zone::setZoneWatcherTimer(int interval)
{
    const pid_t pid = container->initPID();
    if (pid < 0) {
        ZLOGE("Failed to get initpid of %s(thread name : %s, tid : %d)", zoneName.c_str(), threadName.c_str(),
              currentThreadId());
        return false;
    }
    stopAwaitsReport = false; // somebody started the zone again
    initPid.store(pid, std::memory_order_relaxed);
    ZLOGI("The init pid(%d) of zone(%s) is set(thread name : %s, tid : %d)", pid, zoneName.c_str(),
          threadName.c_str(), currentThreadId());
    if (watcherTimerId != 0) {
        ZLOGI("Release previous watcher timer source(thread name : %s, thread id : %d, interval : %d)",
              threadName.c_str(), currentThreadId(), interval);
        releaseWatcherSource();
    }
    auto* source = static_cast<GSource*>(
        attachTimerSource(static_cast<unsigned>(interval), zoneWatcherTimer, this, false));
    watcherTimerId = source == nullptr ? 0 : g_source_get_id(source);
    if (watcherTimerId == 0) {
        ZLOGE("Failed to register the zone watcher(thread name : %s, thread id : %d, interval : %d)",
              threadName.c_str(), currentThreadId(), interval);
        return false;
    }
    ZLOGI("Zone Watcher Is registered[interval : %d](thread name : %s, tid : %d)", interval,
          threadName.c_str(), currentThreadId());
    ZLOGI("Starting zone watcher timer for checking zone alive(thread name : %s, tid : %d)",
          threadName.c_str(), currentThreadId());
    return true;
}

void Zone::removeZoneWatcherTimer()
{
    releaseWatcherSource();
    ZLOGI("Zone Watcher Is removed(thread name : %s, tid : %d)", threadName.c_str(), currentThreadId());
}

void Zone::releaseWatcherSource()
{
    if (watcherTimerId == 0) {
        return;
    }
    releaseEventSource(g_main_context_find_source_by_id(mainContext, watcherTimerId));
    watcherTimerId = 0;
}

gboolean Zone::zoneWatcherTimer(gpointer data)
{
    const ThreadGate::Pass pass;
    if (!pass) {
        return G_SOURCE_CONTINUE;
    }
    auto* zone = static_cast<Zone*>(data);
    if (zone == nullptr) {
        ZLOGI("Failed to get zone object");
        return G_SOURCE_REMOVE;
    }
    if (zone->stopAwaitsReport) {
        return G_SOURCE_CONTINUE; // it ended on request: no death
    }
    pid_t current = -1;
    if (zone->container->mayControl()) {
        current = zone->container->initPID();
        if (current == zone->initPid.load(std::memory_order_relaxed)) {
            return G_SOURCE_CONTINUE;
        }
    }
    ZLOGW("Restarting %s(current zone pid : %d, thread name : %s, tid : %d)", zone->zoneName.c_str(), current,
          zone->threadName.c_str(), currentThreadId());
    if (zone->container->start()) {
        zone->operationType.store(ZUP::ZONE_OPERATION_START, std::memory_order_relaxed);
        zone->restartFlag.store(false, std::memory_order_relaxed);
        ZLOGI("%s is re-started successfully(thread name : %s, tid : %d)", zone->zoneName.c_str(),
              zone->threadName.c_str(), currentThreadId());
    } else {
        ZLOGE("Failed to re-start %s(thread name : %s, tid : %d)", zone->zoneName.c_str(),
              zone->threadName.c_str(), currentThreadId());
    }
    return G_SOURCE_CONTINUE;
}

} // namespace ZoneCore
