#pragma once

#include <string_view>

/// What the doctor's findings are called, for programs that read them; zonectl(1) tells what each means. A
/// name without a dot says that all is well with its subject.
namespace Zonectl::FindingIds {

inline constexpr std::string_view USER = "user";
inline constexpr std::string_view USER_NOT_ROOT = "user.not-root";
inline constexpr std::string_view SMACK = "smack";
inline constexpr std::string_view SMACK_INACTIVE = "smack.inactive";
inline constexpr std::string_view CGROUPS = "cgroups";
inline constexpr std::string_view CGROUPS_NONE = "cgroups.none";
inline constexpr std::string_view CGROUPS_NESTED = "cgroups.nested";

inline constexpr std::string_view BUS = "bus";
inline constexpr std::string_view BUS_UNREACHABLE = "bus.unreachable";
inline constexpr std::string_view BUS_NAME_TAKEN = "bus.name-taken";
inline constexpr std::string_view POLICY = "policy";
inline constexpr std::string_view POLICY_MISSING = "policy.missing";
inline constexpr std::string_view POLICY_NO_OWNER = "policy.no-owner";
inline constexpr std::string_view POLICY_OPEN = "policy.open";
inline constexpr std::string_view UNIT_LXC = "unit.lxc";
inline constexpr std::string_view UNIT_MONITORD = "unit.lxc-monitord";

inline constexpr std::string_view LIBRARY = "liblxc";
inline constexpr std::string_view LIBRARY_UNTRIED = "liblxc.untried";
inline constexpr std::string_view LIBRARY_MISSING = "liblxc.missing";
inline constexpr std::string_view LIBRARY_UNLOADABLE = "liblxc.unloadable";
inline constexpr std::string_view LIBRARY_FUNCTIONS = "liblxc.functions";
inline constexpr std::string_view LIBRARY_MONITOR = "liblxc.monitor";
inline constexpr std::string_view LIBRARY_KIND = "liblxc.kind";
inline constexpr std::string_view LAUNCHER = "launcher";
inline constexpr std::string_view LAUNCHER_UNREADABLE = "launcher.unreadable";
inline constexpr std::string_view LAUNCHER_MISSING = "launcher.missing";
inline constexpr std::string_view LAUNCHER_DANGLING = "launcher.dangling";
inline constexpr std::string_view LAUNCHER_NOT_EXECUTABLE = "launcher.not-executable";
inline constexpr std::string_view LAUNCHER_INTERPRETER = "launcher.interpreter";
inline constexpr std::string_view LAUNCHER_FORMAT = "launcher.format";
inline constexpr std::string_view LAUNCHER_UNPROTECTED = "launcher.unprotected";

inline constexpr std::string_view DIRECTORY = "directory";
inline constexpr std::string_view DIRECTORY_HIDDEN = "directory.hidden";
inline constexpr std::string_view DIRECTORY_MISSING = "directory.missing";
inline constexpr std::string_view DIRECTORY_NONE = "directory.not-a-directory";
inline constexpr std::string_view DIRECTORY_ATTRIBUTES = "directory.no-attributes";
inline constexpr std::string_view DIRECTORY_LABEL = "directory.no-label";
inline constexpr std::string_view DIRECTORY_READ_ONLY = "directory.read-only";
inline constexpr std::string_view DIRECTORY_FULL = "directory.full";
inline constexpr std::string_view DIRECTORY_OWNER = "directory.owner";
inline constexpr std::string_view DIRECTORY_MODE = "directory.mode";

inline constexpr std::string_view HOLDER_UNKNOWN = "holder.unknown";
inline constexpr std::string_view LOCK = "lock";
inline constexpr std::string_view LOCK_HELD = "lock.held";
inline constexpr std::string_view FIFO = "fifo";
inline constexpr std::string_view FIFO_HELD = "fifo.held";
inline constexpr std::string_view FIFO_NONE = "fifo.not-a-fifo";
inline constexpr std::string_view SOCKET = "socket";
inline constexpr std::string_view SOCKET_TAKEN = "socket.taken";

inline constexpr std::string_view LXC_PATH_NONE = "lxcpath.none";
inline constexpr std::string_view LXC_PATH_MISSING = "lxcpath.missing";
inline constexpr std::string_view CONTAINERS_NONE = "containers.none";
inline constexpr std::string_view CONTAINER = "container";
inline constexpr std::string_view CONTAINER_UNREADABLE = "container.unreadable";
inline constexpr std::string_view CONTAINER_UNLOADABLE = "container.unloadable";
inline constexpr std::string_view CONTAINER_NO_KIND = "container.no-kind";
inline constexpr std::string_view CONTAINER_BAD_KIND = "container.bad-kind";
inline constexpr std::string_view CONTAINER_INCLUDED_KIND = "container.included-kind";
inline constexpr std::string_view CONTAINER_ATTRIBUTES = "container.no-attributes";
inline constexpr std::string_view CONTAINER_LABEL = "container.no-label";
inline constexpr std::string_view CONTAINER_READ_ONLY = "container.read-only";
inline constexpr std::string_view CONTAINER_NO_ROOTFS = "container.no-rootfs";
inline constexpr std::string_view CONTAINER_ROOTFS = "container.rootfs-missing";
inline constexpr std::string_view CONTAINER_CGROUPS = "container.cgroups";
inline constexpr std::string_view CONTAINER_NETWORK = "container.shared-network";
inline constexpr std::string_view CONTAINER_NAME = "container.long-name";
inline constexpr std::string_view CONTAINER_AUTOSTART = "container.autostart-value";
inline constexpr std::string_view DAEMON_STALE = "daemon.stale";
inline constexpr std::string_view DAEMON_GONE = "daemon.gone";
inline constexpr std::string_view DAEMON_SILENT = "daemon.silent";
inline constexpr std::string_view AUTOSTART = "automatic-start";

} // namespace Zonectl::FindingIds
