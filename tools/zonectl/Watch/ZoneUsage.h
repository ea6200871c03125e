#pragma once

#include "Device/Machine.h"
#include "Watch/Recording.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Zonectl {

/// What a zone's control groups and processes tell of it at one moment; nothing where they do not.
struct ZoneUsage
{
    std::string state; ///< as far as they can tell it: RUNNING, FREEZING, FROZEN or STOPPED
    std::optional<Micros> processorTime{};
    std::optional<std::int64_t> memoryBytes{};
    std::optional<std::int64_t> processes{};
    std::optional<std::int64_t> uptimeSeconds{}; ///< of its first process
};

/// Looks at the control groups that the container's configuration names, or else at those that LXC chooses by
/// itself, in the hierarchies of both versions.
[[nodiscard]] ZoneUsage usageOf(const Machine& machine, const std::string& lxcPath, const std::string& name);

} // namespace Zonectl
