#pragma once

#include "Daemon/BusClient.h"

#include <string>
#include <vector>

namespace Zonectl {

/// What is said of a defined container, of a kind that the bus serves, that the daemon refuses.
inline constexpr const char* NOT_TAKEN =
    "the daemon does not have it: defined or corrected since it began (restart the daemon), "
    "or refused ('zonectl doctor' tells)";
/// What is said of a zone that outlives its container's definition.
inline constexpr const char* NO_CONTAINER = "no container of that name is defined any more";

/// Names in one line, "a, b, c"; "none" without any.
[[nodiscard]] std::string nameList(const std::vector<std::string>& names);

/// What is said of names that nobody has.
[[nodiscard]] std::string noSuchZones(const std::vector<std::string>& names,
                                      const std::vector<std::string>& known);

/// Why the daemon refuses requests for a zone, as far as its other answers and the configuration tell. Throws
/// what a call throws.
[[nodiscard]] std::string whyRefused(const BusClient& client, const std::string& zone);

/// What is said of a name that the daemon does not have.
[[nodiscard]] std::string noSuchZone(const std::vector<std::string>& known);

} // namespace Zonectl
