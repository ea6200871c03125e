#pragma once

#include "Device/Machine.h"

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Zonectl {

/// A control group of one container in one mounted hierarchy.
struct ControlGroup
{
    std::string path{};        ///< with the hierarchy's mount point
    std::string relative{};    ///< without it: "lxc.payload/NAME" or "lxc.payload.NAME"
    std::string tail{};        ///< what stands in the place of NAME: the name, or the name and "-1", "-2"...
    bool payload = false;      ///< of the container; else of its monitor process
    bool exclusive = false;    ///< of the form with a slash, of which LXC makes no copies
    bool populated = false;    ///< a process is in it or below, or that cannot be found out
    std::vector<pid_t> pids{}; ///< in it and below, as far as they can be named

    [[nodiscard]] bool holds(pid_t pid) const;
};

/// Whether a control group is frozen, is being frozen, or neither.
struct FreezerState
{
    enum class Progress
    {
        Thawed,
        Freezing,
        Frozen,
    };

    Progress progress = Progress::Thawed;
    bool asked = false;   ///< of this group itself, and not of one above it
    std::string file{};   ///< the control file by which it is thawed
    std::string thawed{}; ///< what to write into it
};

/// The mount points of all control-group hierarchies, of both versions.
[[nodiscard]] std::vector<std::string> cgroupMounts(const Machine& machine);

/// A hierarchy in which process 1 is not at the top, as far as that can be seen from here. LXC makes the
/// groups of root's containers below the group of process 1.
struct NestedHierarchy
{
    std::string controllers{}; ///< as "cpu,cpuacct" or "name=systemd"; empty for version 2
    std::string mount{};       ///< the mount point
    std::string group{};       ///< that of process 1, with the mount point
};

/// The mounted hierarchies in which LXC makes its groups further down than at the top.
[[nodiscard]] std::vector<NestedHierarchy> nestedHierarchies(const Machine& machine);

/// The control groups of LXC's usual forms directly below each mount point, in the order of the mounts, and
/// then those directly below the group of process 1 where that is further down.
[[nodiscard]] std::vector<ControlGroup> lxcControlGroups(const Machine& machine);

/// A control group by its path alone, with the processes in it and below.
[[nodiscard]] ControlGroup controlGroupAt(const Machine& machine, const std::string& path);

/// Reads a group's freezer; a hierarchy without one counts as thawed.
[[nodiscard]] FreezerState freezerState(const Machine& machine, const std::string& path);

/// The tail without LXC's "-N" for a further copy; the same text when it has none.
[[nodiscard]] std::string_view withoutCopyNumber(std::string_view tail);

} // namespace Zonectl
