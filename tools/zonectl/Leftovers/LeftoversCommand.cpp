#include "Commands.h"
#include "Doctor/Doctor.h"
#include "Leftovers/LeftoverRemoval.h"
#include "Leftovers/Leftovers.h"
#include "Output/Json.h"
#include "Output/Question.h"
#include "Output/Table.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <optional>
#include <unistd.h>

namespace Zonectl {

namespace {

/// Freezing a container takes milliseconds.
constexpr std::chrono::milliseconds FREEZING_PATIENCE(1000);

enum class Outcome
{
    Found, ///< nothing was to be done
    Removed,
    Gone, ///< or no leftover any more, without our doing
    Kept, ///< the user said no
    Failed,
    LeftAlone ///< harmless, or nothing to be done from here
};

struct LeftoverView
{
    Leftover leftover;
    Outcome outcome = Outcome::Found;
    std::string problem{}; ///< why it was not removed
};

[[nodiscard]] std::string_view outcomeWord(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Found:
        return "found";
    case Outcome::Removed:
        return "removed";
    case Outcome::Gone:
        return "gone";
    case Outcome::Kept:
        return "kept";
    case Outcome::Failed:
        return "failed";
    case Outcome::LeftAlone:
        return "left alone";
    }
    return "";
}

/// Whether the leftover is there after all and somebody should see to it.
[[nodiscard]] bool counts(const LeftoverView& view)
{
    return !view.leftover.harmless && view.outcome != Outcome::Removed && view.outcome != Outcome::Gone;
}

[[nodiscard]] std::vector<Leftover> search(const Machine& machine)
{
    return findLeftovers(machine, listContainers(machine), FREEZING_PATIENCE);
}

void checkOptions(const Options& options)
{
    if (options.yes && !options.clean) {
        throw Failure(EXIT_USAGE, "--yes has no meaning without --clean");
    }
    if (options.clean && !options.root.empty()) {
        throw Failure(EXIT_USAGE, "--clean works on the running machine only, not with --root");
    }
    if (options.clean && !options.yes && !canAsk()) {
        throw Failure(EXIT_USAGE, "--clean asks before each removal and needs a terminal for it; --yes "
                                  "removes without asking");
    }
    if (options.root.empty() && geteuid() != 0) {
        throw Failure(EXIT_FAILED, "only root sees, and may remove, what is left of containers");
    }
}

[[nodiscard]] std::string_view verbFor(LeftoverKind kind)
{
    switch (kind) {
    case LeftoverKind::Init:
        return "Kill";
    case LeftoverKind::Frozen:
        return "Thaw";
    default:
        return "Remove";
    }
}

[[nodiscard]] std::string questionAbout(const Leftover& leftover)
{
    return std::string(verbFor(leftover.kind)) + " the " + std::string(leftoverWord(leftover.kind)) + " " +
           placeOf(leftover) + " (" + leftover.why + ")?";
}

/// Between the look and the removal, and while a question waits for its answer, the container may have been
/// started: everything is looked at anew.
void remove(LeftoverView& view, const Machine& machine)
{
    const std::vector<Leftover> now = search(machine);
    const auto same = std::find_if(now.begin(), now.end(),
                                   [&view](const Leftover& other) { return other.sameAs(view.leftover); });
    if (same == now.end()) {
        view.outcome = Outcome::Gone;
        return;
    }
    view.problem = removeLeftover(*same);
    view.outcome = view.problem.empty() ? Outcome::Removed : Outcome::Failed;
}

/// Removes what may be removed, in order. Who does not answer one question is not asked another.
void clean(std::vector<LeftoverView>& views, const Machine& machine, const Options& options)
{
    std::optional<bool> answer = true;
    for (LeftoverView& view : views) {
        if (view.leftover.harmless || !view.leftover.removable) {
            view.outcome = Outcome::LeftAlone;
            continue;
        }
        if (!options.yes && answer) {
            answer = ask(questionAbout(view.leftover), options.patience());
        }
        if (answer.value_or(false)) {
            remove(view, machine);
        } else {
            view.outcome = Outcome::Kept;
            view.problem = answer ? "" : "no answer in time";
        }
    }
}

[[nodiscard]] Tone toneOf(const LeftoverView& view)
{
    if (view.outcome == Outcome::Removed || view.outcome == Outcome::Gone) {
        return Tone::Good;
    }
    return view.leftover.harmless ? Tone::Muted : Tone::Bad;
}

void printTable(const std::vector<LeftoverView>& views, bool cleaned, const Style& style)
{
    Table table({"WHAT", "ZONE", "WHERE", "WHY", cleaned ? "OUTCOME" : "REMEDY"});
    for (const LeftoverView& view : views) {
        const Leftover& leftover = view.leftover;
        std::string last = leftover.remedy;
        if (cleaned) {
            last = std::string(outcomeWord(view.outcome)) + (view.problem.empty() ? "" : ": " + view.problem);
        }
        table.add({{std::string(leftoverWord(leftover.kind)), toneOf(view)},
                   {leftover.container.empty() ? "-" : leftover.container},
                   {placeOf(leftover)},
                   {leftover.why + (leftover.harmless ? " (harmless)" : "")},
                   {last, cleaned ? toneOf(view) : Tone::Plain}});
    }
    std::cout << table.render(style);
}

void printText(const std::vector<LeftoverView>& views, const Options& options, const Style& style)
{
    if (views.empty()) {
        std::cout << style.paint(Tone::Good, "Nothing was left behind.") << "\n";
        return;
    }
    printTable(views, options.clean, style);
    const bool more = std::any_of(views.begin(), views.end(), counts);
    if (more && !options.clean && options.root.empty()) {
        std::cout << "\n'zonectl leftovers --clean' removes them, and leaves alone what is harmless.\n";
    }
}

void printJson(const std::vector<LeftoverView>& views)
{
    JsonWriter json;
    json.beginObject().name("ok").boolean(std::none_of(views.begin(), views.end(), counts));
    json.name("leftovers").beginArray();
    for (const LeftoverView& view : views) {
        const Leftover& leftover = view.leftover;
        json.beginObject().name("what").text(leftoverWord(leftover.kind)).name("zone");
        leftover.container.empty() ? json.null() : json.text(leftover.container);
        json.name("where").beginArray();
        for (const std::string& path : leftover.paths) {
            json.text(path);
        }
        json.endArray().name("why").text(leftover.why).name("remedy").text(leftover.remedy);
        json.name("harmless").boolean(leftover.harmless).name("outcome").text(outcomeWord(view.outcome));
        json.name("problem");
        view.problem.empty() ? json.null() : json.text(view.problem);
        json.endObject();
    }
    std::cout << json.endArray().endObject().finish(JsonWriter::Layout::Indented) << "\n";
}

} // namespace

ExitStatus leftoversCommand(const Options& options, const Style& style)
{
    checkOptions(options);
    const Machine machine(options.root);
    std::vector<LeftoverView> views;
    for (Leftover& leftover : search(machine)) {
        views.push_back({std::move(leftover)});
    }
    if (options.clean) {
        clean(views, machine, options);
    }
    if (options.json) {
        printJson(views);
    } else {
        printText(views, options, style);
    }
    return std::any_of(views.begin(), views.end(), counts) ? EXIT_FAILED : EXIT_OK;
}

} // namespace Zonectl
