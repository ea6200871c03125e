#include "Explain/StoryFindings.h"

#include "Daemon/Names.h"
#include "Explain/MessageForm.h"
#include "Explain/StoryTime.h"
#include "Output/Output.h"

#include <algorithm>
#include <array>

namespace Zonectl {

namespace {

struct Remedy
{
    KnownMessage message;
    std::string_view text;
};

constexpr std::string_view LABEL_IT =
    "see to its Smack label ('zonectl labels' says which), then restart the daemon";
constexpr std::string_view MAKE_THE_DIRECTORY =
    "make that directory, or see why it cannot be made; then restart the daemon";

/// The first row whose message the daemon wrote of a container holds.
constexpr std::array REMEDIES = {
    Remedy{{"createZone", "Failed to create the zone object...%s"},
           "give it a line 'zone.container_type = KIND' in its configuration, with hybrid, isolation or "
           "protection; then restart the daemon"},
    Remedy{{"fillZone", "Failed to get \"lxc.rootfs\" value...%s"},
           "give it a line 'lxc.rootfs.path = PATH' in its configuration, then restart the daemon"},
    Remedy{{"permitReadOnlyPath", "[%s:%d] There is no read-only path...[%s / %s]"}, MAKE_THE_DIRECTORY},
    Remedy{{"enforceReadOnlyPath", "[%s:%d] There is no read-only path(%s)...[%s / %s](ref count : %ld)"},
           MAKE_THE_DIRECTORY},
    Remedy{{"permitWritablePath", "[%s:%d] Failed to create RW path of %s Zone(RW)...[%s%s]"},
           MAKE_THE_DIRECTORY},
    Remedy{
        {"enforceWritablePath", "[%s:%d] Failed to create RW path of %s Zone(RW)...[%s%s](ref count : %ld)"},
        MAKE_THE_DIRECTORY},
    Remedy{{"enforceReadOnlyPath", "[%s:%d] This is RO directory(%s)..."},
           "label the directory while it is writable ('zonectl labels' says how), then restart the daemon"},
    Remedy{{"enforceReadOnlyPath",
            "[%s:%d] Access Level of %s Zone(RO) is not permitted...[%s != %s](ref count : %ld)"},
           LABEL_IT},
    Remedy{{"enforceWritablePath",
            "[%s:%d] Access Level of %s Zone(RW) is not permitted...[%s != %s](ref count : %ld)"},
           LABEL_IT},
    Remedy{{"getZone", "The smack label(!) of zone(%s) is invalid..."}, LABEL_IT},
};
constexpr std::string_view LOOK_CLOSER = "let 'zonectl doctor' look at it, then restart the daemon";

[[nodiscard]] std::string quoted(const std::string& message)
{
    return "the daemon says \"" + message + "\"";
}

[[nodiscard]] std::string sinceText(const std::optional<LogTime>& time)
{
    return time ? " since " + timeText(*time) : "";
}

[[nodiscard]] std::string joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

[[nodiscard]] std::string tryTheLauncher(const ZoneStory& zone)
{
    return "see what the launcher says: " + std::string(Names::LAUNCHER) + " start " + zone.name;
}

/// What the daemon says while it waits for the threads; empty when it says nothing.
[[nodiscard]] std::string waitText(const Wait& wait)
{
    return wait.times == 0 ? ""
                           : "; it looked " + timesText(wait.times) + sinceText(wait.since) +
                                 ", the last time " + quoted(wait.message);
}

/// The daemon waits for as many zones as containers are listed: one that was refused is waited for for ever.
void judgeAutomaticStart(const Story& story, std::vector<Finding>& findings)
{
    constexpr const char* SUBJECT = "automatic start";
    if (story.automaticBlocked()) {
        std::string text = "NOTHING STARTS AUTOMATICALLY: the daemon waits for " +
                           std::to_string(*story.listed) + " zones before it starts the first, and has " +
                           std::to_string(story.made);
        std::vector<std::string> names;
        for (const RefusedInLog& refused : story.refused) {
            names.push_back(refused.name);
        }
        text += names.empty() ? "" : ", since it refused " + joined(names);
        findings.push_back(
            {SUBJECT, Severity::Problem, text + waitText(story.threads),
             "correct or remove what was refused, then restart the daemon; until then only a zone "
             "that is started on request lets the others follow"});
    } else if (story.zonesMissing()) {
        findings.push_back({SUBJECT, Severity::Warning,
                            "it never began by itself, since a container was refused; a zone that came up "
                            "otherwise set it going",
                            "correct or remove what was refused, then restart the daemon"});
    } else if (!story.automaticBegun && story.threads.times > 0) {
        findings.push_back({SUBJECT, Severity::Warning,
                            "it has not begun, since not all threads run" + waitText(story.threads), ""});
    }
    const auto last = story.zones.find(story.lastAutomatic);
    const auto next = story.stillToStart();
    if (story.terminated || last == story.zones.end() || next.empty()) {
        return;
    }
    findings.push_back({SUBJECT, Severity::Note,
                        "it waits for " + story.lastAutomatic + " to be RUNNING" +
                            sinceText(story.lastAutomaticTime) + "; still to be started: " + joined(next),
                        ""});
}

void judgeRefusals(const Story& story, const std::string& zoneName, std::vector<Finding>& findings)
{
    for (const RefusedInLog& refused : story.refused) {
        if (zoneName.empty() || zoneName == refused.name || story.automaticBlocked()) {
            findings.push_back({refused.name, Severity::Problem,
                                "refused as a zone; " + quoted(refused.messages.front()),
                                remedyFor(refused)});
        }
    }
}

void judgeRun(const LogStory& log, std::vector<Finding>& findings)
{
    const Story& story = log.told();
    for (const Event& event : story.events) {
        if (event.bad) {
            findings.push_back({"daemon", Severity::Problem, quoted(event.text), ""});
        }
    }
    if (!story.complete) {
        findings.push_back(
            {"log", Severity::Warning, "it does not have the beginning of this run: things are missing", ""});
    }
    if (log.refusedInstances() > 0) {
        findings.push_back(
            {"daemon", Severity::Note,
             "was started " + timesText(log.refusedInstances()) + " more while this one ran, and refused",
             ""});
    }
}

void judgeRestarts(const Story& story, const ZoneStory& zone, std::vector<Finding>& findings)
{
    const auto loop = zone.restartLoop();
    if (!loop) {
        return;
    }
    const std::string text =
        timesText(loop->restarts) + " from " + timeText(loop->begin) + " to " + timeText(loop->end);
    if (inRestartLoop(story, zone)) {
        findings.push_back(
            {zone.name, Severity::Problem, "is in a restart loop: restarted " + text,
             zone.restarts.back().cause == Cause::FailedStart
                 ? tryTheLauncher(zone)
                 : "find out why its init ends; " + commandHint("stop", zone.name) + " ends the restarts"});
    } else {
        findings.push_back({zone.name, Severity::Warning, "was in a restart loop: restarted " + text, ""});
    }
}

void judgeZone(const Story& story, const ZoneStory& zone, std::vector<Finding>& findings)
{
    judgeRestarts(story, zone, findings);
    if (!zone.failure.empty()) {
        findings.push_back({zone.name, Severity::Problem, quoted(zone.failure), tryTheLauncher(zone)});
    }
}

} // namespace

std::string remedyFor(const RefusedInLog& refused)
{
    MessageValues values;
    for (const Remedy& remedy : REMEDIES) {
        if (std::any_of(refused.messages.begin(), refused.messages.end(), [&](const std::string& message) {
                return matchesForm(remedy.message.form, message, values);
            })) {
            return std::string(remedy.text);
        }
    }
    return std::string(LOOK_CLOSER);
}

std::vector<KnownMessage> messagesWithRemedy()
{
    std::vector<KnownMessage> messages;
    messages.reserve(REMEDIES.size());
    for (const Remedy& remedy : REMEDIES) {
        messages.push_back(remedy.message);
    }
    return messages;
}

bool inRestartLoop(const Story& story, const ZoneStory& zone)
{
    const auto loop = zone.restartLoop();
    return loop && !story.terminated && !zone.stopAsked && zone.restarts.back().time == loop->end &&
           story.end.value_or(loop->end) - loop->end <= LOOP_PAUSE;
}

std::vector<Finding> findingsOf(const LogStory& log, const std::string& zoneName)
{
    const Story& story = log.told();
    std::vector<Finding> findings;
    if (zoneName.empty() || story.automaticBlocked()) {
        judgeAutomaticStart(story, findings);
    }
    judgeRefusals(story, zoneName, findings);
    if (zoneName.empty()) {
        judgeRun(log, findings);
    }
    for (const auto& [name, zone] : story.zones) {
        if (zoneName.empty() || zoneName == name) {
            judgeZone(story, zone, findings);
        }
    }
    return findings;
}

} // namespace Zonectl
