#include "Commands.h"
#include "Doctor/Doctor.h"
#include "Doctor/LabelLines.h"
#include "Doctor/Labels.h"
#include "Output/Json.h"
#include "Output/Table.h"

#include <algorithm>
#include <iostream>

namespace Zonectl {

namespace {

/// A rule with what was found and what the daemon will make of it.
struct LabelView
{
    LabelRule rule;
    PathFacts facts;
    LabelVerdict verdict;
};

[[nodiscard]] std::vector<LabelRule> rulesFor(const ContainerListing& listing)
{
    std::vector<LabelRule> rules = daemonRules();
    for (const ContainerInfo& container : listing.containers) {
        for (LabelRule& rule : zoneRules(listing.lxcPath, container)) {
            rules.push_back(std::move(rule));
        }
    }
    return rules;
}

[[nodiscard]] std::vector<LabelView> collect(const Machine& machine)
{
    const bool smackKernel = kernelHasSmack();
    std::vector<LabelView> views;
    for (LabelRule& rule : rulesFor(listContainers(machine))) {
        const PathFacts facts = factsAbout(rule, machine);
        const LabelVerdict verdict = judge(rule, facts, smackKernel);
        views.push_back({std::move(rule), facts, verdict});
    }
    return views;
}

/// What a bad verdict costs.
[[nodiscard]] std::string_view costOf(Consequence consequence)
{
    switch (consequence) {
    case Consequence::StartFails:
        return " (the daemon ends at start-up)";
    case Consequence::Logged:
        return " (the daemon logs a failure)";
    case Consequence::ZoneRefused:
        return " (the zone is refused)";
    }
    return "";
}

[[nodiscard]] Cell verdictCell(const LabelView& view)
{
    std::string text(verdictText(view.verdict));
    if (isGood(view.verdict)) {
        return {text, Tone::Good};
    }
    const bool mild = view.rule.consequence == Consequence::Logged;
    return {text + std::string(costOf(view.rule.consequence)), mild ? Tone::Warning : Tone::Bad};
}

void printTable(const std::vector<LabelView>& views, const Style& style)
{
    Table table({"PATH", "ZONE", "LABEL", "WANTED", "VERDICT"});
    for (const LabelView& view : views) {
        table.add({{view.rule.path},
                   {view.rule.zone.empty() ? "-" : view.rule.zone},
                   {view.facts.label.value_or("-")},
                   {view.rule.wanted},
                   verdictCell(view)});
    }
    std::cout << table.render(style);
}

void printJson(const std::vector<LabelView>& views)
{
    JsonWriter json;
    json.beginArray();
    for (const LabelView& view : views) {
        json.beginObject().name("path").text(view.rule.path).name("zone");
        view.rule.zone.empty() ? json.null() : json.text(view.rule.zone);
        json.name("label").textOrNull(view.facts.label).name("wanted").text(view.rule.wanted);
        json.name("enforced").boolean(view.rule.enforced).name("good").boolean(isGood(view.verdict));
        json.name("verdict").text(verdictText(view.verdict)).endObject();
    }
    std::cout << json.endArray().finish(JsonWriter::Layout::Indented) << "\n";
}

void printTmpfiles(const Machine& machine, const Options& options)
{
    if (options.json) {
        throw Failure(EXIT_USAGE, "--tmpfiles and --json do not go together");
    }
    const ContainerListing listing = listContainers(machine);
    std::cout << tmpfilesLines(rulesFor(listing), listing.lxcPath);
}

} // namespace

ExitStatus labelsCommand(const Options& options, const Style& style)
{
    const Machine machine(options.root);
    if (options.tmpfiles) {
        printTmpfiles(machine, options);
        return EXIT_OK;
    }
    const std::vector<LabelView> views = collect(machine);
    if (options.json) {
        printJson(views);
    } else {
        printTable(views, style);
    }
    const bool bad = std::any_of(views.begin(), views.end(), [](const LabelView& view) {
        return !isGood(view.verdict) && view.rule.consequence != Consequence::Logged;
    });
    return bad ? EXIT_FAILED : EXIT_OK;
}

} // namespace Zonectl
