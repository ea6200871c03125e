#include "ZoneCore/ZoneManager.h"

#include "Common/Log.h"
#include "Common/ProcessSignals.h"
#include "Common/ThreadId.h"
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "ZoneCore/ZoneContext.h"
#include "ZoneCore/ZoneGroupController.h"
#include "ZoneCore/ZoneMonitor.h"

#include <memory>

namespace ZoneCore {

namespace {

constexpr const char* THREAD_NAME = "zone-manager";
constexpr int MONITOR_WATCHDOG_INTERVAL_S = 180;
constexpr int MONITOR_WATCHDOG_NOTIFY_PERIOD_MS = 20000;

} // namespace

std::atomic<ZoneManager*> ZoneManager::zoneManager{nullptr};
std::mutex ZoneManager::zoneManagerMutex;

ZoneManager* ZoneManager::singleton()
{
    ZoneManager* manager = zoneManager.load(std::memory_order_acquire);
    if (manager == nullptr) {
        const std::lock_guard lock(zoneManagerMutex);
        manager = zoneManager.load(std::memory_order_relaxed);
        if (manager == nullptr) {
            manager = new ZoneManager;
            zoneManager.store(manager, std::memory_order_release);
            ZLOGI("Singletone object of Zone Manager is created...");
        }
    }
    return manager;
}

void ZoneManager::deleteSingleton()
{
    delete zoneManager.load();
    zoneManager.store(nullptr);
}

ZoneManager::ZoneManager()
{
    ZLOGI("zone manager instance is created");
}

ZoneManager::~ZoneManager()
{
    ZLOGI("zone manager instance is destroyed");
}

bool ZoneManager::initialize()
{
    if (!Thread::initialize(true, THREAD_NAME)) {
        return false;
    }
    ProcessSignals::deliverPending();
    if (!ZoneContext::singleton()->initialize()) {
        return false;
    }
    ProcessSignals::deliverPending();
    if (zoneMonitor != nullptr) {
        destroyZoneMonitor();
    }
    if (!createZoneMonitor()) {
        ZLOGE("[%s:%d] Failed to create zone monitor", threadName.c_str(), currentThreadId());
        return false;
    }
    ProcessSignals::deliverPending();
    groupController = new ZoneGroupController;
    return connectToBus();
}

bool ZoneManager::createZoneMonitor()
{
    zoneMonitor = new ZoneMonitor;
    if (!zoneMonitor->initialize(ZoneContext::singleton()->getLxcBasePath())) {
        return false;
    }
    ProcessSignals::deliverPending();
    zoneMonitor->setWatchDog(true, MONITOR_WATCHDOG_INTERVAL_S, MONITOR_WATCHDOG_NOTIFY_PERIOD_MS);
    return zoneMonitor->usesDefaultContext() || zoneMonitor->run();
}

bool ZoneManager::connectToBus()
{
    auto service = std::make_unique<DBusCore::ZoneManagerDBusInterface>();
    if (!service->connectDBus()) {
        return false;
    }
    // The monitor's thread runs already: it must not see a service that is then deleted.
    dbusInterface.store(service.release(), std::memory_order_release);
    return true;
}

bool ZoneManager::attachEventSource()
{
    if (eventSource != nullptr) {
        ZLOGW("[ZoneManager] event source is already created(thread name : %s, thread id : %d)",
              threadName.c_str(), currentThreadId());
        releaseEventSource(eventSource);
        eventSource = nullptr;
    }
    return createEventSource("ZoneManagerEvent", prepareCallback, dispatchCallback, finalizeCallback);
}

bool ZoneManager::run()
{
    if (mainLoop == nullptr) {
        ZLOGE("[%s:%d] the main loop of main thread is invalid", threadName.c_str(), currentThreadId());
        return false;
    }
    if (isRunning()) {
        ZLOGI("[%s:%d] main thread is already running", threadName.c_str(), currentThreadId());
        return true;
    }
    if (watchDogEnabled && !registerWatchDog(watchDogInterval, watchDogNotifyPeriod)) {
        ZLOGE("[%s:%d] Failed to set watch dog for main thread", threadName.c_str(), currentThreadId());
        return false;
    }
    g_main_context_set_poll_func(mainContext, ProcessSignals::poll);
    ProcessSignals::deliverPending(); // the last one that does not end the loop
    g_main_loop_run(mainLoop);
    return true;
}

gboolean ZoneManager::dispatchCallback(GSource* source, GSourceFunc /*func*/, gpointer /*data*/)
{
    auto* manager = ownerOf<ZoneManager>(source);
    AsyncEventQueue* holder = manager == nullptr ? nullptr : manager->queueHolder();
    if (holder == nullptr || holder->asyncQueueLength() <= 0) {
        return G_SOURCE_CONTINUE;
    }
    ZLOGI("[GSource Name : %s] Dispatch the event(thread name : %s, tid : %d)", g_source_get_name(source),
          manager->threadName.c_str(), currentThreadId());
    const std::unique_ptr<ZoneEvent> event(
        static_cast<ZoneEvent*>(g_async_queue_try_pop(holder->queue.load())));
    if (event == nullptr) {
        return G_SOURCE_CONTINUE;
    }
    ZLOGI("Dispatch the event(thread name : %s, tid : %d)", manager->threadName.c_str(), currentThreadId());
    manager->handleEvent(*event);
    return G_SOURCE_CONTINUE;
}

void ZoneManager::handleEvent(const ZoneEvent& event)
{
    switch (event.eventType) {
    case eZONE_EVENT_RESTART:
        ZLOGI("receive the event - ZONE RESTART(thread name : %s, tid : %d)", threadName.c_str(),
              currentThreadId());
        handleRestart(std::unique_ptr<std::string>(static_cast<std::string*>(event.eventData)).get());
        return;
    case eZONE_EVENT_CHECK_AUTO_START:
        ZLOGI("receive the event - CHECK AUTO START ZONE(thread name : %s, tid : %d)", threadName.c_str(),
              currentThreadId());
        handleCheckAutoStart();
        return;
    default:
        ZLOGE("event type is invalid(thread name : %s, tid : %d)", threadName.c_str(), currentThreadId());
    }
}

void ZoneManager::handleRestart(const std::string* zoneName)
{
    if (zoneName == nullptr) {
        ZLOGI("event object(zonename) is null(thread name : %s, tid : %d)", threadName.c_str(),
              currentThreadId());
        return;
    }
    if (startZone(*zoneName)) {
        ZLOGI("Restart event for %s is sent(thread name : %s, tid : %d)", zoneName->c_str(),
              threadName.c_str(), currentThreadId());
    } else {
        ZLOGE("Failed to start %s(thread name : %s, tid : %d)", zoneName->c_str(), threadName.c_str(),
              currentThreadId());
    }
}

void ZoneManager::handleCheckAutoStart()
{
    if (startAutoStartZones()) {
        ZLOGI("Requested to check auto start zone(thread name : %s, tid : %d)", threadName.c_str(),
              currentThreadId());
    } else {
        ZLOGE("Failed to request to check auto start zone(thread name : %s, tid : %d)", threadName.c_str(),
              currentThreadId());
    }
}

bool ZoneManager::sendEvent(ZoneEventType type, const ZoneState& state, void* data)
{
    if (!isRunning()) {
        ZLOGE("[%s:%d] ZoneManager is not running", threadName.c_str(), currentThreadId());
        return false;
    }
    std::unique_ptr<ZoneEvent> event(createZoneEvent(type, state, data));
    if (event == nullptr) {
        ZLOGE("[%s:%d] Failed to create the zone event(%d) for ZoneManager", threadName.c_str(),
              currentThreadId(), type);
        return false;
    }
    if (!Thread::sendEvent(event.get())) {
        ZLOGE("[%s:%d] Failed to send the zone event(%d) for ZoneManager", threadName.c_str(),
              currentThreadId(), type);
        return false;
    }
    static_cast<void>(event.release()); // the queue's now
    ZLOGI("[%s:%d] zone event(%d) is sent to Zone Manager", threadName.c_str(), currentThreadId(), type);
    return true;
}

bool ZoneManager::isMonitorRunning(const std::string& targetZone) const
{
    if (zoneMonitor->isRunning()) {
        return true;
    }
    ZLOGE("[%s:%d] Monitor Thread is not running(target zone : %s)", threadName.c_str(), currentThreadId(),
          targetZone.c_str());
    return false;
}

bool ZoneManager::startZone(const std::string& name)
{
    if (!isMonitorRunning(name)) {
        return false;
    }
    if (!ZoneContext::singleton()->sendEventToZone(name, eZONE_EVENT_START, NONE, nullptr)) {
        ZLOGE("[%s:%d] Failed to send start event for zone(%s)", threadName.c_str(), currentThreadId(),
              name.c_str());
        return false;
    }
    return true;
}

bool ZoneManager::stopZone(const std::string& name)
{
    if (!isMonitorRunning(name)) {
        return false;
    }
    if (!ZoneContext::singleton()->sendEventToZone(name, eZONE_EVENT_STOP, NONE, nullptr)) {
        ZLOGE("[%s:%d] Failed to send stop event for zone(%s)", threadName.c_str(), currentThreadId(),
              name.c_str());
        return false;
    }
    return true;
}

bool ZoneManager::unfreezeZone(const std::string& name)
{
    if (!isMonitorRunning(name)) {
        return false;
    }
    if (!ZoneContext::singleton()->sendEventToZone(name, eZONE_EVENT_UNFREEZE, NONE, nullptr)) {
        ZLOGE("[%s:%d] Failed to send unfreeze event for zone(%s)", threadName.c_str(), currentThreadId(),
              name.c_str());
        return false;
    }
    return true;
}

bool ZoneManager::zoneAttach(const std::string& name, ZUP::LXCAttachCommand* command)
{
    if (!isMonitorRunning(name)) {
        return false;
    }
    if (!ZoneContext::singleton()->sendEventToZone(name, eZONE_EVENT_ATTACH, NONE, command)) {
        ZLOGE("[%s:%d] Failed to send attach event for zone(%s)", threadName.c_str(), currentThreadId(),
              name.c_str());
        return false;
    }
    return true;
}

bool ZoneManager::startAutoStartZones()
{
    if (!zoneMonitor->isRunning()) {
        ZLOGE("[%s:%d] Monitor Thread is not running", threadName.c_str(), currentThreadId());
        return false;
    }
    return ZoneContext::singleton()->startAutoStartZones();
}

gboolean ZoneManager::threadRunningCheckCallback(gpointer data)
{
    auto* manager = static_cast<ZoneManager*>(data);
    if (manager == nullptr) {
        ZLOGE("[Main Thread] ZoneManager is null");
        return G_SOURCE_CONTINUE;
    }
    const char* name = manager->threadName.c_str();
    if (!manager->zoneMonitor->isRunning()) {
        ZLOGI("[Main Thread] ZoneMonitor thread is not initialized yet(thread name : %s, tid : %d)", name,
              currentThreadId());
        return G_SOURCE_CONTINUE;
    }
    if (!ZoneContext::singleton()->isRunningZoneThreads()) {
        ZLOGI("[Main Thread] Zone Threads are not initialized yet(thread name : %s, tid : %d)", name,
              currentThreadId());
        return G_SOURCE_CONTINUE;
    }
    if (!manager->startAutoStartZones()) {
        ZLOGE("[Main Thread] Failed to start Default Zones(thread name : %s, tid : %d)", name,
              currentThreadId());
        return G_SOURCE_CONTINUE;
    }
    ZLOGI("[Main Thread] thread running check timer is terminated(thread name : %s, tid : %d)", name,
          currentThreadId());
    return G_SOURCE_REMOVE;
}

void ZoneManager::terminateMainloop()
{
    static_cast<void>(ZoneContext::singleton()->terminateAllZoneThread());
    if (zoneMonitor != nullptr) {
        zoneMonitor->terminate();
    }
    terminate();
    ZLOGI("[%s:%d] The mainloop of thread %s is terminated", threadName.c_str(), currentThreadId(),
          threadName.c_str());
}

bool ZoneManager::closeMonitorGate()
{
    return zoneMonitor == nullptr || zoneMonitor->closeGate();
}

void ZoneManager::destroyZoneMonitor()
{
    if (zoneMonitor == nullptr) {
        return;
    }
    if (zoneMonitor->isRunning()) {
        zoneMonitor->terminate();
    }
    if (!zoneMonitor->closeGate()) {
        return;
    }
    zoneMonitor->removeAllClientConnections();
    zoneMonitor->destroyStateIOChannels();
    zoneMonitor->closeMonitorInterfaceHandle();
    delete zoneMonitor;
    zoneMonitor = nullptr;
}

} // namespace ZoneCore
