#pragma once

#include "Common/ZoneTypes.h"

#include <span>
#include <string>
#include <string_view>

namespace Zonectl {

/// The word of a state number as the daemon sends it; "UNKNOWN(N)" outside of the known values.
[[nodiscard]] std::string stateWord(int state);

/// The words of all states, in the order of their numbers.
[[nodiscard]] std::span<const char* const> stateWords();

/// The word of a zone's kind: "isolation", "hybrid", "protection"; empty for `ZONE_TYPE_NONE`.
[[nodiscard]] std::string_view kindWord(ZUP::ZoneType kind);

/// The kind that a configuration names by its number or its word; `ZONE_TYPE_NONE` for anything else.
[[nodiscard]] ZUP::ZoneType kindFromText(std::string_view text);

/// The kind of a number; `ZONE_TYPE_NONE` for anything but 1, 2 and 3.
[[nodiscard]] ZUP::ZoneType kindFromNumber(int number);

} // namespace Zonectl
