#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Zonectl {

/// liblxc cannot look at a container without making lock files below /run and waiting for whoever holds them.
/// This gives the calling process an empty /run of its own, for the rest of its life: it is for short-lived
/// ones. Where the kernel does not permit that, all stays as it is.
void coverRunDirectory();

/// Looks from a short-lived process with a covered /run, whose complaints on standard error go nowhere.
/// @return what `look` returned; nothing when the process died on the way or took longer than `patience`
[[nodiscard]] std::optional<std::string> lookQuietly(const std::function<std::string()>& look,
                                                     std::chrono::milliseconds patience);

} // namespace Zonectl
