#pragma once

#include "Common/Handles.h"

#include <string>
#include <sys/types.h>

namespace Zonectl {

/// The user whose process listens at the other end of a connected local socket. Any user can take an abstract
/// address that is free.
[[nodiscard]] uid_t listeningUser(const ZoneCore::UniqueFd& connected);

/// Why whoever listens there cannot be the zone manager; empty when it can: its process is root's, or the
/// caller's own.
[[nodiscard]] std::string whyNotTheDaemon(const ZoneCore::UniqueFd& connected);

} // namespace Zonectl
