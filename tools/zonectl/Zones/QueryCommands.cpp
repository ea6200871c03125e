#include "Commands.h"
#include "Daemon/ZoneWords.h"
#include "Output/Json.h"
#include "Output/Table.h"
#include "Zones/Refusal.h"
#include "Zones/ZoneSurvey.h"

#include <algorithm>
#include <iostream>

namespace Zonectl {

namespace {

/// Why the daemon refuses a listed zone, as far as its configuration tells.
[[nodiscard]] std::string refusalWord(const ZoneView& view)
{
    switch (view.kind) {
    case ZUP::ZONE_TYPE_PROTECTION:
        return "protected";
    case ZUP::ZONE_TYPE_NONE:
        return "protected/refused";
    case ZUP::ZONE_TYPE_ISOLATION:
    case ZUP::ZONE_TYPE_HYBRID:
        break;
    }
    return "refused";
}

/// The daemon names a zone's last init process even when it does not run.
[[nodiscard]] bool hasInit(const ZoneView& view)
{
    return view.initPid > 0 && view.state && *view.state != "STOPPED" && *view.state != "NONE";
}

void printJson(const std::vector<ZoneView>& views)
{
    JsonWriter json;
    json.beginArray();
    for (const ZoneView& view : views) {
        json.beginObject().name("name").text(view.name).name("kind");
        view.kind == ZUP::ZONE_TYPE_NONE ? json.null() : json.text(kindWord(view.kind));
        json.name("access");
        view.fromProc && !view.refused ? json.null()
                                       : json.text(view.refused ? refusalWord(view) : "granted");
        json.name("state").textOrNull(view.state).name("init_pid");
        hasInit(view) ? json.number(view.initPid) : json.null();
        json.name("automatic");
        view.automatic ? json.boolean(*view.automatic) : json.null();
        json.name("source").text(view.fromProc ? "proc" : "daemon").name("note");
        view.note.empty() ? json.null() : json.text(view.note);
        json.endObject();
    }
    std::cout << json.endArray().finish(JsonWriter::Layout::Indented) << "\n";
}

/// A state that is not the daemon's word has a question mark.
[[nodiscard]] Cell stateCell(const ZoneView& view)
{
    if (view.refused && !view.fromProc) {
        return {refusalWord(view), Tone::Muted};
    }
    const std::string word = view.state.value_or("");
    return {view.fromProc ? word + "?" : word, view.fromProc ? Tone::Warning : stateTone(word)};
}

[[nodiscard]] std::string automaticWord(const ZoneView& view)
{
    if (!view.automatic) {
        return "-";
    }
    return *view.automatic ? "yes" : "no";
}

void printTable(const std::vector<ZoneView>& views, const Style& style)
{
    const bool noted =
        std::any_of(views.begin(), views.end(), [](const ZoneView& view) { return !view.note.empty(); });
    std::vector<std::string> headings = {"NAME", "KIND", "STATE", "INIT PID", "AUTO"};
    if (noted) {
        headings.emplace_back("NOTE");
    }
    Table table(std::move(headings));
    for (const ZoneView& view : views) {
        const std::string kind(kindWord(view.kind));
        table.add({{view.name},
                   {kind.empty() ? "-" : kind},
                   stateCell(view),
                   {hasInit(view) ? std::to_string(view.initPid) : "-"},
                   {automaticWord(view)},
                   {view.note, Tone::Warning}});
    }
    std::cout << table.render(style);
}

} // namespace

ExitStatus listCommand(const Options& options, const Style& style)
{
    const ZoneSurvey survey = surveyZones(options.arguments, options.timeout);
    if (options.json) {
        printJson(survey.zones);
    } else if (!survey.zones.empty()) {
        printTable(survey.zones, style);
    }
    if (survey.trouble) {
        throw Failure(*survey.trouble);
    }
    if (!survey.unknown.empty()) {
        throw Failure(EXIT_FAILED, noSuchZones(survey.unknown, survey.known));
    }
    return EXIT_OK;
}

} // namespace Zonectl
