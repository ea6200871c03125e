#include "Output/Findings.h"

#include "Output/Json.h"

#include <algorithm>
#include <iostream>

namespace Zonectl {

namespace {

[[nodiscard]] Tone toneOf(Severity severity)
{
    switch (severity) {
    case Severity::Ok:
        return Tone::Good;
    case Severity::Note:
        return Tone::Muted;
    case Severity::Warning:
        return Tone::Warning;
    case Severity::Problem:
        return Tone::Bad;
    }
    return Tone::Plain;
}

} // namespace

std::string_view severityWord(Severity severity)
{
    switch (severity) {
    case Severity::Ok:
        return "ok";
    case Severity::Note:
        return "note";
    case Severity::Warning:
        return "warning";
    case Severity::Problem:
        return "problem";
    }
    return "";
}

bool anyProblem(const std::vector<Finding>& findings)
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Severity::Problem; });
}

void printFinding(const Finding& finding, const Style& style)
{
    std::string word(severityWord(finding.severity));
    word.resize(9, ' ');
    std::cout << style.paint(toneOf(finding.severity), word) << printable(finding.subject) << ": "
              << printable(finding.text) << "\n";
    if (!finding.remedy.empty()) {
        std::cout << "         -> " << printable(finding.remedy) << "\n";
    }
}

void writeFindings(JsonWriter& json, const std::vector<Finding>& findings)
{
    json.beginArray();
    for (const Finding& finding : findings) {
        json.beginObject().name("subject").text(finding.subject);
        json.name("severity").text(severityWord(finding.severity));
        json.name("text").text(finding.text).name("remedy");
        finding.remedy.empty() ? json.null() : json.text(finding.remedy);
        json.endObject();
    }
    json.endArray();
}

} // namespace Zonectl
