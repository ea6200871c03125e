#include "Commands.h"
#include "Explain/StoryTime.h"
#include "Output/Json.h"
#include "Output/Table.h"
#include "Watch/Comparison.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>

namespace Zonectl {

namespace {

/// "2.50"
[[nodiscard]] std::string hundredths(std::int64_t percent)
{
    constexpr std::int64_t WHOLE = 100;
    std::array<char, 8> fraction{};
    static_cast<void>(
        std::snprintf(fraction.data(), fraction.size(), ".%02d", static_cast<int>(percent % WHOLE)));
    return std::to_string(percent / WHOLE) + fraction.data();
}

[[nodiscard]] Cell noteOn(const StepPair& pair)
{
    if (!pair.b) {
        return {"only in A", Tone::Bad};
    }
    if (!pair.a) {
        return {"only in B", Tone::Bad};
    }
    const auto percent = pair.notablePercent();
    if (!percent) {
        return {""};
    }
    constexpr std::int64_t EQUAL = 100;
    return {"B took " + hundredths(*percent) + " times as long",
            *percent > EQUAL ? Tone::Warning : Tone::Good};
}

[[nodiscard]] Cell lastedCell(const std::optional<Step>& step)
{
    if (!step) {
        return {"none", Tone::Muted};
    }
    return step->lasted ? Cell{durationText(*step->lasted)} : Cell{"-", Tone::Muted};
}

void printText(const std::vector<ZoneComparison>& zones, const Style& style)
{
    Table table({"ZONE", "STATE", "A", "B", "DIFFERENCE"});
    for (const ZoneComparison& zone : zones) {
        for (const StepPair& pair : zone.steps) {
            const std::string& state = (pair.a ? pair.a : pair.b)->state;
            table.add({{zone.zone},
                       {state, stateTone(state)},
                       lastedCell(pair.a),
                       lastedCell(pair.b),
                       noteOn(pair)});
        }
    }
    std::cout << table.render(style);
}

void writeSide(JsonWriter& json, const char* side, const std::optional<Step>& step)
{
    json.name(side);
    if (!step) {
        json.null();
        return;
    }
    json.beginObject().name("microseconds");
    step->lasted ? json.number(*step->lasted) : json.null();
    json.endObject();
}

void writeStep(JsonWriter& json, const StepPair& pair)
{
    json.beginObject().name("state").text((pair.a ? pair.a : pair.b)->state);
    writeSide(json, "a", pair.a);
    writeSide(json, "b", pair.b);
    const auto percent = pair.notablePercent();
    json.name("percent");
    percent ? json.number(*percent) : json.null();
    json.endObject();
}

void printJson(const std::vector<ZoneComparison>& zones, bool same)
{
    JsonWriter json;
    json.beginObject().name("same").boolean(same).name("zones").beginArray();
    for (const ZoneComparison& zone : zones) {
        json.beginObject().name("name").text(zone.zone).name("same").boolean(zone.same());
        json.name("steps").beginArray();
        for (const StepPair& pair : zone.steps) {
            writeStep(json, pair);
        }
        json.endArray().endObject();
    }
    std::cout << json.endArray().endObject().finish(JsonWriter::Layout::Indented) << "\n";
}

[[nodiscard]] Timeline timelineIn(const std::string& path, std::chrono::seconds limit)
{
    const Recording recording = readRecording(path, limit);
    reportDamages(path, recording);
    return timelineOf(recording);
}

} // namespace

ExitStatus diffCommand(const Options& options, const Style& style)
{
    const std::string& nameA = options.arguments.at(0);
    const std::string& nameB = options.arguments.at(1);
    if (nameA == "-" && nameB == "-") {
        throw Failure(EXIT_USAGE, "only one of the two recordings can be standard input");
    }
    const Timeline a = timelineIn(nameA, options.patience());
    const Timeline b = timelineIn(nameB, options.patience());
    const std::vector<ZoneComparison> zones = compare(a, b);
    const bool same =
        std::all_of(zones.begin(), zones.end(), [](const ZoneComparison& zone) { return zone.same(); });
    options.json ? printJson(zones, same) : printText(zones, style);
    return same ? EXIT_OK : EXIT_FAILED;
}

} // namespace Zonectl
