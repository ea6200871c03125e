#include "ZoneCore/HybridZone.h"

#include "Common/Log.h"
#include "Common/ThreadId.h"

namespace ZoneCore {

const ZoneKind::Rule HybridZone::RULE{
    .type = ZUP::ZONE_TYPE_HYBRID,
    .word = "Hybrid",
    .readOnlyLabel = "_",
    .writableLabel = "_",
    .pathWord = "rw path : ",
};

HybridZone::HybridZone() : ZoneKind(RULE)
{
    ZLOGI("HybridZone object is created...[type : %d]", zoneType);
}

HybridZone::~HybridZone()
{
    ZLOGI("HybridZone zone is destroyed...[type : %d, thread name : %s, thread id : %d]", zoneType,
          threadName.c_str(), currentThreadId());
}

bool HybridZone::checkROZoneSmackLabel(const std::string& path, const std::string& label)
{
    return permitReadOnlyPath(path, label);
}

bool HybridZone::checkRWZoneSmackLabel(const std::string& path, const std::string& label)
{
    return permitWritablePath(path, label);
}

bool HybridZone::checkAutoStart()
{
    ZLOGI("[%s:%d] Auto start is permitted for hybrid container...", threadName.c_str(), currentThreadId());
    return true;
}

} // namespace ZoneCore
