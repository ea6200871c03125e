#pragma once

#include "Explain/LogStory.h"
#include "Output/Findings.h"

#include <string>
#include <vector>

namespace Zonectl {

/// What to do so that the daemon takes a container, judged by its messages.
[[nodiscard]] std::string remedyFor(const RefusedInLog& refused);

/// The messages that a remedy is known for.
[[nodiscard]] std::vector<KnownMessage> messagesWithRemedy();

/// Whether the daemon restarts a zone again and again up to the log's end.
[[nodiscard]] bool inRestartLoop(const Story& story, const ZoneStory& zone);

/// What there is to know and to do about the told run, the gravest of the daemon itself first. With a zone's
/// name only what concerns that zone; a blocked automatic start concerns all.
[[nodiscard]] std::vector<Finding> findingsOf(const LogStory& log, const std::string& zoneName);

} // namespace Zonectl
