#pragma once

#include "Leftovers/Leftovers.h"

#include <string>

namespace Zonectl {

/// Removes a leftover of the running machine and waits a few seconds at most until it is gone. Returns what
/// went wrong; empty when nothing did.
///
/// What is harmless or not removable is not touched. A process is killed only when it is still the one that
/// was found, and a control group goes only when it has no process, which the kernel sees to.
[[nodiscard]] std::string removeLeftover(const Leftover& leftover);

} // namespace Zonectl
