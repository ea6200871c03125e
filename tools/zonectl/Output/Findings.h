#pragma once

#include "Output/Output.h"

#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

class JsonWriter;

enum class Severity
{
    Ok,
    Note,    ///< good to know
    Warning, ///< something will not work as it could
    Problem, ///< the daemon or a zone will not work
};

/// One thing that was looked at.
struct Finding
{
    std::string subject;
    Severity severity;
    std::string text;
    std::string remedy; ///< what to do; empty when nothing is to be done
};

/// The word of a severity: "ok", "note", "warning", "problem".
[[nodiscard]] std::string_view severityWord(Severity severity);

/// Whether one of them is a problem.
[[nodiscard]] bool anyProblem(const std::vector<Finding>& findings);

/// Prints one to standard output, with what to do about it in a line of its own.
void printFinding(const Finding& finding, const Style& style);

/// Writes them as an array.
void writeFindings(JsonWriter& json, const std::vector<Finding>& findings);

} // namespace Zonectl
