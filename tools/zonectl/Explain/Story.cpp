#include "Explain/Story.h"

#include "Daemon/ZoneWords.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <glib.h>
#include <utility>

namespace Zonectl {

namespace {

/// Two threads' records of one thing may come in either order; never farther apart than this.
constexpr LogTime REORDERED_WITHIN = LOG_SECOND;

/// The requests that a zone's thread is sent, by the number of their event.
constexpr std::array<std::pair<std::string_view, std::string_view>, 5> REQUESTS = {
    {{"1", "start"}, {"2", "stop"}, {"3", "freeze"}, {"4", "unfreeze"}, {"5", "attach"}}};

[[nodiscard]] int toNumber(const std::string& text)
{
    int value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

[[nodiscard]] std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char letter) { return g_ascii_tolower(letter); });
    return text;
}

} // namespace

std::string exitStatusText(int status)
{
    return status == 0 ? "status 0, which LXC reports after a signal too"
                       : "exit status " + std::to_string(status);
}

std::string_view causeWord(Cause cause)
{
    constexpr std::array<std::string_view, 6> WORDS = {"",      "automatic",    "bus",
                                                       "death", "failed-start", "watcher"};
    return WORDS[static_cast<std::size_t>(cause)];
}

std::optional<RestartLoop> ZoneStory::restartLoop() const
{
    std::optional<RestartLoop> found;
    RestartLoop row;
    for (const Restart& restart : restarts) {
        if (!restart.time) {
            row = {};
            continue;
        }
        const bool soon = row.restarts > 0 && *restart.time - row.end <= LOOP_PAUSE;
        row = soon ? RestartLoop{row.restarts + 1, row.begin, *restart.time}
                   : RestartLoop{1, *restart.time, *restart.time};
        if (row.restarts >= LOOP_RESTARTS) {
            found = row;
        }
    }
    return found;
}

std::vector<std::string> Story::stillToStart() const
{
    std::vector<std::string> names;
    for (const auto& [name, zone] : zones) {
        if (zone.automatic && zone.taken && !zone.automaticAsked) {
            names.push_back(name);
        }
    }
    return names;
}

ZoneStory& Storyteller::zone(const std::string& name)
{
    ZoneStory& found = told.zones[name];
    found.name = name;
    return found;
}

Event& Storyteller::tell(ZoneStory& zone, std::string_view word, std::string text)
{
    return zone.events.emplace_back(Event{.time = now->time, .word = word, .text = std::move(text)});
}

Event& Storyteller::tellTrouble(ZoneStory& zone, std::string_view word, std::string text)
{
    Event& event = tell(zone, word, std::move(text));
    event.bad = true;
    return event;
}

std::optional<LogTime> Storyteller::since(const std::optional<LogTime>& time) const
{
    // A clock that was set back in between tells nothing.
    return time && now->time && *now->time >= *time ? std::optional(*now->time - *time) : std::nullopt;
}

// The daemon itself.

void Storyteller::onStart(const Values&)
{
    told.complete = true;
    told.events.push_back({.time = now->time, .word = "started", .text = "the daemon starts"});
}

void Storyteller::onLock(const Values&)
{
    told.lockRefused = true;
    onRunTrouble({});
}

void Storyteller::onRunEvent(const Values&)
{
    told.events.push_back({.time = now->time, .word = "told", .text = now->message});
}

void Storyteller::onRunTrouble(const Values&)
{
    told.events.push_back({.time = now->time, .word = "trouble", .text = now->message, .bad = true});
}

void Storyteller::onTerminated(const Values&)
{
    told.terminated = true;
    told.events.push_back({.time = now->time, .word = "ended", .text = "the daemon ends"});
}

// Containers become zones, or do not.

void Storyteller::onContext(const Values&)
{
    judge = now->tid;
    objections.clear();
}

void Storyteller::onKind(const Values& values)
{
    zone(values[0]).kind = kindWord(kindFromNumber(toNumber(values[2])));
}

void Storyteller::onMarked(const Values& values)
{
    zone(values[0]).automatic = true;
}

void Storyteller::onTaken(const Values& values)
{
    ZoneStory& taken = zone(values[0]);
    taken.taken = true;
    tell(taken, "taken",
         taken.automatic ? "taken as a zone, to be started automatically" : "taken as a zone");
    objections.clear();
}

