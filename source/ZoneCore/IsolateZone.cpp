#include "ZoneCore/IsolateZone.h"

#include "Common/Log.h"
#include "Common/ThreadId.h"

namespace ZoneCore {

const ZoneKind::Rule IsolateZone::RULE{
    .type = ZUP::ZONE_TYPE_ISOLATION,
    .word = "Isolation",
    .readOnlyLabel = "_",
    .writableLabel = "System",
    .pathWord = "rw path : ",
};

IsolateZone::IsolateZone() : ZoneKind(RULE)
{
    ZLOGI("IsolateZone object is created...[type : %d]", zoneType);
}

IsolateZone::~IsolateZone()
{
    ZLOGI("IsolateZone zone is destroyed...[type : %d, thread name : %s, thread id : %d]", zoneType,
          threadName.c_str(), currentThreadId());
}

bool IsolateZone::checkROZoneSmackLabel(const std::string& path, const std::string& label)
{
    return permitReadOnlyPath(path, label);
}

bool IsolateZone::checkRWZoneSmackLabel(const std::string& path, const std::string& label)
{
    return enforceWritablePath(path, label);
}

bool IsolateZone::checkAutoStart()
{
    ZLOGI("[%s:%d] Auto start is permitted for isolation container(\"%s\")...", threadName.c_str(),
          currentThreadId(), zoneName.c_str());
    return true;
}

} // namespace ZoneCore
