#include "tests/main/StandIns.h"
#include "tests/support/unit/Seam.h"

#include "Common/Log.h"
#include "Common/ProcessSignals.h"
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "ZoneCore/ZoneContext.h"
#include "ZoneCore/ZoneGroupController.h"
#include "ZoneCore/ZoneManager.h"
#include "ZoneCore/ZoneMonitor.h"
#include "ZoneCore/ZoneSecurityPolicy.h"
#include "main/InstanceLock.h"
#include "main/Termination.h"

#include <cerrno>
#include <csignal>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

ZoneTest::StandIns* armed = nullptr;

void called(const std::string& call)
{
    ZLOGD("%s", call.c_str());
}

bool works(const std::string& name)
{
    return !armed->failing.contains(name);
}

bool calledAndWorks(const std::string& name)
{
    called(name);
    return works(name);
}

/// A monitor that nobody looks into.
ZoneCore::ZoneMonitor* someMonitor()
{
    alignas(ZoneCore::ZoneMonitor) static std::byte place[sizeof(ZoneCore::ZoneMonitor)];
    return reinterpret_cast<ZoneCore::ZoneMonitor*>(place);
}

} // namespace

namespace ZoneTest {

StandIns::StandIns()
{
    armed = this;
}

StandIns::~StandIns()
{
    ZoneCore::ZoneContext::deleteSingleton();
    ZoneCore::ZoneManager::deleteSingleton();
    armed = nullptr;
}

} // namespace ZoneTest

// The C library and GLib.

extern "C" mode_t umask(mode_t mask) noexcept
{
    if (armed == nullptr) {
        return ZoneTest::genuine(&umask, "umask")(mask);
    }
    called("umask " + std::to_string(mask));
    return 0;
}

extern "C" int chdir(const char* path) noexcept
{
    if (armed == nullptr) {
        return ZoneTest::genuine(&chdir, "chdir")(path);
    }
    called(std::string("chdir ") + path);
    return works("chdir") ? 0 : -1;
}

extern "C" int access(const char* path, int type) noexcept
{
    if (armed == nullptr) {
        return ZoneTest::genuine(&access, "access")(path, type);
    }
    called(std::string("access ") + path + " " + std::to_string(type));
    return works("access") ? 0 : -1;
}

extern "C" sighandler_t signal(int number, sighandler_t handler) noexcept
{
    if (armed == nullptr) {
        return ZoneTest::genuine(&signal, "signal")(number, handler);
    }
    called("signal " + std::to_string(number) +
           (handler == handle_termination_signal ? " handle_termination_signal" : " ?"));
    return SIG_DFL;
}

extern "C" GMainContext* g_main_context_ref(GMainContext* context)
{
    if (armed == nullptr) {
        return ZoneTest::genuine(&g_main_context_ref, "g_main_context_ref")(context);
    }
    called(context == g_main_context_default() ? "g_main_context_ref default" : "g_main_context_ref ?");
    return context;
}

extern "C" void _exit(int status)
{
    if (armed != nullptr) {
        called("_exit " + std::to_string(status));
        status = ZoneTest::StandIns::STATUS_OF_EXIT;
    }
    ZoneTest::genuine(&_exit, "_exit")(status);
    __builtin_unreachable();
}

// The platform and the daemon's own free functions.

void platform_watchdog_set_stall_reporter(platform_watchdog_stall_reporter reporter) noexcept
{
    called("platform_watchdog_set_stall_reporter");
    armed->stallReporter = reporter;
}

void handle_termination_signal(int /*sig*/) {}

int get_zone_manager_lock(std::string& path)
{
    called("get_zone_manager_lock " + path);
    return works("get_zone_manager_lock") ? ZoneTest::StandIns::LOCK_FD : -1;
}

void release_zone_manager_lock(const char* path, int* fd)
{
    called(std::string("release_zone_manager_lock ") + path + " " + std::to_string(*fd));
}

void init_template_path()
{
    called("init_template_path");
}

namespace ZoneCore::ProcessSignals {

void hold()
{
    called("ProcessSignals::hold");
}

void deliverPending()
{
    called("ProcessSignals::deliverPending");
}

} // namespace ZoneCore::ProcessSignals

// The objects.

