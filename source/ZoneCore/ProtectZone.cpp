#include "ZoneCore/ProtectZone.h"

#include "Common/Log.h"
#include "Common/ThreadId.h"

namespace ZoneCore {

const ZoneKind::Rule ProtectZone::RULE{
    .type = ZUP::ZONE_TYPE_PROTECTION,
    .word = "Protection",
    .readOnlyLabel = "!",
    .writableLabel = "!",
    .pathWord = "",
};

ProtectZone::ProtectZone() : ZoneKind(RULE)
{
    ZLOGI("ProtectZone object is created...[type : %d]", zoneType);
}

ProtectZone::~ProtectZone()
{
    ZLOGI("ProtectZone zone is destroyed...[type : %d, thread name : %s, thread id : %d]", zoneType,
          threadName.c_str(), currentThreadId());
}

bool ProtectZone::checkROZoneSmackLabel(const std::string& path, const std::string& label)
{
    return enforceReadOnlyPath(path, label);
}

bool ProtectZone::checkRWZoneSmackLabel(const std::string& path, const std::string& label)
{
    return enforceWritablePath(path, label);
}

bool ProtectZone::checkAutoStart()
{
    ZLOGI("[%s:%d] Auto start is permitted for protection container...", threadName.c_str(),
          currentThreadId());
    return true;
}

} // namespace ZoneCore
