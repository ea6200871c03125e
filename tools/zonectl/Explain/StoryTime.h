#pragma once

#include "Explain/LogReader.h"

#include <string>

namespace Zonectl {

/// The local time for people: "2026-11-21 15:58:23.123".
[[nodiscard]] std::string timeText(LogTime time);

/// The local time for programs: "2026-11-21T15:58:23.123456+01:00".
[[nodiscard]] std::string isoText(LogTime time);

/// "0.250 s"
[[nodiscard]] std::string durationText(LogTime duration);

/// How often: "once", "12 times".
[[nodiscard]] std::string timesText(std::size_t count);

} // namespace Zonectl
