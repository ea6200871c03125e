#pragma once

#include "Common/ZoneTypes.h"

#include <string>

namespace ZoneCore {

/// Translates between the container runtime's state words and ZoneState. Holds no data; made for a
/// translation (or for a pass of several) and dropped afterwards. May be used on any thread.
class ZoneContainerState
{
public:
    ZoneContainerState();
    ~ZoneContainerState();
    ZoneContainerState(const ZoneContainerState&) = delete;
    ZoneContainerState& operator=(const ZoneContainerState&) = delete;

    /// @param state one of the nine upper-case words; any other ends the process, in every build
    [[nodiscard]] ZoneState stateToEnum(const std::string& state);

    /// @param state one of the nine values; any other ends the process, in every build
    [[nodiscard]] std::string stateToString(const ZoneState& state);
};

} // namespace ZoneCore
