#pragma once

/// The fixed names and paths of the daemon, as a client sees them.
namespace Zonectl::Names {

inline constexpr const char* BUS_NAME = "org.ornix.zoneframework";
inline constexpr const char* OBJECT_PATH = "/org/ornix/zoneframework";
inline constexpr const char* INTERFACE = "org.ornix.zoneframework.interface";
inline constexpr const char* STATE_SIGNAL = "ZoneStateChangedSignal";
inline constexpr const char* INIT_PID_SOCKET = "zonemanager_socket"; ///< in the abstract name space

inline constexpr const char* LXC_LIBRARY = "/zone/config/liblxc.so.1";
inline constexpr const char* LAUNCHER = "/zone/config/zone-launcher";
inline constexpr const char* LABEL_ATTRIBUTE = "security.SMACK64";
inline constexpr const char* DAEMON_PROGRAM = "zone-manager";
inline constexpr const char* RESPONSE_SOCKET = "zonemanager_socket";

inline constexpr const char* RUN_DIRECTORY = "/run/lxc";
inline constexpr const char* LOCK_DIRECTORY = "/run/lxc/lock";
inline constexpr const char* PID_FILE_DIRECTORY = "/run/lxc/pid";
inline constexpr const char* INSTANCE_LOCK = "/run/lxc/lock/zone-manager.lock";
inline constexpr const char* MONITOR_FIFO = "monitor-fifo"; ///< below the run directory and the LXC path
inline constexpr const char* WRITABLE_PREFIX = "/opt";      ///< before LXC's path
inline constexpr const char* ZONE_DIRECTORY = "/opt/zone";
inline constexpr const char* SECURE_DATA_DIRECTORY = "/opt/zone/template/securedata";
inline constexpr const char* CGROUP_DIRECTORY = "/sys/fs/cgroup";
inline constexpr const char* DEFAULT_LXC_PATH = "/var/lib/lxc";

} // namespace Zonectl::Names
