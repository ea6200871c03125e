#pragma once

#include "Common/ZoneTypes.h"
#include "Device/Machine.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Zonectl {

/// What matters of one container's configuration.
struct ContainerInfo
{
    std::string name;
    ZUP::ZoneType kind = ZUP::ZONE_TYPE_NONE;
    std::string kindText{};     ///< as the configuration file itself words it; empty when it does not
    std::string includedKind{}; ///< as an included file words it, where it does not count
    bool autoStart = false;
    std::string autoStartText{}; ///< as the configuration words it; empty when it does not
    bool sharesNetwork = false;  ///< the machine's own network, with its abstract sockets
    std::string rootfsPath;      ///< empty when the configuration names none
    std::string payloadCgroup;   ///< "lxc.cgroup.dir.container"
    std::string monitorCgroup;   ///< "lxc.cgroup.dir.monitor"
    std::string pivotCgroup;     ///< "lxc.cgroup.dir.monitor.pivot"
    bool hasLibraryKey = false;  ///< the line "lxc.container_type", which stock liblxc does not know
    bool unreadable = false;     ///< this user may not read all of it

    /// Whether the file names a kind and liblxc does not tell it.
    [[nodiscard]] bool kindIsUntold() const;
};

/// The containers that are defined below one LXC path.
struct ContainerListing
{
    std::string lxcPath{};
    std::vector<ContainerInfo> containers{};
    std::vector<std::string> unloadable{}; ///< with a configuration that liblxc refuses whole
    std::vector<std::string> unreadable{}; ///< with a configuration that this user may not read
    bool pathClosed = false;               ///< this user may not look into the path at all
};

/// One "key = value" line.
using ConfigLine = std::pair<std::string, std::string>;

/// The lines of a configuration text, in order, without comments and lines of another form.
[[nodiscard]] std::vector<ConfigLine> parseConfig(std::string_view text);

/// The LXC path that the system's lxc.conf names, or the usual one.
[[nodiscard]] std::string configuredLxcPath(const Machine& machine);

/// The container's configuration file.
[[nodiscard]] std::string configPath(const std::string& lxcPath, const std::string& name);

/// Reads one container's configuration file and what it includes. What cannot be read stays at its default.
[[nodiscard]] ContainerInfo readContainer(const Machine& machine, const std::string& lxcPath,
                                          const std::string& name);

/// The names of the directories below the path that hold a configuration file.
[[nodiscard]] std::vector<std::string> configuredNames(const Machine& machine, const std::string& lxcPath);

/// Lists the containers by their configuration files alone, for a system whose liblxc cannot be asked. A
/// directory that this user may not look into may be a container's.
[[nodiscard]] ContainerListing listFromFiles(const Machine& machine);

} // namespace Zonectl
