#pragma once

#include <chrono>
#include <string>

namespace Zonectl {

/// The longest name that the server takes; behind it there is room for its terminator only.
inline constexpr std::size_t LONGEST_INIT_PID_NAME = 63;

/// Asks the daemon's init-pid socket and returns the number that it answers: the process id of an isolation
/// zone's init, -1 for one that has not run, 0 for any other name. Throws Failure: EXIT_UNREACHABLE when
/// nobody serves, EXIT_TIME_LIMIT when no answer came in time, EXIT_FAILED when
/// another user's program serves, and for an answer that is no number.
[[nodiscard]] long askInitPid(const std::string& zone, std::chrono::milliseconds patience);

} // namespace Zonectl
