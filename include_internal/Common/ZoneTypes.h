#pragma once

#include <sys/types.h>

/// The vocabulary that the daemon's parts share.

namespace ZoneCore {

/// A container's state. The values travel inside zone events and D-Bus replies.
enum ZoneState
{
    NONE = 0,
    STOPPED,
    STARTING,
    RUNNING,
    STOPPING,
    ABORTING,
    FREEZING,
    FROZEN,
    THAWED,
};

} // namespace ZoneCore

namespace ZUP {

/// The kind of a zone, as the container's configuration names it.
enum ZoneType
{
    ZONE_TYPE_NONE = 0,
    ZONE_TYPE_ISOLATION = 1,
    ZONE_TYPE_HYBRID = 2,
    ZONE_TYPE_PROTECTION = 3,
};

/// The last operation that a zone's thread carried out.
enum ZoneOperationType
{
    ZONE_OPERATION_NONE = 0,
    ZONE_OPERATION_START = 1,
    ZONE_OPERATION_STOP = 2,
    ZONE_OPERATION_FREEZE = 3,
    ZONE_OPERATION_UNFREEZE = 4,
};

/// An attach request as it arrives over the bus. Its strings belong to the bus handler and end with it, while
/// the event that points here is handled later: nobody but the handler may read it.
struct LXCAttachCommand
{
    int uid;
    int gid;
    const char* program;            ///< the command line's first string; null when it is empty
    const char* const* commandLine; ///< null-terminated
};

} // namespace ZUP
