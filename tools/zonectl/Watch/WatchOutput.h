#pragma once

#include "Output/Output.h"
#include "Watch/Recording.h"

#include <string>

namespace Zonectl {

/// What `watch` prints for an event: one line, its new-line included. Nothing is printed for the end.
[[nodiscard]] std::string watchText(const WatchEvent& event, Micros wall, const Style& style);

/// The same as a line of JSON; the source is the door by which the change was seen.
[[nodiscard]] std::string watchJson(const WatchEvent& event, Micros wall, const std::string& source);

} // namespace Zonectl
