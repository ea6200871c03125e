#pragma once

namespace ZoneCore {

/// An empty object that the manager holds from initialize to teardown; it only logs its life.
class ZoneGroupController
{
public:
    ZoneGroupController();
    ~ZoneGroupController();
    ZoneGroupController(const ZoneGroupController&) = delete;
    ZoneGroupController& operator=(const ZoneGroupController&) = delete;
};

} // namespace ZoneCore
