#pragma once

#include "Device/Containers.h"
#include "Doctor/Repair.h"

#include <string>
#include <vector>

namespace Zonectl {

/// Whether the container's lxc.start.auto is a value that nobody takes for another: 0, 1 or none.
[[nodiscard]] bool hasPlainAutoStart(const ContainerInfo& container);

/// What puts 1 for a word of assent into the configuration, and 0 for one of refusal. None for any other
/// value: somebody has to say what was meant.
[[nodiscard]] std::vector<Repair> repairsOfAutoStart(const ContainerInfo& container,
                                                     const std::string& config);

/// What to do where there is no such repair. `config` is as a reader finds it.
[[nodiscard]] std::string autoStartRemedy(const std::string& config);

} // namespace Zonectl
