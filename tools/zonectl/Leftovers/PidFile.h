#pragma once

#include "Device/Machine.h"
#include "Device/ProcessTable.h"

#include <string>

namespace Zonectl {

/// Why the pid file of a container that does not run is stale at this moment; empty when it is not. The
/// daemon kills whatever processes it names. `clock` only tells times: its processes may be of an earlier
/// moment, and a container that has started since is none that is gone.
[[nodiscard]] std::string whyStale(const Machine& machine, const ProcessTable& clock,
                                   const std::string& pidFile);

} // namespace Zonectl
