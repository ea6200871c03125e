#include "Commands.h"
#include "Explain/StoryTime.h"
#include "Output/Json.h"
#include "Output/Table.h"
#include "Output/Terminal.h"
#include "Watch/TimelineChart.h"

#include <algorithm>
#include <iostream>
#include <vector>

namespace Zonectl {

namespace {

/// One line of the list of changes.
struct Change
{
    const Interval* interval;
    const std::string* zone;
};

[[nodiscard]] std::vector<Change> changesOf(const Timeline& timeline)
{
    std::vector<Change> changes;
    for (const ZoneTimeline& zone : timeline.zones) {
        for (const Interval& interval : zone.intervals) {
            changes.push_back({&interval, &zone.zone});
        }
    }
    std::stable_sort(changes.begin(), changes.end(), [](const Change& one, const Change& other) {
        return one.interval->from < other.interval->from;
    });
    return changes;
}

/// How long it lasted, or how long it lasted at least.
[[nodiscard]] std::string lastedText(const Interval& interval)
{
    return (interval.whole() ? "" : "at least ") + durationText(interval.length());
}

[[nodiscard]] std::string sinceBegin(const Timeline& timeline, Micros time)
{
    return "+" + durationText(time - timeline.begin);
}

void printChanges(const Timeline& timeline, const Style& style)
{
    Table table({"TIME", "ZONE", "STATE", "LASTED"});
    auto gap = timeline.gaps.begin();
    const auto addGapsUpTo = [&](Micros time) {
        for (; gap != timeline.gaps.end() && gap->from <= time; ++gap) {
            table.add({{sinceBegin(timeline, gap->from)},
                       {"-"},
                       {"the " + (gap->who.empty() ? "daemon" : gap->who) + " was away", Tone::Warning},
                       {durationText(gap->to - gap->from)}});
        }
    };
    for (const Change& change : changesOf(timeline)) {
        addGapsUpTo(change.interval->from);
        table.add({{sinceBegin(timeline, change.interval->from)},
                   {*change.zone},
                   {change.interval->state, stateTone(change.interval->state)},
                   {lastedText(*change.interval)}});
    }
    addGapsUpTo(timeline.end);
    std::cout << table.render(style);
}

void printText(const Recording& recording, const Timeline& timeline, const Style& style)
{
    const RecordingHeader& header = recording.header;
    std::cout << "Recorded on " << printable(header.host) << " from " << timeText(header.wall) << " for "
              << durationText(timeline.length()) << "\n\n";
    if (timeline.zones.empty()) {
        std::cout << "No zone was seen.\n";
        return;
    }
    std::cout << renderChart(timeline, terminalSize().columns, style) << "\n";
    printChanges(timeline, style);
}

void writeInterval(JsonWriter& json, const Timeline& timeline, const Interval& interval)
{
    json.beginObject().name("state").text(interval.state);
    json.name("from").number(interval.from - timeline.begin);
    json.name("to").number(interval.to - timeline.begin);
    json.name("microseconds").number(interval.length());
    json.name("begin_seen").boolean(interval.beginSeen).name("end_seen").boolean(interval.endSeen);
    json.endObject();
}

void writeGaps(JsonWriter& json, const Timeline& timeline)
{
    json.name("gaps").beginArray();
    for (const BlindTime& gap : timeline.gaps) {
        json.beginObject().name("reason").text(gap.who).name("from").number(gap.from - timeline.begin);
        json.name("to").number(gap.to - timeline.begin).endObject();
    }
    json.endArray();
}

void printJson(const Recording& recording, const Timeline& timeline)
{
    JsonWriter json;
    json.beginObject().name("host").text(recording.header.host).name("boot_id").text(recording.header.bootId);
    json.name("source").text(recording.header.source);
    json.name("began").text(isoText(recording.header.wall));
    json.name("microseconds").number(timeline.length()).name("zones").beginArray();
    for (const ZoneTimeline& zone : timeline.zones) {
        json.beginObject().name("name").text(zone.zone).name("intervals").beginArray();
        for (const Interval& interval : zone.intervals) {
            writeInterval(json, timeline, interval);
        }
        json.endArray().endObject();
    }
    json.endArray();
    writeGaps(json, timeline);
    json.name("skipped").beginArray();
    for (const Damage& damage : recording.damages) {
        json.beginObject().name("line").number(static_cast<std::int64_t>(damage.line));
        json.name("problem").text(damage.problem).endObject();
    }
    std::cout << json.endArray().endObject().finish(JsonWriter::Layout::Indented) << "\n";
}

} // namespace

ExitStatus replayCommand(const Options& options, const Style& style)
{
    const std::string& path = options.arguments.at(0);
    const Recording recording = readRecording(path, options.patience());
    const Timeline timeline = timelineOf(recording);
    reportDamages(path, recording);
    options.json ? printJson(recording, timeline) : printText(recording, timeline, style);
    return EXIT_OK;
}

} // namespace Zonectl
