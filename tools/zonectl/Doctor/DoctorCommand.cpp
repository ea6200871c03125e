#include "Commands.h"
#include "Doctor/Doctor.h"
#include "Doctor/DoctorRepairs.h"
#include "Output/Json.h"
#include "Output/Question.h"

#include <iostream>
#include <unistd.h>

namespace Zonectl {

namespace {

void checkOptions(const Options& options)
{
    if (options.yes && !options.fix) {
        throw Failure(EXIT_USAGE, "--yes has no meaning without --fix");
    }
    if (options.fix && !options.yes && !canAsk()) {
        throw Failure(EXIT_USAGE, "--fix asks before each change and needs a terminal for it; --yes changes "
                                  "without asking");
    }
    if (options.fix && options.root.empty() && geteuid() != 0) {
        throw Failure(EXIT_FAILED, "only root may change what is wrong");
    }
}

void printHeadline(const Diagnosis& diagnosis, const Style& style)
{
    const std::size_t usable = diagnosis.listed - diagnosis.refused.size();
    if (usable == 0) {
        std::cout
            << style.paint(Tone::Alarm, "*** THE DAEMON ENDS AT START-UP ***") << "\n"
            << "Each container that is listed is refused, and without a zone there is nothing to manage.\n"
               "Correct them:\n";
        return;
    }
    std::cout << style.paint(Tone::Alarm, "*** NOTHING STARTS AUTOMATICALLY ***") << "\n"
              << diagnosis.listed << " containers are listed, " << (diagnosis.unjudged > 0 ? "at most " : "")
              << usable
              << " of them become zones. The daemon waits for as many zones as\n"
                 "containers are listed before it starts the first marked one, and a refused one never\n"
                 "comes. So NOTHING is started automatically until some zone reaches RUNNING another way,\n"
                 "as by 'zonectl start NAME'; then the marked ones follow.\n"
                 "Correct or remove the refused, and restart the daemon:\n";
}

/// Everybody meets this once, and nothing in the daemon's behaviour points at the cause.
void printAlarm(const Diagnosis& diagnosis, const Style& style)
{
    printHeadline(diagnosis, style);
    for (const RefusedContainer& container : diagnosis.refused) {
        std::cout << "  " << style.paint(Tone::Bad, printable(container.name)) << "\n";
        for (const std::string& reason : container.reasons) {
            std::cout << "    " << printable(reason) << "\n";
        }
    }
    std::cout << "\n";
}

void printDiagnosed(const Diagnosed& finding, const Style& style)
{
    printFinding({finding.subject, finding.severity, finding.text, finding.remedy}, style);
    if (!finding.message.empty()) {
        std::cout << "         the daemon writes: " << printable(finding.message) << "\n";
    }
}

void printOutcome(const RepairOutcome& outcome, const Style& style)
{
    const std::string subject = printable(outcome.finding.subject) + ": ";
    if (outcome.done) {
        std::cout << style.paint(Tone::Good, "fixed    ") << subject << printable(outcome.finding.remedy)
                  << "\n";
    } else if (outcome.problem.empty()) {
        std::cout << style.paint(Tone::Muted, "kept     ") << subject << printable(outcome.finding.text)
                  << "\n";
    } else {
        std::cout << style.paint(Tone::Bad, "failed   ") << subject << printable(outcome.problem) << "\n";
    }
}

void printText(const Diagnosis& diagnosis, const std::vector<RepairOutcome>& outcomes, const Style& style)
{
    if (diagnosis.automaticStartBlocked()) {
        printAlarm(diagnosis, style);
    }
    for (const RepairOutcome& outcome : outcomes) {
        printOutcome(outcome, style);
    }
    if (!outcomes.empty()) {
        std::cout << "\n";
    }
    for (const Diagnosed& finding : diagnosis.findings) {
        printDiagnosed(finding, style);
    }
    std::cout << "\n"
              << (diagnosis.hasProblems() ? style.paint(Tone::Bad, "Problems were found.")
                                          : style.paint(Tone::Good, "No problem was found."))
              << "\n";
}

/// What `--fix` did not mend: most of it needs somebody who decides, or who ends a program.
void printLeft(const Diagnosis& diagnosis)
{
    std::string text;
    for (const Diagnosed& finding : diagnosis.findings) {
        if (finding.severity == Severity::Warning || finding.severity == Severity::Problem) {
            text += "  " + printable(finding.subject) + ": " + printable(finding.text) + "\n";
            text += "    -> " + printable(finding.remedy) + "\n";
        }
    }
    if (!text.empty()) {
        std::cout << "\nLeft to you:\n" << text;
    }
}

void writeRefused(JsonWriter& json, const Diagnosis& diagnosis)
{
    json.name("refused").beginArray();
    for (const RefusedContainer& container : diagnosis.refused) {
        json.beginObject().name("name").text(container.name).name("reasons").beginArray();
        for (const std::string& reason : container.reasons) {
            json.text(reason);
        }
        json.endArray().endObject();
    }
    json.endArray();
}

void writeTextOrNull(JsonWriter& json, const char* name, const std::string& text)
{
    json.name(name);
    text.empty() ? json.null() : json.text(text);
}

void writeFindings(JsonWriter& json, const Diagnosis& diagnosis)
{
    json.name("findings").beginArray();
    for (const Diagnosed& finding : diagnosis.findings) {
        json.beginObject().name("id").text(finding.id).name("subject").text(finding.subject);
        json.name("severity").text(severityWord(finding.severity)).name("text").text(finding.text);
        writeTextOrNull(json, "remedy", finding.remedy);
        writeTextOrNull(json, "message", finding.message);
        json.name("fixable").boolean(!finding.repairs.empty()).endObject();
    }
    json.endArray();
}

void writeOutcomes(JsonWriter& json, const std::vector<RepairOutcome>& outcomes)
{
    json.name("fixes").beginArray();
    for (const RepairOutcome& outcome : outcomes) {
        json.beginObject().name("id").text(outcome.finding.id).name("subject").text(outcome.finding.subject);
        json.name("remedy").text(outcome.finding.remedy).name("done").boolean(outcome.done);
        writeTextOrNull(json, "problem", outcome.problem);
        json.endObject();
    }
    json.endArray();
}

void printJson(const Diagnosis& diagnosis, const std::vector<RepairOutcome>& outcomes)
{
    JsonWriter json;
    json.beginObject().name("ok").boolean(!diagnosis.hasProblems());
    json.name("automatic_start_blocked").boolean(diagnosis.automaticStartBlocked());
    json.name("listed").number(static_cast<std::int64_t>(diagnosis.listed));
    writeRefused(json, diagnosis);
    writeOutcomes(json, outcomes);
    writeFindings(json, diagnosis);
    json.endObject();
    std::cout << json.finish(JsonWriter::Layout::Indented) << "\n";
}

} // namespace

ExitStatus doctorCommand(const Options& options, const Style& style)
{
    checkOptions(options);
    const Machine machine(options.root);
    Diagnosis diagnosis = examine(machine);
    std::vector<RepairOutcome> outcomes;
    if (options.fix) {
        outcomes = repair(machine, options, diagnosis);
    }
    if (options.json) {
        printJson(diagnosis, outcomes);
    } else {
        printText(diagnosis, outcomes, style);
        if (options.fix) {
            printLeft(diagnosis);
        }
    }
    return diagnosis.hasProblems() ? EXIT_FAILED : EXIT_OK;
}

} // namespace Zonectl
