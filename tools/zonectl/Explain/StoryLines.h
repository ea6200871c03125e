#pragma once

#include "Explain/Story.h"

#include <vector>

namespace Zonectl {

/// How many of a zone's like rounds in a row are shown, before the rest is summed up.
inline constexpr std::size_t SHOWN_ROUNDS = 2;

/// A line of a story for people: one event, or several rounds of events that are like those before.
struct StoryLine
{
    const Event* first = nullptr;
    const Event* last = nullptr; ///< the first as well, for one event
    std::size_t rounds = 0;      ///< how many; 0 for one event
};

/// The lines for these events, which outlive them. A round goes from the asking for a start to before the
/// next. Two are alike when the same is said in them, if in another order: several threads write the log, and
/// two processes are alike.
[[nodiscard]] std::vector<StoryLine> linesOf(const std::vector<Event>& events);

} // namespace Zonectl