void Storyteller::onRefused(const Values& values)
{
    if (objections.empty()) { // a log without levels, or one that begins here
        objections.push_back(now->message);
    }
    tellTrouble(zone(values[0]), "refused", "refused as a zone: " + objections.front());
    told.refused.push_back({.name = values[0], .time = now->time, .messages = std::exchange(objections, {})});
}

void Storyteller::onCount(const Values& values)
{
    judge.reset();
    told.listed = static_cast<std::size_t>(std::max(toNumber(values[0]), 0));
    told.made = static_cast<std::size_t>(std::max(toNumber(values[1]), 0));
    told.events.push_back(
        {.time = now->time,
         .word = "counted",
         .text = values[0] + " containers are listed, " + values[1] + " of them are zones"});
}

// The automatic start.

void Storyteller::onThreadsMissing(const Values&)
{
    if (told.threads.times++ == 0) {
        told.threads.since = now->time;
    }
    told.threads.message = now->message;
}

void Storyteller::onAutomaticBegun(const Values&)
{
    told.automaticBegun = true;
    told.events.push_back({.time = now->time,
                           .word = "automatic-start-begun",
                           .text = "all threads run; the automatic start begins",
                           .took = since(told.threads.since)});
}

void Storyteller::onAutomaticLook(const Values&)
{
    causes[now->tid] = Cause::Automatic;
}

// Requests.

void Storyteller::onBusSender(const Values& values)
{
    senders[now->tid] = values[0];
    methods[now->tid] = values[3];
}

void Storyteller::onBusRequest(const Values&)
{
    causes[now->tid] = Cause::Bus;
}

void Storyteller::onBusRefused(const Values& values)
{
    const std::string method = std::exchange(methods[now->tid], {});
    if (method.starts_with("ZoneGet") || method == "GetVersion") {
        onQuestionRefused(zone(values[0]));
    } else {
        tellTrouble(zone(values[0]), "bus-refused", "a request over D-Bus is refused: " + now->message)
            .cause = Cause::Bus;
    }
}

/// Whoever lists the zones asks about the protected ones too: that is no trouble, and told once.
void Storyteller::onQuestionRefused(ZoneStory& asked)
{
    constexpr std::string_view WORD = "question-refused";
    const auto before = std::find_if(asked.events.begin(), asked.events.end(),
                                     [WORD](const Event& event) { return event.word == WORD; });
    if (before == asked.events.end()) {
        tell(asked, WORD, "a question over D-Bus is refused: " + now->message).cause = Cause::Bus;
    } else {
        ++before->times;
        before->lastTime = now->time;
    }
}

void Storyteller::onRestartRequest(const Values&)
{
    causes[now->tid] = Cause::Death; // or a start that failed: the zone's story knows
}

Cause Storyteller::causeOfRestart(const std::string& name) const
{
    const auto found = progress.find(name);
    return found != progress.end() && found->second.startFailed ? Cause::FailedStart : Cause::Death;
}

void Storyteller::onSent(const Values& values)
{
    for (const auto& [number, request] : REQUESTS) {
        if (values[0] == number) {
            asked(values[1], request);
        }
    }
}

void Storyteller::asked(const std::string& name, std::string_view request)
{
    Progress& state = progress[name];
    Cause cause = std::exchange(causes[now->tid], Cause::None);
    std::string by;
    ZoneStory& wanted = zone(name);
    switch (cause) {
    case Cause::Automatic:
        by = " by the automatic start";
        wanted.automaticAsked = true;
        told.automaticBegun = true;
        told.lastAutomatic = name;
        told.lastAutomaticTime = now->time;
        break;
    case Cause::Bus:
        by = " over D-Bus by " + senders[now->tid];
        break;
    case Cause::Death:
        cause = causeOfRestart(name);
        by = cause == Cause::FailedStart ? " again, since the last one failed"
                                         : " again, since it ended with " + exitStatusText(state.exitStatus);
        addRestart(wanted, cause);
        break;
    default:
        break;
    }
    Event& event = tell(wanted, request == "start" ? "start-asked" : "asked",
                        std::string(request) + " is asked for" + by);
    event.cause = cause;
    if (request == "start" || request == "stop") {
        state.askTime = now->time;
        wanted.stopAsked = request == "stop";
    }
    if (state.begunBeforeAsk && state.begunBeforeAsk->request == request &&
        since(state.begunBeforeAsk->time).value_or(0) < REORDERED_WITHIN) {
        state.begunBeforeAsk.reset();
        return;
    }
    state.asks.push_back({request, now->time});
}

