#include "Commands.h"
#include "Doctor.h"
#include "Json.h"

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

/// Everybody meets this once, and nothing in the daemon's behaviour points at the cause.
void printAlarm(const Diagnosis& diagnosis, const Style& style)
{
    const std::size_t usable = diagnosis.listed - diagnosis.refused.size();
    std::cout << "\n"
              << style.paint(Tone::Alarm, "*** NOTHING STARTS AUTOMATICALLY ***") << "\n"
              << diagnosis.listed << " containers are listed, " << usable
              << " of them become zones. The daemon waits for as many zones as containers\n"
                 "are listed, so a single refused container keeps ALL zones from starting automatically.\n"
                 "Correct or remove the refused:\n";
    for (const RefusedContainer& container : diagnosis.refused) {
        std::cout << "  " << style.paint(Tone::Bad, printable(container.name)) << "\n";
        for (const std::string& reason : container.reasons) {
            std::cout << "    " << printable(reason) << "\n";
        }
    }
}

void printText(const Diagnosis& diagnosis, const Style& style)
{
    for (const Finding& finding : diagnosis.findings) {
        printFinding(finding, style);
    }
    if (diagnosis.automaticStartBlocked()) {
        printAlarm(diagnosis, style);
    }
    std::cout << "\n"
              << (diagnosis.hasProblems() ? style.paint(Tone::Bad, "Problems were found.")
                                          : style.paint(Tone::Good, "No problem was found."))
              << "\n";
}

void printJson(const Diagnosis& diagnosis)
{
    JsonWriter json;
    json.beginObject().name("ok").boolean(!diagnosis.hasProblems());
    json.name("automatic_start_blocked").boolean(diagnosis.automaticStartBlocked());
    json.name("listed").number(static_cast<std::int64_t>(diagnosis.listed));
    json.name("refused").beginArray();
    for (const RefusedContainer& container : diagnosis.refused) {
        json.beginObject().name("name").text(container.name).name("reasons").beginArray();
        for (const std::string& reason : container.reasons) {
            json.text(reason);
        }
        json.endArray().endObject();
    }
    json.endArray().name("findings").beginArray();
    for (const Finding& finding : diagnosis.findings) {
        json.beginObject().name("subject").text(finding.subject);
        json.name("severity").text(severityWord(finding.severity));
        json.name("text").text(finding.text).name("remedy");
        finding.remedy.empty() ? json.null() : json.text(finding.remedy);
        json.endObject();
    }
    json.endArray().endObject();
    std::cout << json.finish(JsonWriter::Layout::Indented) << "\n";
}

} // namespace

ExitStatus doctorCommand(const Options& options, const Style& style)
{
    const Diagnosis diagnosis = examine(Machine(options.root));
    if (options.json) {
        printJson(diagnosis);
    } else {
        printText(diagnosis, style);
    }
    return diagnosis.hasProblems() ? EXIT_FAILED : EXIT_OK;
}

} // namespace Zonectl
