#pragma once

#include "ZoneCore/ZoneKind.h"

namespace ZoneCore {

/// The protection kind. Every directory is labelled, and a root that cannot be keeps the zone out.
class ProtectZone final : public ZoneKind
{
public:
    ProtectZone();
    ~ProtectZone() override;

    [[nodiscard]] bool checkROZoneSmackLabel(const std::string& path, const std::string& label) override;
    [[nodiscard]] bool checkRWZoneSmackLabel(const std::string& path, const std::string& label) override;
    [[nodiscard]] bool checkAutoStart() override;

private:
    static const Rule RULE;
};

} // namespace ZoneCore