namespace ZoneCore {

bool ZoneSecurityPolicy::ensureContainerRunPath()
{
    return calledAndWorks("ensureContainerRunPath");
}

bool ZoneSecurityPolicy::ensureContainerPIDFilePath()
{
    return calledAndWorks("ensureContainerPIDFilePath");
}

ZoneGroupController::ZoneGroupController() = default;

ZoneGroupController::~ZoneGroupController()
{
    called("~ZoneGroupController");
}

Thread::Thread() = default;
Thread::~Thread() = default;

bool Thread::attachEventSource()
{
    return false;
}

void* Thread::attachTimerSource(unsigned /*interval*/, int (*)(void*), void* /*data*/, bool /*keep*/)
{
    return nullptr;
}

void Thread::releaseEventSource(GSource* /*source*/) {}

bool Thread::sendEvent(ZoneEvent* /*event*/)
{
    return false;
}

bool Thread::sendWatchDogEvent(int /*first*/, int /*second*/)
{
    return false;
}

void Thread::setWatchDog(bool enabled, int interval, int notifyPeriod)
{
    called(std::string("setWatchDog ") + (enabled ? "true " : "false ") + std::to_string(interval) + " " +
           std::to_string(notifyPeriod));
}

bool Thread::createEventQueue()
{
    static AsyncEventQueue queue;
    if (queue.queue == nullptr) {
        queue.queue = g_async_queue_new();
    }
    const bool created = calledAndWorks("createEventQueue");
    eventQueue = created ? &queue : nullptr;
    return created;
}

void Thread::destroyEventQueue()
{
    called("destroyEventQueue");
    eventQueue = nullptr;
}

bool Thread::addTimerEvent(unsigned interval, int (*func)(void*), void* data)
{
    called("addTimerEvent " + std::to_string(interval) +
           (func == ZoneManager::threadRunningCheckCallback ? " threadRunningCheckCallback" : " ?") +
           (data == ZoneManager::singleton() ? " manager" : " ?"));
    return works("addTimerEvent");
}

std::atomic<ZoneManager*> ZoneManager::zoneManager{nullptr};

ZoneManager* ZoneManager::singleton()
{
    if (zoneManager.load() == nullptr) {
        called("ZoneManager");
        zoneManager = new ZoneManager;
    }
    return zoneManager;
}

void ZoneManager::deleteSingleton()
{
    called("ZoneManager::deleteSingleton");
    delete zoneManager.load();
    zoneManager = nullptr;
}

ZoneManager::ZoneManager() = default;

ZoneManager::~ZoneManager()
{
    delete groupController;
    groupController = nullptr;
}

bool ZoneManager::initialize()
{
    static DBusCore::ZoneManagerDBusInterface service;
    if (!calledAndWorks("initialize")) {
        return false;
    }
    groupController = new ZoneGroupController;
    zoneMonitor = someMonitor();
    dbusInterface = &service;
    return true;
}

bool ZoneManager::attachEventSource()
{
    return calledAndWorks("attachEventSource");
}

bool ZoneManager::run()
{
    called("run");
    if (armed->mainLoop) {
        armed->mainLoop();
    }
    return works("run");
}

gboolean ZoneManager::threadRunningCheckCallback(gpointer /*data*/)
{
    return G_SOURCE_REMOVE;
}

void ZoneManager::terminateMainloop()
{
    called("terminateMainloop");
}

bool ZoneManager::closeMonitorGate()
{
    return calledAndWorks("closeMonitorGate");
}

void ZoneManager::destroyZoneMonitor()
{
    called(std::string("destroyZoneMonitor") + (dbusInterface.load() == nullptr ? "" : " beside a service") +
           (groupController == nullptr ? "" : " beside a group controller"));
    zoneMonitor = works("destroyZoneMonitor") ? nullptr : someMonitor();
}

std::atomic<ZoneContext*> ZoneContext::zoneContext{nullptr};

ZoneContext* ZoneContext::singleton()
{
    if (zoneContext.load() == nullptr) {
        called("ZoneContext");
        zoneContext = new ZoneContext;
    }
    return zoneContext;
}

void ZoneContext::deleteSingleton()
{
    called("ZoneContext::deleteSingleton");
    delete zoneContext.load();
    zoneContext = nullptr;
}

/// A registry of one zone that nobody looks into.
ZoneContext::ZoneContext() : zoneList{nullptr} {}
ZoneContext::~ZoneContext() = default;

bool ZoneContext::closeGates()
{
    return calledAndWorks("closeGates");
}

void ZoneContext::destroy()
{
    if (calledAndWorks("ZoneContext::destroy")) {
        zoneList.clear();
    }
}

} // namespace ZoneCore

namespace DBusCore {

ZoneManagerDBusInterface::~ZoneManagerDBusInterface() = default;

void ZoneManagerDBusInterface::disconnectDBus()
{
    called("disconnectDBus");
}

} // namespace DBusCore
