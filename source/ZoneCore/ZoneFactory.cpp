#include "ZoneCore/ZoneFactory.h"

#include "Common/Log.h"
#include "ZoneCore/HybridZone.h"
#include "ZoneCore/IsolateZone.h"
#include "ZoneCore/ProtectZone.h"

#include <array>
#include <cstring>

namespace ZoneCore {

namespace {

constexpr const char* KEY_CONTAINER_TYPE = "lxc.container_type";
constexpr const char* KEY_START_AUTO = "lxc.start.auto";
constexpr const char* KEY_ROOTFS_PATH = "lxc.rootfs.path";
constexpr const char* AUTO_START_VALUE = "1";

constexpr bool WATCHDOG_ENABLED = true;
constexpr int WATCHDOG_INTERVAL_S = 360;
constexpr int WATCHDOG_NOTIFY_PERIOD_MS = 15000;

using ConfigValue = std::array<char, 4096>;

/// Reads an item into a zeroed buffer; the last byte stays zero.
/// @return what liblxc returns: the value's length, or below 1
int readConfigItem(lxc_container* container, const char* key, ConfigValue& value)
{
    value.fill('\0');
    const int length =
        container->get_config_item(container, key, value.data(), static_cast<int>(value.size()));
    value.back() = '\0';
    return length;
}

/// Whether the container is marked for automatic start: its item is exactly "1".
bool isMarkedForAutoStart(lxc_container* container)
{
    const int length = container->get_config_item(container, KEY_START_AUTO, nullptr, 0);
    ConfigValue value;
    if (length < 1 || length > static_cast<int>(value.size()) - 1) {
        return false;
    }
    if (readConfigItem(container, KEY_START_AUTO, value) != length) {
        return false;
    }
    return std::strncmp(value.data(), AUTO_START_VALUE, static_cast<size_t>(length) + 1) == 0;
}

} // namespace

Zone* ZoneFactory::getZone(lxc_container* container, std::string& basePath)
{
    if (container == nullptr) {
        ZLOGE("Invalid lxc container object...");
        return nullptr;
    }
    std::unique_ptr<Zone> zone = createZone(container);
    if (zone == nullptr) {
        return nullptr;
    }
    zone->zoneName = container->name;
    zone->basePath = basePath;
    ZLOGI("[Zone Name : %s] / [Zone Base Path : %s] / [Zone Type : %d]", zone->zoneName.c_str(),
          zone->basePath.c_str(), zone->getZoneType());

    if (!initializeZone(zone.get(), zone->zoneName, false)) {
        ZLOGE("Failed to initialize the zone object...%s", container->name);
        return nullptr;
    }
    if (!zone->checkZoneSmackLabel()) {
        ZLOGE("The smack label(!) of zone(%s) is invalid...", container->name);
        return nullptr;
    }
    if (!fillZone(zone.get(), container)) {
        return nullptr;
    }
    ZLOGI("Start the zone thread for \"%s\"", zone->zoneName.c_str());
    return zone.release();
}

std::unique_ptr<Zone> ZoneFactory::createZone(lxc_container* container)
{
    std::unique_ptr<Zone> zone;
    const int type = container->get_config_item(container, KEY_CONTAINER_TYPE, nullptr, 0);
    if (type == ZUP::ZONE_TYPE_HYBRID) {
        zone = std::make_unique<HybridZone>();
    } else if (type == ZUP::ZONE_TYPE_PROTECTION) {
        zone = std::make_unique<ProtectZone>();
    } else if (type == ZUP::ZONE_TYPE_ISOLATION) {
        zone = std::make_unique<IsolateZone>();
    } else {
        ZLOGI("container_type : %d", type);
        ZLOGE("Failed to create the zone object...%s", container->name);
        return nullptr;
    }
    zone->setZoneType(static_cast<ZUP::ZoneType>(type));
    return zone;
}

bool ZoneFactory::initializeZone(Zone* zone, const std::string& name, bool useDefaultContext)
{
    if (!zone->initialize(useDefaultContext, name)) {
        ZLOGE("Failed to initialize the zone object...%s", name.c_str());
        return false;
    }
    zone->setWatchDog(WATCHDOG_ENABLED, WATCHDOG_INTERVAL_S, WATCHDOG_NOTIFY_PERIOD_MS);
    if (!zone->createEventQueue()) {
        ZLOGE("Failed to create the async event queue...%s", name.c_str());
        return false;
    }
    if (!zone->attachEventSource()) {
        ZLOGE("Failed to attach the event source...%s", name.c_str());
        zone->destroyEventQueue();
        return false;
    }
    return true;
}

bool ZoneFactory::fillZone(Zone* zone, lxc_container* container)
{
    zone->container->setHandle(container);
    if (lxc_container_get(container) != 1) {
        ZLOGE("Failed to get the container reference...%s", container->name);
        return false;
    }
    if (isMarkedForAutoStart(container)) {
        ZLOGI("auto start flag is true...%s", container->name);
        zone->autoStart = true;
    }
    ConfigValue rootfs;
    if (readConfigItem(container, KEY_ROOTFS_PATH, rootfs) < 1) {
        ZLOGE("Failed to get \"lxc.rootfs\" value...%s", container->name);
        static_cast<void>(lxc_container_put(container));
        return false;
    }
    zone->rootfsPath = rootfs.data();
    if (!zone->isRunning() && !zone->run()) {
        ZLOGE("Failed to run the zone thread...%s", container->name);
        static_cast<void>(lxc_container_put(container));
        return false;
    }
    return true;
}

} // namespace ZoneCore
