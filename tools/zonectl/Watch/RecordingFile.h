#pragma once

#include "Common/Handles.h"

#include <string>
#include <string_view>

namespace Zonectl {

/// The file that a recording is written to. It grows line by line: what was written is there, whatever
/// becomes of the program.
class RecordingFile
{
public:
    /// Makes the file, or takes an empty one. Throws Failure for one that holds anything or is written by
    /// another program like this.
    explicit RecordingFile(std::string path);

    /// Adds a line; false when it could not be written, and `problem` then says why.
    [[nodiscard]] bool append(std::string_view line);
    [[nodiscard]] const std::string& problem() const { return reason; }

private:
    std::string name;
    ZoneCore::UniqueFd file;
    std::string reason;
};

} // namespace Zonectl
