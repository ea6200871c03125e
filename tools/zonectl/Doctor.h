#pragma once

#include "Containers.h"
#include "Findings.h"
#include "Machine.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// A container that the daemon lists and does not take as a zone.
struct RefusedContainer
{
    std::string name;
    std::vector<std::string> reasons;
};

/// All that was found out about a machine.
struct Diagnosis
{
    std::vector<Finding> findings;
    std::vector<RefusedContainer> refused;
    std::size_t listed = 0; ///< containers that the daemon counts

    /// The daemon waits for as many zones as containers are listed before it starts the first, so that one
    /// refused container keeps every zone from starting automatically.
    [[nodiscard]] bool automaticStartBlocked() const { return !refused.empty(); }
    [[nodiscard]] bool hasProblems() const;
};

/// Why the daemon would refuse the container; empty when it takes it.
[[nodiscard]] std::vector<std::string> refusalReasons(const Machine& machine, const std::string& lxcPath,
                                                      const ContainerInfo& container, bool smackKernel);

/// The controller lists of a "/proc/self/cgroup" text that the daemon's clean-up looks at: those of cgroup
/// version 1 without the named hierarchies.
[[nodiscard]] std::vector<std::string> controllerLists(std::string_view cgroupText);

/// Looks the machine over. Changes nothing, and needs neither the daemon nor a bus.
[[nodiscard]] Diagnosis examine(const Machine& machine);

/// The containers as the daemon sees them: through its liblxc where that can be asked, else by their files.
[[nodiscard]] ContainerListing listContainers(const Machine& machine);

} // namespace Zonectl
