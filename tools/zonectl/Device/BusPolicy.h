#pragma once

#include "Device/Machine.h"

#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// What the system bus's configuration says about the zone manager.
struct BusPolicy
{
    std::vector<std::string> files{}; ///< those that speak of it
    bool rootMayOwn = false;
    bool othersMayCall = false;
};

/// Adds what one configuration file says. A text that is no such file says nothing.
void readPolicyText(std::string_view text, BusPolicy& policy);

/// Reads the files of the directories where packages and administrators put them.
[[nodiscard]] BusPolicy readBusPolicy(const Machine& machine);

} // namespace Zonectl
