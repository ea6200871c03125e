#pragma once

#include "Common/Thread.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace DBusCore {
class ZoneManagerDBusInterface;
}
namespace ZUP {
struct LXCAttachCommand;
}

namespace ZoneCore {

class ZoneGroupController;
class ZoneMonitor;

/// The zone manager, one for the process: the event thread of the main thread and the owner of the other
/// top-level objects. It decides when zones start on their own: one after another once every thread runs, and
/// again when the monitor or a zone's thread asks for it.
///
/// Threads: everything runs on the main thread but singleton() and sendEvent().
class ZoneManager : public Thread
{
public:
    /// The one instance, made on first use. Any thread.
    /// @throws std::system_error when the creation cannot be locked
    static ZoneManager* singleton();
    /// Deletes the instance. Main thread, when no other thread can use it any more.
    static void deleteSingleton();

    ~ZoneManager() override;

    /// Builds the registry, the monitor with its thread, the group controller and the bus service, in this
    /// order.
    [[nodiscard]] bool initialize();

    [[nodiscard]] bool attachEventSource() override;

    /// Runs the main loop until terminateMainloop() ends it.
    /// @return false when it could not be started
    [[nodiscard]] bool run();

    using Thread::sendEvent;
    /// Queues an event for the main loop. Called by the monitor's and the zones' threads.
    /// @return false when it was not delivered; the payload is the caller's then
    [[nodiscard]] bool sendEvent(ZoneEventType type, const ZoneState& state, void* data);

    /// Asks the zone's thread to start, stop or thaw the zone, or hands it an attach request; true means that
    /// the request was queued. Nothing is asked of a zone while nobody listens to its state changes.
    [[nodiscard]] bool startZone(const std::string& name);
    [[nodiscard]] bool stopZone(const std::string& name);
    [[nodiscard]] bool unfreezeZone(const std::string& name);
    [[nodiscard]] bool zoneAttach(const std::string& name, ZUP::LXCAttachCommand* command);

    /// One pass of the automatic start.
    [[nodiscard]] bool startAutoStartZones();

    /// The start-up timer: waits until every thread runs, then starts the first zone and ends.
    /// @param data the manager
    static gboolean threadRunningCheckCallback(gpointer data);

    /// Quits the loops of all zones, of the monitor and of the main thread. Called by the SIGTERM handler,
    /// too.
    void terminateMainloop();

    /// Closes the gate of the monitor's thread. @return false while that thread is in the middle of something
    [[nodiscard]] bool closeMonitorGate();

    /// Stops and deletes the monitor. While its thread is in the middle of something, it stays.
    void destroyZoneMonitor();

    ZoneGroupController* groupController = nullptr;
    ZoneMonitor* zoneMonitor = nullptr;
    /// Read by the monitor's thread, which runs already when this is set.
    std::atomic<DBusCore::ZoneManagerDBusInterface*> dbusInterface{nullptr};

private:
    ZoneManager();

    static gboolean dispatchCallback(GSource* source, GSourceFunc func, gpointer data);
    void handleEvent(const ZoneEvent& event);
    void handleRestart(const std::string* zoneName);
    void handleCheckAutoStart();

    [[nodiscard]] bool createZoneMonitor();
    [[nodiscard]] bool connectToBus();
    [[nodiscard]] bool isMonitorRunning(const std::string& targetZone) const;

    static std::atomic<ZoneManager*> zoneManager;
    static std::mutex zoneManagerMutex; ///< guards the creation only
};

} // namespace ZoneCore
