#pragma once

#include "Output/Output.h"
#include "Watch/Timeline.h"

#include <cstddef>
#include <string>

namespace Zonectl {

/// The letters of a zone's states, one for each of so many equal parts of the time: the state at the end of
/// the part, '|' when more than one state began in it, ':' where nothing could be seen, a blank where nothing
/// is known.
[[nodiscard]] std::string chartRow(const Timeline& timeline, const ZoneTimeline& zone, std::size_t columns);

/// One row for each zone below a scale, as wide as the terminal has columns, and what the letters mean.
[[nodiscard]] std::string renderChart(const Timeline& timeline, std::size_t columns, const Style& style);

} // namespace Zonectl
