#include "Common/Log.h"
#include "Common/ProcessSignals.h"
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "ZoneCore/RuntimePaths.h"
#include "ZoneCore/ZoneContext.h"
#include "ZoneCore/ZoneGroupController.h"
#include "ZoneCore/ZoneManager.h"
#include "ZoneCore/ZoneMonitor.h"
#include "ZoneCore/ZoneSecurityPolicy.h"
#include "main/InstanceLock.h"
#include "main/Termination.h"
#include "platform/watchdog/platform_watchdog.h"

#include <glib.h>

#include <csignal>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using ZoneCore::ZoneContext;
using ZoneCore::ZoneManager;
namespace ProcessSignals = ZoneCore::ProcessSignals;
namespace RuntimePaths = ZoneCore::RuntimePaths;

namespace {

constexpr const char* LOCK_FILE = "zone-manager.lock";
constexpr int EXIT_FAILED = -1;

constexpr int WATCHDOG_INTERVAL_S = 360;
constexpr int WATCHDOG_NOTIFY_PERIOD_MS = 15000;
constexpr unsigned THREAD_RUNNING_CHECK_MS = 500;

void reportStall(const char* threadName, int tid, int silentSeconds)
{
    ZLOGE("The watchdog gives the thread up(thread name : %s, tid : %d, silent for %d seconds)", threadName,
          tid, silentSeconds);
}

/// Ensures the directories that containers need to run.
bool ensureRuntimePaths(ZoneCore::ZoneSecurityPolicy& policy)
{
    if (!policy.ensureContainerRunPath()) {
        ZLOGE("Failed to ensure Container Run Path(%s)", RuntimePaths::RUN);
        return false;
    }
    return access(RuntimePaths::PID, W_OK) == 0 || policy.ensureContainerPIDFilePath();
}

/// SIGTERM quits the loops; it is let in between the steps from here on.
void installTerminationHandler()
{
    ProcessSignals::hold();
    static_cast<void>(signal(SIGTERM, handle_termination_signal));
}

/// Builds everything, then runs the main loop until it is quit.
/// @throws std::runtime_error when a step fails
void run(ZoneManager& manager)
{
    if (!manager.initialize()) {
        throw std::runtime_error("Failed to initialize the ZoneManager object");
    }
    ProcessSignals::deliverPending();
    manager.setWatchDog(true, WATCHDOG_INTERVAL_S, WATCHDOG_NOTIFY_PERIOD_MS);
    if (!manager.createEventQueue()) {
        throw std::runtime_error("Failed to create Event Queue of Main Context");
    }
    if (!manager.attachEventSource()) {
        throw std::runtime_error("Failed to attach Event Source of Main Context");
    }
    if (!manager.addTimerEvent(THREAD_RUNNING_CHECK_MS, ZoneManager::threadRunningCheckCallback, &manager)) {
        throw std::runtime_error("Failed to add timer event for thread running check to mainloop");
    }
    if (!manager.run()) {
        throw std::runtime_error("Failed to run the Main Context");
    }
}

/// Takes everything down in a fixed order, waiting for nobody: what a thread in the middle of something may
/// still touch stays alive.
/// @return whether nothing had to stay
bool tearDown(std::string& lockPath, int& lockFd)
{
    ZoneManager* manager = ZoneManager::singleton();
    manager->terminateMainloop();
    const bool threadsAreOut = ZoneContext::singleton()->closeGates() && manager->closeMonitorGate();
    ProcessSignals::deliverPending();

    if (manager->hasEventQueue() && threadsAreOut) {
        manager->destroyEventQueue();
    }
    ProcessSignals::deliverPending();
    if (auto* service = manager->dbusInterface.load(); service != nullptr) {
        service->disconnectDBus();
        manager->dbusInterface.store(nullptr); // the object itself ends with the process
    }
    ProcessSignals::deliverPending();
    if (manager->groupController != nullptr) {
        delete manager->groupController;
        manager->groupController = nullptr;
    }
    manager->destroyZoneMonitor();
    ProcessSignals::deliverPending(); // for the last time: from here on the handler's objects go

    const bool monitorIsOut = manager->zoneMonitor == nullptr;
    if (monitorIsOut) {
        ZoneContext::singleton()->destroy();
    }
    const bool nobodyStays = monitorIsOut && ZoneContext::singleton()->isEmpty();
    if (nobodyStays) {
        manager->destroyEventQueue(); // in case that somebody was still inside above
        ZoneContext::deleteSingleton();
        ZoneManager::deleteSingleton();
    }
    release_zone_manager_lock(lockPath.c_str(), &lockFd);
    ZLOGF("ZoneManager is terminated...");
    return nobodyStays;
}

} // namespace

int main()
{
    ZLOGF("Start Zone Manager...");
    umask(0);
    if (chdir("/") < 0) {
        ZLOGE("Failed to change the root path");
    }
    std::string lockPath = std::string(RuntimePaths::LOCK) + "/" + LOCK_FILE;
    int lockFd = get_zone_manager_lock(lockPath);
    if (lockFd == -1) {
        ZLOGE("Failed to get zone manager lock(%s)", lockPath.c_str());
        return EXIT_FAILED;
    }
    const auto policy = std::make_shared<ZoneCore::ZoneSecurityPolicy>();
    if (!ensureRuntimePaths(*policy)) {
        ZLOGE("Failed to create the basepath of container pidfile - %s", RuntimePaths::PID);
        release_zone_manager_lock(lockPath.c_str(), &lockFd);
        return EXIT_FAILED;
    }
    init_template_path();
    platform_watchdog_set_stall_reporter(reportStall);
    installTerminationHandler();
    // The manager's thread object drops a reference to the default context that it never took, and the bus
    // library's threads use that context until the process ends. This one is never given back.
    g_main_context_ref(g_main_context_default());

    int exitCode = EXIT_FAILED;
    try {
        run(*ZoneManager::singleton());
        exitCode = 0;
    } catch (const std::exception& failure) {
        ZLOGE("Exception occurred : %s", failure.what());
    }
    if (!tearDown(lockPath, lockFd)) {
        _exit(exitCode); // a thread still runs: the process's static objects must not be destroyed under it
    }
    return exitCode;
}
