#pragma once

#include "Device/Containers.h"
#include "Device/Machine.h"
#include "Doctor/Repair.h"
#include "Output/Findings.h"

#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// One thing that the doctor looked at.
struct Diagnosed
{
    std::string_view id; ///< one of `FindingIds`
    std::string subject{};
    Severity severity = Severity::Problem;
    std::string text{};
    std::string remedy{};          ///< what to do; a shell command wherever one does it
    std::string message{};         ///< what the daemon writes because of it
    std::vector<Repair> repairs{}; ///< the remedy, where this program can apply it itself
};

/// A container that the daemon lists and does not take as a zone.
struct RefusedContainer
{
    std::string name;
    std::vector<std::string> reasons;
};

/// All that was found out about a machine.
struct Diagnosis
{
    std::vector<Diagnosed> findings;
    std::vector<RefusedContainer> refused;
    std::size_t listed = 0;   ///< containers that the daemon counts
    std::size_t unjudged = 0; ///< those of them that this user may not see enough of

    /// The daemon waits for as many zones as containers are listed before it asks for the first start. A
    /// refused one keeps all from being started automatically, until a zone reaches RUNNING some other way.
    [[nodiscard]] bool automaticStartBlocked() const { return !refused.empty(); }
    [[nodiscard]] bool hasProblems() const;
};

/// The controller lists of a "/proc/self/cgroup" text that the daemon's clean-up looks at: those of cgroup
/// version 1 without the named hierarchies.
[[nodiscard]] std::vector<std::string> controllerLists(std::string_view cgroupText);

/// Looks the machine over. Changes nothing, and needs neither the daemon nor a bus; a daemon that is on the
/// bus is asked which zones it has.
[[nodiscard]] Diagnosis examine(const Machine& machine);

/// The containers as the daemon sees them: through its liblxc where that can be asked, else by their files.
[[nodiscard]] ContainerListing listContainers(const Machine& machine);

} // namespace Zonectl
