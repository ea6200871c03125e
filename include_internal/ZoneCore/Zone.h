#pragma once

#include "Common/Thread.h"
#include "Common/ZoneTypes.h"
#include "ContainerCore/Container.h"

#include <atomic>
#include <memory>
#include <string>

namespace ZoneCore {

/// One zone: an LXC container with an event thread of its own, which carries out the commands that arrive as
/// zone events and, while the zone runs, looks every 15 seconds whether the container's init process is still
/// the same.
///
/// Threads: the handlers and the watcher run on the zone's own thread, one at a time. The names, paths and
/// flags without a comment are set by the factory before that thread runs and never change.
class Zone : public Thread
{
public:
    Zone();
    ~Zone() override;

    [[nodiscard]] bool attachEventSource() override;

    /// What kind of zone this is; the kinds answer, the base knows none.
    virtual void setZoneType(const ZUP::ZoneType& type);
    [[nodiscard]] virtual ZUP::ZoneType getZoneType();

    /// Checks the zone's directories and labels them where its kind demands it.
    [[nodiscard]] virtual bool checkZoneSmackLabel();
    [[nodiscard]] virtual bool checkROZoneSmackLabel(const std::string& path, const std::string& label);
    [[nodiscard]] virtual bool checkRWZoneSmackLabel(const std::string& path, const std::string& label);

    /// Whether the zone's kind may be started automatically.
    [[nodiscard]] virtual bool checkAutoStart();

    static gboolean prepareCallback(GSource* source, gint* timeout);
    static gboolean dispatchCallback(GSource* source, GSourceFunc func, gpointer data);
    static void finalizeCallback(GSource* source);

    /// Looks after the container's init process, and starts the container again when it is another or gone.
    /// @param zone the Zone @return false only without one
    static gboolean zoneWatcherTimer(gpointer zone);

    /// The init process when the zone was last reported running. Written by the zone's thread, read by all.
    std::atomic<pid_t> initPid{0};
    std::string zoneName; ///< the container's name
    std::string basePath; ///< the LXC path
    std::string rootfsPath;
    bool autoStart = false;
    /// An automatic start has been asked for. Written by the main thread, read by the zone's.
    std::atomic<bool> autoStartRequested{false};
    /// The container died while it was meant to run. Written by the monitor's and the zone's thread.
    std::atomic<bool> restartFlag{false};
    /// Written by the zone's thread, read by the monitor's.
    std::atomic<ZUP::ZoneOperationType> operationType{ZUP::ZONE_OPERATION_NONE};
    /// As last reported by the monitor. Written by the zone's thread, read by the main thread.
    std::atomic<ZoneState> state{NONE};
    /// The watcher timer's source id on the zone's own context; 0 when there is none. The zone's thread only.
    unsigned watcherTimerId = 0;
    /// A stop was carried out, whose report ends the watcher and may still be on its way. The zone's thread
    /// only.
    bool stopAwaitsReport = false;
    std::unique_ptr<ContainerCore::Container> container;

private:
    void handleEvent(const ZoneEvent& event);
    void handleStart();
    void handleStop();
    void handleFreeze();
    void handleUnfreeze();
    void handleAttach();
    void handleChangeState(ZoneState newState);

    [[nodiscard]] bool setZoneWatcherTimer(int interval);
    void removeZoneWatcherTimer();
    void releaseWatcherSource();
    void requestRestart();
};

} // namespace ZoneCore
