#pragma once

#include <sys/types.h>

namespace ZoneCore {

/// The kernel's id of the calling thread.
[[nodiscard]] pid_t currentThreadId();

} // namespace ZoneCore
