#include "ZoneCore/ZoneContext.h"

#include "Common/Log.h"
#include "ZoneCore/ZoneContainerState.h"
#include "ZoneCore/ZoneFactory.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <lxc/lxccontainer.h>

namespace ZoneCore {

namespace {

constexpr const char* KEY_LXC_PATH = "lxc.lxcpath";

} // namespace

std::atomic<ZoneContext*> ZoneContext::zoneContext{nullptr};
std::mutex ZoneContext::zoneContextMutex;

ZoneContext* ZoneContext::singleton()
{
    ZoneContext* context = zoneContext.load(std::memory_order_acquire);
    if (context == nullptr) {
        const std::lock_guard lock(zoneContextMutex);
        context = zoneContext.load(std::memory_order_relaxed);
        if (context == nullptr) {
            context = new ZoneContext;
            zoneContext.store(context, std::memory_order_release);
            ZLOGI("Singletone object of Zone Context is created...");
        }
    }
    return context;
}

void ZoneContext::deleteSingleton()
{
    delete zoneContext.load();
    zoneContext.store(nullptr);
}

ZoneContext::ZoneContext()
{
    ZLOGI("ZoneContext object is created");
}

ZoneContext::~ZoneContext()
{
    ZLOGI("ZoneContext object is destroyed");
}

bool ZoneContext::initialize()
{
    const char* path = lxc_get_global_config_item(KEY_LXC_PATH);
    if (path == nullptr) {
        ZLOGE("Failed to get lxc base path");
        return false;
    }
    lxcBasePath = path;

    lxc_container** listed = nullptr;
    const int count = list_defined_containers(lxcBasePath.c_str(), nullptr, &listed);
    if (count < 1) { // after a failure, the list may have been freed already
        ZLOGE("lxc containers (base path : %s)", lxcBasePath.c_str());
        return false;
    }
    const std::unique_ptr<lxc_container*, decltype(&std::free)> containers(listed, std::free);
    ZoneFactory factory;
    for (int index = 0; index < count; ++index) {
        lxc_container* container = listed[index];
        const std::string name = container == nullptr ? "" : container->name;
        Zone* zone = factory.getZone(container, lxcBasePath); // a half-made zone takes the handle with it
        if (zone == nullptr) {
            ZLOGE("Failed to create Zone Object - %s[%d]", name.c_str(), index);
            continue;
        }
        zoneList.push_back(zone);
        zoneMap.emplace(zone->zoneName, zone);
        ZLOGI("\"%s\" is added to Zone Context!", zone->zoneName.c_str());
    }
    zoneCount = count;
    ZLOGI("Zone count is set to [%d / %zu]", zoneCount, zoneList.size());
    if (zoneList.empty()) {
        ZLOGE("There is no zone information (lxc base path : %s, zone count : %d)", lxcBasePath.c_str(),
              zoneCount);
        return false;
    }
    ZLOGI("Zone Context is created successfully (lxc base path : %s, zone count : %d)", lxcBasePath.c_str(),
          zoneCount);
    return true;
}

void ZoneContext::destroy()
{
    ZLOGI("The remained count of Zone Object in ZoneContext \"%zu\"", zoneList.size());
    std::vector<Zone*> busy;
    for (Zone* zone : zoneList) {
        if (zone->isRunning()) {
            zone->terminate();
            ZLOGI("\"%s\" thread is destroyed", zone->name().c_str());
        }
        if (!zone->closeGate()) {
            busy.push_back(zone);
            continue;
        }
        static_cast<void>(lxc_container_put(zone->container->getHandle()));
        delete zone;
    }
    zoneList = std::move(busy);
    zoneMap.clear();
    ZLOGI("The count of Zone Object is \"%zu\"", zoneList.size());
}

bool ZoneContext::closeGates()
{
    return std::count_if(zoneList.begin(), zoneList.end(), [](Zone* zone) { return !zone->closeGate(); }) ==
           0;
}

bool ZoneContext::terminateAllZoneThread()
{
    bool complete = true;
    for (int index = 0; index < zoneCount; ++index) {
        Zone* zone = zoneAt(index);
        if (zone == nullptr) {
            ZLOGE("Can not get a zone object");
            complete = false;
            continue;
        }
        zone->terminate();
        ZLOGI("The mainloop of thread is terminated (thread name : %s)", zone->name().c_str());
    }
    return complete;
}

Zone* ZoneContext::zoneAt(int index) const
{
    const auto place = static_cast<size_t>(index);
    return place < zoneList.size() ? zoneList[place] : nullptr;
}

Zone* ZoneContext::getZone(const std::string& name)
{
    if (zoneMap.empty()) {
        ZLOGE("There is no zone information (zone name : %s)", name.c_str());
        return nullptr;
    }
    const auto found = zoneMap.find(name);
    if (found == zoneMap.end()) {
        ZLOGI("There is no \"%s\" object", name.c_str());
        return nullptr;
    }
    return found->second;
}

Zone* ZoneContext::findZone(const std::string& name)
{
    Zone* zone = getZone(name);
    if (zone == nullptr) {
        ZLOGE("Can not find zone object (zone name : %s)", name.c_str());
    }
    return zone;
}

bool ZoneContext::sendEventToZone(const std::string& name, const ZoneEventType& type, const ZoneState& state,
                                  void* data)
{
    Zone* zone = findZone(name);
    if (zone == nullptr) {
        return false;
    }
    if (!zone->isRunning()) {
        ZLOGE("zone thread is not running (zone name : %s [event type : %d])", name.c_str(), type);
        return false;
    }
    std::unique_ptr<ZoneEvent> event(Thread::createZoneEvent(type, state, data));
    if (event == nullptr) {
        ZLOGE("Failed to create the zone event(%d) (zone name : %s)", type, name.c_str());
        return false;
    }
    if (!zone->sendEvent(event.get())) {
        ZLOGE("Failed to send zone event to \"%s : %d\"", name.c_str(), type);
        return false;
    }
    static_cast<void>(event.release()); // the queue's now
    ZLOGI("zone event(%d) is sent (zone name : %s)", type, name.c_str());
    return true;
}

void ZoneContext::setZoneRestartFlag(const std::string& name, bool flag)
{
    Zone* zone = findZone(name);
    if (zone == nullptr) {
        return;
    }
    zone->restartFlag.store(flag, std::memory_order_relaxed);
    ZLOGI("Restart flag is set of \"%s\" to [%d]", name.c_str(), flag);
}

bool ZoneContext::zoneRestartFlag(const std::string& name)
{
    const Zone* zone = findZone(name);
    return zone != nullptr && zone->restartFlag.load(std::memory_order_relaxed);
}

pid_t ZoneContext::getZoneInitPID(const std::string& name)
{
    const Zone* zone = findZone(name);
    if (zone == nullptr) {
        return 0;
    }
    const pid_t recorded = zone->initPid.load(std::memory_order_relaxed);
    return recorded > 0 ? recorded : zone->container->initPID();
}

ZUP::ZoneType ZoneContext::getZoneType(const std::string& name)
{
    Zone* zone = findZone(name);
    return zone == nullptr ? ZUP::ZONE_TYPE_NONE : zone->getZoneType();
}

ZoneState ZoneContext::getZoneState(const std::string& name)
{
    const Zone* zone = findZone(name);
    return zone == nullptr ? NONE : zone->container->state();
}

ZUP::ZoneOperationType ZoneContext::zoneOperationType(const std::string& name)
{
    const Zone* zone = findZone(name);
    return zone == nullptr ? ZUP::ZONE_OPERATION_NONE : zone->operationType.load(std::memory_order_relaxed);
}

bool ZoneContext::isRunningZoneThreads()
{
    for (int number = 1; number <= zoneCount; ++number) {
        const Zone* zone = zoneAt(number - 1);
        if (zone == nullptr) {
            ZLOGE("Can not get a zone object (%d / %d)", number, zoneCount);
            return false;
        }
        if (!zone->isRunning()) {
            ZLOGE("The thread \"%s\" is not running yet (%d / %d)", zone->name().c_str(), number, zoneCount);
            return false;
        }
    }
    return true;
}

bool ZoneContext::startAutoStartZones()
{
    const auto containerState = std::make_shared<ZoneContainerState>();
    for (int number = 1; number <= zoneCount; ++number) {
        Zone* zone = zoneAt(number - 1);
        if (zone == nullptr) {
            ZLOGE("Can not get a zone object (%d / %d)", number, zoneCount);
            continue;
        }
        const bool requested = zone->autoStartRequested.load(std::memory_order_relaxed);
        const ZoneState state = zone->state.load(std::memory_order_relaxed);
        ZLOGI("Checking auto start zone for \"%s\" - %d / %d / %s", zone->zoneName.c_str(), requested,
              zone->autoStart, containerState->stateToString(state).c_str());
        if (!requested && zone->autoStart && state != RUNNING && zone->checkAutoStart()) {
            return requestAutoStart(zone, number);
        }
    }
    return true;
}

bool ZoneContext::requestAutoStart(Zone* zone, int number)
{
    // Before the event is sent: the zone's thread asks for a restart only when it finds the flag set.
    zone->autoStartRequested.store(true, std::memory_order_relaxed);
    if (!sendEventToZone(zone->zoneName, eZONE_EVENT_START, NONE, nullptr)) {
        ZLOGE("Failed to send eZONE_EVENT_START(auto start) event to \"%s\" (%d / %d)",
              zone->zoneName.c_str(), number, zoneCount);
        zone->autoStartRequested.store(false, std::memory_order_relaxed);
        return false;
    }
    return true;
}

} // namespace ZoneCore
