#pragma once

#include "ZoneCore/Zone.h"

#include <lxc/lxccontainer.h>

#include <memory>
#include <string>

namespace ZoneCore {

/// Turns a defined container into a zone whose thread runs. Used on the main thread during start-up only.
class ZoneFactory
{
public:
    /// @param container a handle of the listing; the zone takes it over together with one more reference
    /// @param basePath the LXC path
    /// @return the zone, the caller's; null after a failure that has been logged
    [[nodiscard]] Zone* getZone(lxc_container* container, std::string& basePath);

private:
    [[nodiscard]] std::unique_ptr<Zone> createZone(lxc_container* container);
    [[nodiscard]] bool initializeZone(Zone* zone, const std::string& name, bool useDefaultContext);
    [[nodiscard]] bool fillZone(Zone* zone, lxc_container* container);
};

} // namespace ZoneCore
