#include "Explain/MessageForm.h"
#include "Explain/Story.h"

#include <array>

namespace Zonectl {

/// The messages that mean something for the story, and what takes them. Everything else in the log is passed
/// over; "Restart event for ... is sent to Zone Manager" on purpose, as it is written after every stop.
struct StoryTable
{
    struct Row
    {
        KnownMessage message;
        void (Storyteller::*handler)(const MessageValues&);
    };
    static const std::array<Row, 63> ROWS;
};

constexpr std::array<StoryTable::Row, 63> StoryTable::ROWS = {{
    // The daemon itself.
    {{"main", "Start Zone Manager..."}, &Storyteller::onStart},
    {{"get_zone_manager_lock", "Another instance of Zone Manager is running - \"%s\""}, &Storyteller::onLock},
    {{"main", "Failed to get zone manager lock(%s)"}, &Storyteller::onRunTrouble},
    {{"main", "Failed to create the basepath of container pidfile - %s"}, &Storyteller::onRunTrouble},
    {{"main", "Exception occurred : %s"}, &Storyteller::onRunTrouble},
    {{"initialize", "Failed to get lxc base path"}, &Storyteller::onRunTrouble},
    {{"initialize", "lxc containers (base path : %s)"}, &Storyteller::onRunTrouble},
    {{"initialize", "There is no zone information (lxc base path : %s, zone count : %d)"},
     &Storyteller::onRunTrouble},
    {{"initialize", "[%s:%d] Failed to create zone monitor"}, &Storyteller::onRunTrouble},
    {{"connectDBus", "Failed to own dbus for \"%s\""}, &Storyteller::onRunTrouble},
    {{"on_bus_lost", "Bus is lost(\"%s\")"}, &Storyteller::onRunTrouble},
    {{"reportStall", "The watchdog gives the thread up(thread name : %s, tid : %d, silent for %d seconds)"},
     &Storyteller::onRunTrouble},
    {{"stateChangeIOEventCallback", "[%s:%d] Failed to read state messages from container"},
     &Storyteller::onRunTrouble},
    {{"on_name_acquired", "Name(\"%s\") is acquired"}, &Storyteller::onRunEvent},
    {{"handle_termination_signal", "[Main Thread] received \"%s\" signal : %d"}, &Storyteller::onRunEvent},
    {{"tearDown", "ZoneManager is terminated..."}, &Storyteller::onTerminated},
    // Containers become zones, or do not.
    {{"ZoneContext", "ZoneContext object is created"}, &Storyteller::onContext},
    {{"getZone", "[Zone Name : %s] / [Zone Base Path : %s] / [Zone Type : %d]"}, &Storyteller::onKind},
    {{"fillZone", "auto start flag is true...%s"}, &Storyteller::onMarked},
    {{"initialize", "\"%s\" is added to Zone Context!"}, &Storyteller::onTaken},
    {{"initialize", "Failed to create Zone Object - %s[%d]"}, &Storyteller::onRefused},
    {{"initialize", "Zone count is set to [%d / %zu]"}, &Storyteller::onCount},
    // The automatic start waits, begins and goes on.
    {{"isRunningZoneThreads", "Can not get a zone object (%d / %d)"}, &Storyteller::onThreadsMissing},
    {{"isRunningZoneThreads", "The thread \"%s\" is not running yet (%d / %d)"},
     &Storyteller::onThreadsMissing},
    {{"threadRunningCheckCallback",
      "[Main Thread] ZoneMonitor thread is not initialized yet(thread name : %s, tid : %d)"},
     &Storyteller::onThreadsMissing},
    {{"threadRunningCheckCallback",
      "[Main Thread] Failed to start Default Zones(thread name : %s, tid : %d)"},
     &Storyteller::onThreadsMissing},
    {{"threadRunningCheckCallback",
      "[Main Thread] thread running check timer is terminated(thread name : %s, tid : %d)"},
     &Storyteller::onAutomaticBegun},
    {{"startAutoStartZones", "Checking auto start zone for \"%s\" - %d / %d / %s"},
     &Storyteller::onAutomaticLook},
    // Requests.
    {{"callVTable", "sender : %s / object path : %s / interface name : %s / method name : %s"},
     &Storyteller::onBusSender},
    {{"callVTable",
      "[DBus] There is no access permission to protection zone(\"%s\") - Operation is not permitted"},
     &Storyteller::onBusRefused},
    {{"startZone", "[DBus] ZoneStart on zone '%s'"}, &Storyteller::onBusRequest},
    {{"stopZone", "[DBus] ZoneStop on zone '%s'"}, &Storyteller::onBusRequest},
    {{"unfreezeZone", "[DBus] ZoneUnfreeze on zone '%s'"}, &Storyteller::onBusRequest},
    {{"attachZone", "[DBus] ZoneAttach zoneName[%s]"}, &Storyteller::onBusRequest},
    {{"handleEvent", "receive the event - ZONE RESTART(thread name : %s, tid : %d)"},
     &Storyteller::onRestartRequest},
    {{"sendEventToZone", "zone event(%d) is sent (zone name : %s)"}, &Storyteller::onSent},
    {{"startZone", "[%s:%d] Failed to send start event for zone(%s)"}, &Storyteller::onNotSent},
    {{"stopZone", "[%s:%d] Failed to send stop event for zone(%s)"}, &Storyteller::onNotSent},
    {{"unfreezeZone", "[%s:%d] Failed to send unfreeze event for zone(%s)"}, &Storyteller::onNotSent},
    {{"zoneAttach", "[%s:%d] Failed to send attach event for zone(%s)"}, &Storyteller::onNotSent},
    // The zone's thread carries them out.
    {{"handleStart", "receive the event - ZONE START(thread name : %s, tid : %d)"}, &Storyteller::onBegun},
    {{"handleStop", "receive the event - ZONE STOP(thread name : %s, tid : %d)"}, &Storyteller::onBegun},
    {{"handleFreeze", "receive the event - ZONE FREEZE(thread name : %s, tid : %d)"}, &Storyteller::onBegun},
    {{"handleUnfreeze", "receive the event - ZONE UNFREEZE(thread name : %s, tid : %d)"},
     &Storyteller::onBegun},
    {{"handleAttach", "receive the event - ZONE ATTACH(thread name : %s, tid : %d)"}, &Storyteller::onBegun},
    {{"handleStart", "%s is already running(thread name : %s, tid : %d)"}, &Storyteller::onAlreadyRunning},
    {{"handleStart", "%s is started successfully(thread name : %s, tid : %d)"}, &Storyteller::onStarted},
    {{"handleStart", "Failed to start %s(thread name : %s, tid : %d)"}, &Storyteller::onStartFailed},
    {{"handleStop", "%s is stopped successfully(thread name : %s, tid : %d)"}, &Storyteller::onDone},
    {{"handleFreeze", "%s is freezed successfully(thread name : %s, tid : %d)"}, &Storyteller::onDone},
    {{"handleUnfreeze", "%s is unfreezed successfully(thread name : %s, tid : %d)"}, &Storyteller::onDone},
    {{"handleStop", "%s is not running(thread name : %s, tid : %d)"}, &Storyteller::onNothingToDo},
    {{"handleStop", "%s is not controlled(thread name : %s, tid : %d)"}, &Storyteller::onNothingToDo},
    {{"handleUnfreeze", "%s is not controlled(thread name : %s, tid : %d)"}, &Storyteller::onNothingToDo},
    {{"handleStop", "Failed to stop %s(thread name : %s, tid : %d)"}, &Storyteller::onFailed},
    {{"handleUnfreeze", "Failed to unfreeze %s(thread name : %s, tid : %d)"}, &Storyteller::onFailed},
    // What LXC reports, and what the watcher finds.
    {{"stateChangeIOEventCallback", "[%s:%d] The state of %s is changed to %s"}, &Storyteller::onState},
    {{"handleExitMessage", "[%s:%d] exit message is received - %s is exited with status code : %d"},
     &Storyteller::onExit},
    {{"setZoneRestartFlag", "Restart flag is set of \"%s\" to [%d]"}, &Storyteller::onRestartFlag},
    {{"setZoneWatcherTimer", "The init pid(%d) of zone(%s) is set(thread name : %s, tid : %d)"},
     &Storyteller::onInitPid},
    {{"zoneWatcherTimer", "Restarting %s(current zone pid : %d, thread name : %s, tid : %d)"},
     &Storyteller::onWatcher},
    {{"zoneWatcherTimer", "%s is re-started successfully(thread name : %s, tid : %d)"},
     &Storyteller::onWatcherStarted},
    {{"zoneWatcherTimer", "Failed to re-start %s(thread name : %s, tid : %d)"},
     &Storyteller::onWatcherFailed},
}};

std::vector<KnownMessage> knownMessages()
{
    std::vector<KnownMessage> messages;
    messages.reserve(StoryTable::ROWS.size());
    for (const StoryTable::Row& row : StoryTable::ROWS) {
        messages.push_back(row.message);
    }
    return messages;
}

void Storyteller::take(const LogRecord& record)
{
    now = &record;
    told.pid = record.pid;
    if (record.time) {
        told.begin = told.begin ? told.begin : record.time;
        told.end = record.time;
    }
    if (judge == record.tid && std::string_view("WEF").find(record.level) != std::string_view::npos) {
        objections.push_back(record.message);
    }
    MessageValues values;
    for (const StoryTable::Row& row : StoryTable::ROWS) {
        if (row.message.function == record.function &&
            matchesForm(row.message.form, record.message, values)) {
            (this->*row.handler)(values);
            break;
        }
    }
    now = nullptr;
}

} // namespace Zonectl
