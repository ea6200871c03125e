#include "ZoneCore/ZoneGroupController.h"

#include "Common/Log.h"

namespace ZoneCore {

ZoneGroupController::ZoneGroupController()
{
    ZLOGI("zone group controller instance is created");
}

ZoneGroupController::~ZoneGroupController()
{
    ZLOGI("zone group controller instance is destroyed");
}

} // namespace ZoneCore