void Storyteller::onNotSent(const Values& values)
{
    causes[now->tid] = Cause::None;
    tellTrouble(zone(values[2]), "not-asked", "a request does not reach it: " + now->message);
}

// The zone's thread carries them out.

void Storyteller::onBegun(const Values& values)
{
    // "handleStart" is the daemon's name for what is asked for as "start".
    const std::string name = lowered(now->function.substr(std::string_view("handle").size()));
    const auto* request = std::find_if(REQUESTS.begin(), REQUESTS.end(),
                                       [&](const auto& entry) { return entry.second == name; });
    Progress& state = progress[values[0]];
    Event& event = tell(zone(values[0]), "begun", name + " begins");
    const auto ask = std::find_if(state.asks.begin(), state.asks.end(),
                                  [&](const Ask& entry) { return entry.request == request->second; });
    if (ask == state.asks.end()) {
        state.begunBeforeAsk = Ask{request->second, now->time};
    } else {
        event.took = since(ask->time);
        state.asks.erase(ask);
    }
    state.launchTime = now->time;
}

void Storyteller::onStarted(const Values& values)
{
    Progress& state = progress[values[0]];
    state.startFailed = false;
    zone(values[0]).failure.clear();
    tell(zone(values[0]), "started", "the launcher has started it").took = since(state.launchTime);
}

void Storyteller::onAlreadyRunning(const Values& values)
{
    tell(zone(values[0]), "nothing-to-do", "nothing is done: it runs already");
}

void Storyteller::onStartFailed(const Values& values)
{
    progress[values[0]].startFailed = true;
    onFailed(values);
}

void Storyteller::onDone(const Values& values)
{
    zone(values[0]).failure.clear();
    tell(zone(values[0]), "done", now->message.substr(0, now->message.find('('))).took =
        since(progress[values[0]].launchTime);
}

void Storyteller::onNothingToDo(const Values& values)
{
    tell(zone(values[0]), "nothing-to-do",
         "nothing is done: " + now->message.substr(0, now->message.find('(')));
}

void Storyteller::onFailed(const Values& values)
{
    ZoneStory& failed = zone(values[0]);
    failed.failure = now->message;
    tellTrouble(failed, "failed", now->message.substr(0, now->message.rfind("(thread name"))).took =
        since(progress[values[0]].launchTime);
}

// What LXC reports, and what the watcher finds.

void Storyteller::onState(const Values& values)
{
    ZoneStory& changed = zone(values[2]);
    changed.state = values[3];
    changed.stateTime = now->time;
    Event& event = tell(changed, "state", values[3]);
    if (values[3] == (changed.stopAsked ? "STOPPED" : "RUNNING")) {
        Progress& state = progress[values[2]];
        event.took = since(state.askTime);
        state.askTime.reset();
    }
}

void Storyteller::onExit(const Values& values)
{
    const int status = toNumber(values[3]);
    progress[values[2]].exitStatus = status;
    tell(zone(values[2]), "exited", "its init process ends with " + exitStatusText(status));
}

void Storyteller::onRestartFlag(const Values& values)
{
    if (toNumber(values[1]) == 0) {
        return; // it was stopped on request, or never started by the daemon
    }
    zone(values[0]).exitStatuses.push_back(progress[values[0]].exitStatus);
    tellTrouble(zone(values[0]), "died", "it should run: it will be restarted").cause = Cause::Death;
}

void Storyteller::onInitPid(const Values& values)
{
    tell(zone(values[1]), "init-pid", "its init process is " + values[0]);
}

void Storyteller::addRestart(ZoneStory& zone, Cause cause)
{
    zone.restarts.push_back({now->time, cause});
}

void Storyteller::onWatcher(const Values& values)
{
    Progress& state = progress[values[0]];
    state.askTime = state.launchTime = now->time;
    ZoneStory& restarted = zone(values[0]);
    restarted.stopAsked = false;
    addRestart(restarted, Cause::Watcher);
    tellTrouble(restarted, "start-asked",
                "the watcher finds another init process (" + values[1] + ") and restarts it")
        .cause = Cause::Watcher;
}

void Storyteller::onWatcherStarted(const Values& values)
{
    onStarted(values);
}

void Storyteller::onWatcherFailed(const Values& values)
{
    onFailed(values);
}

} // namespace Zonectl
