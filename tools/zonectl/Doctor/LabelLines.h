#pragma once

#include "Device/Containers.h"
#include "Doctor/Labels.h"

#include <string>
#include <vector>

namespace Zonectl {

/// The lines of tmpfiles.d(5) that make the directories of the rules and give them their labels. What nobody
/// but the container itself can bring, its root file system, is labelled and not made.
[[nodiscard]] std::string tmpfilesLines(const std::vector<LabelRule>& rules, const std::string& lxcPath);

} // namespace Zonectl
