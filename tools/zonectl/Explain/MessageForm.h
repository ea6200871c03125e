#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// The values of a message's conversions, in their order.
using MessageValues = std::vector<std::string>;

/// Matches a message with a printf format as the daemon's sources have it. Each of its conversions stands for
/// any text, the shortest that fits, the last of a format that ends with one for all the rest.
/// @return whether it matches; `values` are only then complete
[[nodiscard]] bool matchesForm(std::string_view form, std::string_view message, MessageValues& values);

} // namespace Zonectl
