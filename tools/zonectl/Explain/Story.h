#pragma once

#include "Explain/LogReader.h"

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// A zone that is restarted so often in a row,
constexpr std::size_t LOOP_RESTARTS = 3;
/// each time within this time of the restart before, is in a restart loop.
constexpr LogTime LOOP_PAUSE = 60 * LOG_SECOND;

/// An exit status as the log has it, in words. LXC's number is 0 also for what a signal ended, and nothing
/// else in the log tells the two apart.
[[nodiscard]] std::string exitStatusText(int status);

/// On whose account something is done with a zone.
enum class Cause
{
    None,        ///< the log does not say, or there is nothing to be said
    Automatic,   ///< the automatic start
    Bus,         ///< a request over D-Bus
    Death,       ///< its container ended while it should run
    FailedStart, ///< an automatic start failed, and is tried again
    Watcher,     ///< its init process is another one, or it cannot be controlled
};

/// For programs: "automatic", "bus", "death", "failed-start", "watcher"; empty for `None`.
[[nodiscard]] std::string_view causeWord(Cause cause);

/// One step of a story.
struct Event
{
    std::optional<LogTime> time;
    std::string_view word; ///< for programs
    std::string text;      ///< for people
    Cause cause = Cause::None;
    std::optional<LogTime> took{}; ///< how long the step took
    bool bad = false;
    std::size_t times = 1;             ///< how often the same was said, where only that is of interest
    std::optional<LogTime> lastTime{}; ///< when it was said last, if more than once
};

struct Restart
{
    std::optional<LogTime> time;
    Cause cause = Cause::None;
};

/// A row of restarts, each soon after the one before.
struct RestartLoop
{
    std::size_t restarts = 0;
    LogTime begin = 0;
    LogTime end = 0;
};

/// What the log says of one zone.
struct ZoneStory
{
    std::string name;
    std::string kind;       ///< empty when the log does not say
    bool taken = false;     ///< the daemon made a zone of the container
    bool automatic = false; ///< marked for automatic start
    bool automaticAsked = false;
    std::string state; ///< the last one that was reported; empty for none
    std::optional<LogTime> stateTime;
    std::vector<Event> events;
    std::vector<Restart> restarts;
    std::vector<int> exitStatuses; ///< of the times it died
    std::string failure;           ///< the daemon's message, when its last start or stop failed
    bool stopAsked = false;        ///< since its last start

    /// The last loop; nothing without one, and for a log without times.
    [[nodiscard]] std::optional<RestartLoop> restartLoop() const;
};

/// A container that was not made a zone.
struct RefusedInLog
{
    std::string name;
    std::optional<LogTime> time;
    std::vector<std::string> messages; ///< the daemon's, in their order; the last one is always there
};

/// Something that keeps being said while the daemon waits.
struct Wait
{
    std::string message; ///< the last one
    std::optional<LogTime> since;
    std::size_t times = 0;
};

/// What the log says of one run of the daemon.
struct Story
{
    int pid = 0;
    bool complete = false; ///< the log has its beginning
    std::optional<LogTime> begin;
    std::optional<LogTime> end; ///< of what the log has of it
    bool lockRefused = false;   ///< another instance was running
    bool terminated = false;
    std::vector<Event> events; ///< of the daemon itself
    std::optional<std::size_t> listed;
    std::size_t made = 0;
    std::vector<RefusedInLog> refused;
    Wait threads; ///< for the zones' threads, before the automatic start begins
    bool automaticBegun = false;
    std::string lastAutomatic; ///< the zone that was last asked to start on its own
    std::optional<LogTime> lastAutomaticTime;
    std::map<std::string, ZoneStory> zones;

    /// The daemon waits for more zones than it has. It does so for ever, unless a zone that comes up on
    /// request sets the automatic start going.
    [[nodiscard]] bool automaticBlocked() const { return zonesMissing() && !automaticBegun; }
    [[nodiscard]] bool zonesMissing() const { return listed && made < *listed; }
    /// Zones that are marked and were not asked to start yet.
    [[nodiscard]] std::vector<std::string> stillToStart() const;
};

/// A message of the daemon that the story is told from: its function and its text, with the conversions.
struct KnownMessage
{
    std::string_view function;
    std::string_view form;
};

/// All of them.
[[nodiscard]] std::vector<KnownMessage> knownMessages();

/// Makes the story of one run from its records.
class Storyteller
{
public:
    void take(const LogRecord& record);
    [[nodiscard]] const Story& story() const { return told; }

private:
    friend struct StoryTable;
    using Values = std::vector<std::string>;

    struct Ask
    {
        std::string_view request;
        std::optional<LogTime> time;
    };
    /// What only telling needs to know of a zone.
    struct Progress
    {
        std::deque<Ask> asks;              ///< in the zone's queue
        std::optional<Ask> begunBeforeAsk; ///< whose record of the asking is still to come
        std::optional<LogTime> askTime;    ///< of the start or stop that is under way
        std::optional<LogTime> launchTime;
        bool startFailed = false; ///< the last one
        bool restartFlag = false;
        int exitStatus = 0;
    };

    // The handlers of the table, in the order of a run.
    void onStart(const Values&);
    void onLock(const Values&);
    void onRunEvent(const Values&);
    void onRunTrouble(const Values&);
    void onContext(const Values&);
    void onKind(const Values&);
    void onMarked(const Values&);
    void onTaken(const Values&);
    void onRefused(const Values&);
    void onCount(const Values&);
    void onThreadsMissing(const Values&);
    void onAutomaticBegun(const Values&);
    void onAutomaticLook(const Values&);
    void onBusSender(const Values&);
    void onBusRequest(const Values&);
    void onBusRefused(const Values&);
    void onRestartRequest(const Values&);
    void onSent(const Values&);
    void onNotSent(const Values&);
    void onBegun(const Values&);
    void onStarted(const Values&);
    void onAlreadyRunning(const Values&);
    void onStartFailed(const Values&);
    void onDone(const Values&);
    void onNothingToDo(const Values&);
    void onFailed(const Values&);
    void onState(const Values&);
    void onExit(const Values&);
    void onRestartFlag(const Values&);
    void onInitPid(const Values&);
    void onWatcher(const Values&);
    void onWatcherStarted(const Values&);
    void onWatcherFailed(const Values&);
    void onTerminated(const Values&);

    void onQuestionRefused(ZoneStory& asked);
    ZoneStory& zone(const std::string& name);
    Event& tell(ZoneStory& zone, std::string_view word, std::string text);
    Event& tellTrouble(ZoneStory& zone, std::string_view word, std::string text);
    void addRestart(ZoneStory& zone, Cause cause);
    void asked(const std::string& name, std::string_view request);
    [[nodiscard]] std::optional<LogTime> since(const std::optional<LogTime>& time) const;
    [[nodiscard]] Cause causeOfRestart(const std::string& name) const;

    Story told;
    const LogRecord* now = nullptr; ///< the record that is being told
    std::map<std::string, Progress> progress;
    std::map<int, Cause> causes;         ///< by thread: on whose account it sends the next event
    std::map<int, std::string> senders;  ///< by thread: whose bus call it carries out
    std::map<int, std::string> methods;  ///< by thread: which method that call is of
    std::vector<std::string> objections; ///< warnings and errors since the last container was judged
    std::optional<int> judge;            ///< the thread that judges containers
};

} // namespace Zonectl
