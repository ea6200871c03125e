#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace Zonectl {

/// What became of a question to the LXC monitor process of a container.
enum class MonitorVoice
{
    Unknown, ///< it could not be asked
    Answers, ///< or there is none, which liblxc knows at once
    Silent,  ///< whoever asks liblxc about the container waits for it, the daemon too
};

/// How long a monitor process may take for its answer; it needs less than a millisecond when it is well.
inline constexpr std::chrono::milliseconds MONITOR_PATIENCE(500);

/// Asks the monitor processes of all these containers at the same time, each from a short-lived process of
/// its own, since liblxc waits without a limit. None of them is left behind. Containers that are not in the
/// answer are unknown. To be called while the process has one thread, and so before it connects to a bus.
[[nodiscard]] std::map<std::string, MonitorVoice> askMonitors(const std::vector<std::string>& containers);

} // namespace Zonectl
