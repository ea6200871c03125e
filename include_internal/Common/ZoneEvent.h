#pragma once

#include "Common/ZoneTypes.h"

namespace ZoneCore {

/// What a zone event asks of its receiver; the comment names the receiver and the payload.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name by which the kinds of events are known.
enum _ZoneEventType
{
    eZONE_EVENT_START = 1,        ///< a zone's thread
    eZONE_EVENT_STOP = 2,         ///< a zone's thread
    eZONE_EVENT_FREEZE = 3,       ///< a zone's thread
    eZONE_EVENT_UNFREEZE = 4,     ///< a zone's thread
    eZONE_EVENT_ATTACH = 5,       ///< a zone's thread; ZUP::LXCAttachCommand of the sender, never to be read
    eZONE_EVENT_CHANGE_STATE = 6, ///< a zone's thread; the new state is in zoneState
    eZONE_EVENT_RESTART = 7, ///< the zone manager; std::string with the zone name, the receiver deletes it
    eZONE_EVENT_CHECK_AUTO_START = 8, ///< the zone manager
    eZONE_EVENT_WATCHDOG = 9,         ///< nobody handles it; WatchDogEventData
};
using ZoneEventType = _ZoneEventType;

/// The only thing that crosses from one thread to another. Owned by its sender until Thread::sendEvent
/// succeeded, then by the target's queue, then by the dispatcher that pops it.
struct ZoneEvent
{
    ZoneEventType eventType;
    ZoneState zoneState;
    void* eventData;
};

/// The payload of eZONE_EVENT_WATCHDOG.
struct WatchDogEventData
{
    int first;
    int second;
};

} // namespace ZoneCore
