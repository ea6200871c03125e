#pragma once

#include "Watch/Recording.h"

#include <string>
#include <vector>

/// The recording that these lines are.
[[nodiscard]] inline Zonectl::Recording readLines(const std::vector<std::string>& lines)
{
    Zonectl::RecordingReader reader;
    for (const std::string& line : lines) {
        reader.take(line);
    }
    return reader.finish();
}

/// The recording that is read when these have been written.
[[nodiscard]] inline Zonectl::Recording recordingOf(const Zonectl::RecordingHeader& header,
                                                    const std::vector<Zonectl::WatchEvent>& events)
{
    std::vector<std::string> lines = {Zonectl::headerLine(header)};
    for (const Zonectl::WatchEvent& event : events) {
        lines.push_back(Zonectl::eventLine(event));
    }
    return readLines(lines);
}
