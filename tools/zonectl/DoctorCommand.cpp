#include "Commands.h"
#include "Doctor.h"
#include "Json.h"

#include <iostream>

namespace Zonectl {

namespace {

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
    json.endArray().name("findings");
    writeFindings(json, diagnosis.findings);
    json.endObject();
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
