#pragma once

#include "Watch/Recording.h"

#include <string>
#include <vector>

namespace Zonectl {

/// How long a zone was in one state, as far as that was seen.
struct Interval
{
    std::string state;
    Micros from = 0;
    Micros to = 0;
    bool beginSeen = false; ///< it came into the state at `from`; else it was in it already
    bool endSeen = false;   ///< it left the state at `to`; else it was not watched any longer

    [[nodiscard]] bool whole() const { return beginSeen && endSeen; }
    [[nodiscard]] Micros length() const { return to - from; }
};

struct ZoneTimeline
{
    std::string zone;
    std::vector<Interval> intervals; ///< in order; between two may lie a time of which nothing is known
};

/// A time in which nothing could be seen.
struct BlindTime
{
    Micros from = 0;
    Micros to = 0;
    std::string who; ///< was away
};

/// What a recording tells, put in order by zone. The times are those of its clock.
struct Timeline
{
    Micros begin = 0;
    Micros end = 0;
    std::vector<ZoneTimeline> zones; ///< by name
    std::vector<BlindTime> gaps{};

    [[nodiscard]] Micros length() const { return end - begin; }
};

/// A state that is reported again while it lasts, as LXC does, lengthens its interval and makes no new one.
[[nodiscard]] Timeline timelineOf(const Recording& recording);

} // namespace Zonectl
