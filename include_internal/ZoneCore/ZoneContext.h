#pragma once

#include "Common/ZoneEvent.h"
#include "Common/ZoneTypes.h"
#include "ZoneCore/Zone.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace ZoneCore {

/// The registry of zones, one for the process: built once at start-up from the containers that liblxc lists,
/// emptied at shutdown, unchanged in between. Everybody reaches a zone through it, by name.
///
/// Threads: initialize() and destroy() run on the main thread while nobody else looks anything up; in between
/// the main thread and the monitor only read, so there is no lock. Queries for an unknown name log and return
/// the neutral value.
class ZoneContext
{
public:
    /// The one instance, made on first use. Any thread.
    /// @throws std::system_error when the creation cannot be locked
    static ZoneContext* singleton();
    /// Deletes the instance. Main thread, when no other thread can use it any more.
    static void deleteSingleton();

    ~ZoneContext();
    ZoneContext(const ZoneContext&) = delete;
    ZoneContext& operator=(const ZoneContext&) = delete;

    /// Makes one zone for each defined container, each with its thread running.
    /// @return false without an LXC path, without containers, or without a single zone
    [[nodiscard]] bool initialize();

    /// Ends and deletes the zones. A zone whose thread is in the middle of something stays in the registry.
    void destroy();

    /// Closes the gates of the zones' threads. @return whether all of them could be closed
    [[nodiscard]] bool closeGates();

    /// Quits every zone's loop. Main thread.
    bool terminateAllZoneThread();

    [[nodiscard]] Zone* getZone(const std::string& name);

    /// Queues an event on the zone's thread.
    /// @return false when it was not delivered; the payload is the caller's then
    [[nodiscard]] bool sendEventToZone(const std::string& name, const ZoneEventType& type,
                                       const ZoneState& state, void* data);

    void setZoneRestartFlag(const std::string& name, bool flag);
    [[nodiscard]] bool zoneRestartFlag(const std::string& name);
    /// The init pid recorded when the zone came up, else what the container says now.
    [[nodiscard]] pid_t getZoneInitPID(const std::string& name);
    [[nodiscard]] ZUP::ZoneType getZoneType(const std::string& name);
    /// The container's live state.
    [[nodiscard]] ZoneState getZoneState(const std::string& name);
    [[nodiscard]] ZUP::ZoneOperationType zoneOperationType(const std::string& name);

    /// Whether each listed container has a zone, and each zone's loop runs. Main thread.
    [[nodiscard]] bool isRunningZoneThreads();

    /// One pass of the automatic start: asks for the start of the first zone that is due. Main thread.
    [[nodiscard]] bool startAutoStartZones();

    [[nodiscard]] const std::string& getLxcBasePath() const { return lxcBasePath; }
    [[nodiscard]] bool isEmpty() const { return zoneList.empty(); }

private:
    ZoneContext();

    /// The zone at a place of the list, counted from 0; null when there is none.
    [[nodiscard]] Zone* zoneAt(int index) const;
    /// getZone with the line that the queries write for an unknown name.
    [[nodiscard]] Zone* findZone(const std::string& name);
    [[nodiscard]] bool requestAutoStart(Zone* zone, int number);

    int zoneCount = 0; ///< containers that liblxc listed, which may be more than the zones made of them
    std::string lxcBasePath;
    std::map<std::string, Zone*> zoneMap;
    std::vector<Zone*> zoneList; ///< in creation order; owns the zones

    static std::atomic<ZoneContext*> zoneContext;
    static std::mutex zoneContextMutex; ///< guards the creation only
};

} // namespace ZoneCore
