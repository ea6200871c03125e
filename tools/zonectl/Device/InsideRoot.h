#pragma once

#include "Common/Handles.h"

#include <string>

namespace Zonectl {

/// Opens a path as the system with this root directory sees it: its symbolic links lead to where they would
/// lead there, absolute ones too, and none leads out of it. Flags as for open. Good for looking only: who may
/// change that system in the meantime can still lead it astray.
/// @return no descriptor, and `errno`, when that fails
[[nodiscard]] ZoneCore::UniqueFd openInside(const std::string& root, const std::string& path, int flags);

} // namespace Zonectl
