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

[[nodiscard]] std::string whyWithoutRules(const ContainerInfo& container)
{
    if (container.kindIsUntold()) {
        return "liblxc does not tell its kind";
    }
    return "its configuration names no valid kind (zone.container_type" +
           (container.kindText.empty() ? ")" : " = " + container.kindText + ")");
}

/// The containers for which no label is known, each with the reason.
[[nodiscard]] std::vector<std::string> leftOut(const ContainerListing& listing)
{
    std::vector<std::string> texts;
    if (listing.pathClosed) {
        texts.push_back("what is defined below " + listing.lxcPath + ": this user may not look there");
    }
    for (const ContainerInfo& container : listing.containers) {
        if (container.kind == ZUP::ZONE_TYPE_NONE) {
            texts.push_back(container.name + ": " + whyWithoutRules(container));
        }
    }
    for (const std::string& name : listing.unloadable) {
        texts.push_back(name + ": liblxc refuses its configuration");
    }
    for (const std::string& name : listing.unreadable) {
        texts.push_back(name + ": this user may not read its configuration");
    }
    return texts;
}

/// Returns whether a container was left out.
[[nodiscard]] bool tellLeftOut(const ContainerListing& listing)
{
    const std::vector<std::string> texts = leftOut(listing);
    for (const std::string& text : texts) {
        std::cerr << "zonectl: left out " << printable(text) << "\n";
    }
    return !texts.empty();
}

[[nodiscard]] std::vector<LabelView> collect(const Machine& machine, const ContainerListing& listing)
{
    const bool smackKernel = kernelHasSmack();
    std::vector<LabelView> views;
    for (LabelRule& rule : rulesFor(listing)) {
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
    if (view.verdict == LabelVerdict::Unknown) {
        return {text, Tone::Warning};
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

/// Prints the rules with what they meet. Returns whether the daemon gets what it cannot do without.
[[nodiscard]] bool printViews(const std::vector<LabelView>& views, const Options& options, const Style& style)
{
    options.json ? printJson(views) : printTable(views, style);
    return std::none_of(views.begin(), views.end(), [](const LabelView& view) {
        return !isGood(view.verdict) && view.rule.consequence != Consequence::Logged;
    });
}

} // namespace

ExitStatus labelsCommand(const Options& options, const Style& style)
{
    if (options.tmpfiles && options.json) {
        throw Failure(EXIT_USAGE, "--tmpfiles and --json do not go together");
    }
    const Machine machine(options.root);
    const ContainerListing listing = listContainers(machine);
    bool good = true;
    if (options.tmpfiles) {
        std::cout << tmpfilesLines(rulesFor(listing), listing.lxcPath);
    } else {
        good = printViews(collect(machine, listing), options, style);
    }
    const bool complete = !tellLeftOut(listing);
    return good && complete ? EXIT_OK : EXIT_FAILED;
}

} // namespace Zonectl
