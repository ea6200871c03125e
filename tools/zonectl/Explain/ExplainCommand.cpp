#include "Commands.h"
#include "Explain/LogSource.h"
#include "Explain/StoryFindings.h"
#include "Explain/StoryLines.h"
#include "Explain/StoryTime.h"
#include "Output/Json.h"

#include <algorithm>
#include <iostream>

namespace Zonectl {

namespace {

/// Of every zone no more than its last events are shown, so that one in a restart loop does not bury the
/// others.
constexpr std::size_t SHOWN_EVENTS = 40;

/// A log, read to its end.
struct Reading
{
    LogStory log;
    std::size_t records = 0;
    std::size_t skipped = 0; ///< lines that are no record
};

[[nodiscard]] Reading readLog(const Options& options)
{
    Reading reading;
    const LineTaker take = [&reading](std::string_view line) {
        if (const auto record = readLogRecord(line)) {
            ++reading.records;
            reading.log.take(*record);
        } else {
            ++reading.skipped;
        }
    };
    if (options.file.empty()) {
        readJournal(options.patience(), take);
    } else {
        readLogFile(options.file, options.patience(), take);
    }
    if (reading.log.empty()) {
        throw Failure(EXIT_FAILED, "the log has no record of the zone manager (" +
                                       std::to_string(reading.skipped) + " lines of something else)");
    }
    return reading;
}

/// The zones to be told of: all, or the named one.
[[nodiscard]] std::vector<const ZoneStory*> chosenZones(const Story& story, const std::string& name)
{
    std::vector<const ZoneStory*> zones;
    for (const auto& [zoneName, zone] : story.zones) {
        if (name.empty() || name == zoneName) {
            zones.push_back(&zone);
        }
    }
    if (zones.empty() && !name.empty()) {
        throw Failure(EXIT_FAILED,
                      "the log says nothing of a zone '" + name + "' in the last run of the daemon");
    }
    return zones;
}

// For people.

[[nodiscard]] std::string lastExitStatuses(const std::vector<int>& statuses)
{
    constexpr std::size_t SHOWN = 5;
    const std::size_t first = statuses.size() > SHOWN ? statuses.size() - SHOWN : 0;
    std::string text = first > 0 ? "..." : "";
    for (std::size_t index = first; index < statuses.size(); ++index) {
        text += (text.empty() ? "" : ", ") + std::to_string(statuses[index]);
    }
    const bool doubtful = std::find(statuses.begin(), statuses.end(), 0) != statuses.end();
    return text + (doubtful ? " (0 also after a signal)" : "");
}

void printEvent(const Event& event, const Style& style)
{
    std::cout << "  ";
    if (event.time) {
        std::cout << style.paint(Tone::Muted, timeText(*event.time)) << "  ";
    }
    const Tone tone = event.bad ? Tone::Bad : event.word == "state" ? stateTone(event.text) : Tone::Plain;
    std::cout << style.paint(tone, printable(event.text));
    if (event.took) {
        std::cout << " (after " << durationText(*event.took) << ")";
    }
    if (event.times > 1) {
        std::cout << " (" << timesText(event.times)
                  << (event.lastTime ? ", the last at " + timeText(*event.lastTime) : "") << ")";
    }
    std::cout << "\n";
}

void printRepetition(const StoryLine& line, const Style& style)
{
    const std::string until = line.last->time ? " until " + timeText(*line.last->time) : "";
    std::cout << "  " << style.paint(Tone::Muted, "... the same " + timesText(line.rounds) + " more" + until)
              << "\n";
}

void printEvents(const std::vector<Event>& events, std::size_t most, const Style& style)
{
    const std::vector<StoryLine> lines = linesOf(events);
    const std::size_t first = lines.size() > most ? lines.size() - most : 0;
    if (first > 0) {
        std::cout << "  (" << lines[first].first - events.data()
                  << " earlier events: name the zone to see them)\n";
    }
    for (std::size_t index = first; index < lines.size(); ++index) {
        if (lines[index].rounds > 0) {
            printRepetition(lines[index], style);
        } else {
            printEvent(*lines[index].first, style);
        }
    }
}

void printZone(const ZoneStory& zone, std::size_t most, const Style& style)
{
    const std::string state = zone.state.empty() ? "no state reported" : zone.state;
    std::cout << "\n" << printable(zone.name) << ": " << style.paint(stateTone(state), printable(state));
    if (zone.stateTime) {
        std::cout << " since " << timeText(*zone.stateTime);
    }
    if (!zone.kind.empty()) {
        std::cout << ", " << zone.kind;
    }
    if (zone.automatic) {
        std::cout << ", starts automatically";
    }
    if (!zone.restarts.empty()) {
        std::cout << ", restarts: " << zone.restarts.size();
    }
    if (!zone.exitStatuses.empty()) {
        std::cout << ", died with exit status " << lastExitStatuses(zone.exitStatuses);
    }
    std::cout << "\n";
    printEvents(zone.events, most, style);
}

void printFindings(const Story& story, const std::vector<Finding>& findings, const Style& style)
{
    if (story.automaticBlocked()) {
        std::cout << style.paint(Tone::Alarm, "*** NOTHING STARTS AUTOMATICALLY ***") << "\n";
    }
    for (const Finding& finding : findings) {
        printFinding(finding, style);
    }
    if (!findings.empty()) {
        std::cout << "\n";
    }
}

void printRun(const Reading& reading, const Style& style)
{
    const Story& story = reading.log.told();
    std::cout << "The daemon";
    if (story.pid > 0) {
        std::cout << ", process " << story.pid;
    }
    std::cout << (story.terminated ? ", which has ended" : "")
              << "; earlier runs in the log: " << reading.log.earlierRuns()
              << ", lines skipped: " << reading.skipped << "\n";
    if (!story.begin) {
        std::cout << "The log has no times, so that it does not tell when, nor how long\n";
    }
    printEvents(story.events, SHOWN_EVENTS, style);
}

void printText(const Reading& reading, const std::string& name, const Style& style)
{
    const Story& story = reading.log.told();
    const auto zones = chosenZones(story, name);
    printFindings(story, findingsOf(reading.log, name), style);
    printRun(reading, style);
    for (const ZoneStory* zone : zones) {
        printZone(*zone, name.empty() ? SHOWN_EVENTS : zone->events.size(), style);
    }
}

// For programs.

void writeTime(JsonWriter& json, const char* member, const std::optional<LogTime>& time)
{
    json.name(member).textOrNull(time ? std::optional(isoText(*time)) : std::nullopt);
}

void writeTextOrNull(JsonWriter& json, const char* member, std::string_view text)
{
    json.name(member).textOrNull(text.empty() ? std::nullopt : std::optional<std::string>(text));
}

void writeEvents(JsonWriter& json, const std::vector<Event>& events)
{
    json.name("events").beginArray();
    for (const Event& event : events) {
        json.beginObject();
        writeTime(json, "time", event.time);
        json.name("event").text(event.word);
        json.name("text").text(event.text);
        writeTextOrNull(json, "cause", causeWord(event.cause));
        json.name("times").number(static_cast<std::int64_t>(event.times));
        json.name("microseconds");
        event.took ? json.number(*event.took) : json.null();
        json.endObject();
    }
    json.endArray();
}

void writeZone(JsonWriter& json, const Story& story, const ZoneStory& zone)
{
    json.beginObject().name("name").text(zone.name);
    writeTextOrNull(json, "kind", zone.kind);
    json.name("taken").boolean(zone.taken).name("automatic").boolean(zone.automatic);
    writeTextOrNull(json, "state", zone.state);
    writeTime(json, "state_since", zone.stateTime);
    json.name("restarts").number(static_cast<std::int64_t>(zone.restarts.size()));
    json.name("exit_statuses").beginArray();
    for (const int status : zone.exitStatuses) {
        json.number(status);
    }
    json.endArray().name("restart_loop").boolean(inRestartLoop(story, zone));
    writeEvents(json, zone.events);
    json.endObject();
}

void writeAutomaticStart(JsonWriter& json, const Story& story)
{
    json.name("automatic_start").beginObject();
    json.name("blocked").boolean(story.automaticBlocked()).name("begun").boolean(story.automaticBegun);
    writeTextOrNull(json, "last_asked", story.lastAutomatic);
    writeTime(json, "last_asked_at", story.lastAutomaticTime);
    json.name("still_to_start").beginArray();
    for (const std::string& name : story.stillToStart()) {
        json.text(name);
    }
    json.endArray();
    writeTextOrNull(json, "waiting_message", story.threads.message);
    writeTime(json, "waiting_since", story.threads.since);
    json.endObject();
}

void writeRefused(JsonWriter& json, const Story& story)
{
    json.name("refused").beginArray();
    for (const RefusedInLog& refused : story.refused) {
        json.beginObject().name("name").text(refused.name);
        writeTime(json, "time", refused.time);
        json.name("messages").beginArray();
        for (const std::string& message : refused.messages) {
            json.text(message);
        }
        json.endArray().name("remedy").text(remedyFor(refused)).endObject();
    }
    json.endArray();
}

void printJson(const Reading& reading, const std::string& name)
{
    const Story& story = reading.log.told();
    const auto zones = chosenZones(story, name);
    JsonWriter json;
    json.beginObject().name("records").number(static_cast<std::int64_t>(reading.records));
    json.name("skipped").number(static_cast<std::int64_t>(reading.skipped));
    json.name("earlier_runs").number(static_cast<std::int64_t>(reading.log.earlierRuns()));
    json.name("daemon").beginObject().name("pid");
    story.pid > 0 ? json.number(story.pid) : json.null();
    json.name("complete").boolean(story.complete).name("terminated").boolean(story.terminated);
    writeEvents(json, story.events);
    json.endObject();
    writeAutomaticStart(json, story);
    writeRefused(json, story);
    json.name("findings");
    writeFindings(json, findingsOf(reading.log, name));
    json.name("zones").beginArray();
    for (const ZoneStory* zone : zones) {
        writeZone(json, story, *zone);
    }
    json.endArray().endObject();
    std::cout << json.finish(JsonWriter::Layout::Indented) << "\n";
}

} // namespace

ExitStatus explainCommand(const Options& options, const Style& style)
{
    const std::string name = options.arguments.empty() ? "" : options.arguments[0];
    const Reading reading = readLog(options);
    if (options.json) {
        printJson(reading, name);
    } else {
        printText(reading, name, style);
    }
    return anyProblem(findingsOf(reading.log, name)) ? EXIT_FAILED : EXIT_OK;
}

} // namespace Zonectl
