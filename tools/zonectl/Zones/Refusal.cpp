#include "Zones/Refusal.h"

#include "Device/Containers.h"
#include "Device/Machine.h"

#include <algorithm>

namespace Zonectl {

std::string nameList(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text.empty() ? "none" : text;
}

std::string noSuchZone(const std::vector<std::string>& known)
{
    return "the daemon has no such zone (there are: " + nameList(known) + ")";
}

std::string noSuchZones(const std::vector<std::string>& names, const std::vector<std::string>& known)
{
    return "no such zone: " + nameList(names) + " (there are: " + nameList(known) + ")";
}

std::string whyRefused(const BusClient& client, const std::string& zone)
{
    const std::vector<std::string> known = client.zoneNames();
    if (std::find(known.begin(), known.end(), zone) == known.end()) {
        return noSuchZone(known);
    }
    const Machine machine{""};
    switch (readContainer(machine, configuredLxcPath(machine), zone).kind) {
    case ZUP::ZONE_TYPE_PROTECTION:
        return "it is a protection zone, which nobody controls from outside";
    case ZUP::ZONE_TYPE_NONE:
        return "it is a protection zone, or a container that the daemon did not take as a zone "
               "('zonectl doctor' tells)";
    case ZUP::ZONE_TYPE_ISOLATION:
    case ZUP::ZONE_TYPE_HYBRID:
        break;
    }
    return std::string(NOT_TAKEN) + ", or not ready yet";
}

} // namespace Zonectl
