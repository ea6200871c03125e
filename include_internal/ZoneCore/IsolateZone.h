#pragma once

#include "ZoneCore/ZoneKind.h"

namespace ZoneCore {

/// The isolation kind. The root must exist; the writable directories are labelled.
class IsolateZone final : public ZoneKind
{
public:
    IsolateZone();
    ~IsolateZone() override;

    [[nodiscard]] bool checkROZoneSmackLabel(const std::string& path, const std::string& label) override;
    [[nodiscard]] bool checkRWZoneSmackLabel(const std::string& path, const std::string& label) override;
    [[nodiscard]] bool checkAutoStart() override;

private:
    static const Rule RULE;
};

} // namespace ZoneCore
