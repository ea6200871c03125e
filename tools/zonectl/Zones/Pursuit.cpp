#include "Zones/Pursuit.h"

#include "Output/Output.h"

#include <utility>

namespace Zonectl {

namespace {

[[nodiscard]] std::string goalOf(Errand request)
{
    return request == Errand::Stop ? "STOPPED" : "RUNNING";
}

[[nodiscard]] bool isFrozen(const std::string& state)
{
    return state == "FROZEN" || state == "FREEZING";
}

[[nodiscard]] bool hasEnded(const std::string& state)
{
    return state == "STOPPED" || state == "ABORTING";
}

[[nodiscard]] std::string explainHint(const std::string& zone)
{
    return commandHint("explain", zone) + " tells from the log why";
}

} // namespace

std::string_view errandWord(Errand errand)
{
    switch (errand) {
    case Errand::Start:
        return "start";
    case Errand::Stop:
        return "stop";
    case Errand::Unfreeze:
        return "unfreeze";
    case Errand::Wait:
        break;
    }
    return "wait";
}

Pursuit::Pursuit(std::string zoneName, Errand request)
    : zone(std::move(zoneName)), task(request), wanted(goalOf(request))
{}

Pursuit::Pursuit(std::string zoneName, std::string wantedState)
    : zone(std::move(zoneName)), task(Errand::Wait), wanted(std::move(wantedState))
{}

void Pursuit::begin(const std::string& state, const std::string& remark)
{
    last = state;
    starting = state == "STARTING";
    if (state == wanted) {
        reach(state);
        explanation =
            task == Errand::Wait ? remark : "it was " + state + " already; the daemon drops such a request";
    } else if (task == Errand::Start && isFrozen(state)) {
        fail(EXIT_FAILED, "it is " + state + ", and a start fails until it is thawed: " +
                              commandHint("unfreeze", zone) + "; nothing was asked for");
    } else if (task == Errand::Unfreeze && state == "STOPPED") {
        fail(EXIT_FAILED, "it is STOPPED, so that there is nothing to thaw; nothing was asked for");
    }
}

void Pursuit::change(const std::string& state)
{
    if (!open()) {
        return;
    }
    last = state;
    starting = starting || state == "STARTING";
    if (state == wanted) {
        reach(state);
    } else if (task == Errand::Start && starting && hasEnded(state)) {
        fail(EXIT_FAILED,
             "the start failed: it was STARTING and came to " + state + "; " + explainHint(zone));
    } else if (task == Errand::Unfreeze && hasEnded(state)) {
        fail(EXIT_FAILED, "it came to " + state + " in place of RUNNING; " + explainHint(zone));
    }
}

void Pursuit::observe(const std::string& state)
{
    if (!open()) {
        return;
    }
    last = state;
    if (state == wanted) {
        reach(state);
    }
}

void Pursuit::fail(ExitStatus status, const std::string& reason)
{
    failureStatus = status;
    explanation = reason;
}

void Pursuit::reach(const std::string& state)
{
    reached = true;
    last = state;
}

} // namespace Zonectl
