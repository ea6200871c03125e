#pragma once

namespace ZoneCore {

/// The directories that must exist before any container runs. Each path stands here and nowhere else.
namespace RuntimePaths {
constexpr const char* RUN = "/var/run/lxc";
constexpr const char* PID = "/var/run/lxc/pid";
constexpr const char* LOCK = "/var/run/lxc/lock";
constexpr const char* TEMPLATE = "/opt/zone/template";
constexpr const char* SECURE_DATA = "/opt/zone/template/securedata";
constexpr int MODE = 0755;
} // namespace RuntimePaths

/// The Smack label that keeps everybody but privileged processes out.
constexpr const char* LABEL_PRIVATE = "!";

} // namespace ZoneCore
