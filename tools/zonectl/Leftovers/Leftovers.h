#pragma once

#include "Device/Containers.h"
#include "Device/Machine.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace Zonectl {

/// In the order in which they are to be removed: what holds the next one comes first.
enum class LeftoverKind
{
    Init,         ///< the first process of a container that has lost its monitor process
    Frozen,       ///< a control group whose processes are frozen, or stuck on the way there
    ControlGroup, ///< control groups of one name, in all hierarchies
    PidFile,
    MonitorFifo,
    InstanceLock,
};

/// One thing that an earlier run left behind.
struct Leftover
{
    LeftoverKind kind{};
    std::string container{};          ///< empty for what belongs to the daemon
    std::vector<std::string> paths{}; ///< one but for control groups
    std::string why{};                ///< it is a leftover
    std::string remedy{};             ///< for a reader who does it by hand
    bool harmless = false;            ///< the daemon copes with it: it is named, and never removed
    bool removable = true;            ///< nothing speaks against removing it from here
    bool populated = false;           ///< control groups: there are processes in them
    pid_t pid = 0;                    ///< of an init
    std::uint64_t startTicks = 0;     ///< of that process, so that no other one is ever taken for it
    std::vector<std::pair<std::string, std::string>> thaws{}; ///< control files, and what to write into them

    /// Whether both are the same thing, seen at two times.
    [[nodiscard]] bool sameAs(const Leftover& other) const;
};

/// The word of a kind, for people: "pid file", "control group"...
[[nodiscard]] std::string_view leftoverWord(LeftoverKind kind);

/// The paths in one text as a shell understands it: "/sys/fs/cgroup/*/lxc.payload/NAME".
[[nodiscard]] std::string placeOf(const Leftover& leftover);

/// Looks for what earlier runs left behind, by kind. Changes nothing. `freezing` is how long a container that
/// runs may be on the way into the freezer before it counts as stuck.
///
/// What belongs to a container that runs is never among it, but for a freezer that is stuck. Nor is what
/// belongs to a container that is not in the listing, but for control groups without any process.
[[nodiscard]] std::vector<Leftover> findLeftovers(const Machine& machine, const ContainerListing& listing,
                                                  std::chrono::milliseconds freezing);

} // namespace Zonectl
