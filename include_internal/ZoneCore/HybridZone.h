#pragma once

#include "ZoneCore/ZoneKind.h"

namespace ZoneCore {

/// The hybrid kind. Nothing is enforced: the root must exist, and the labels are only told.
class HybridZone final : public ZoneKind
{
public:
    HybridZone();
    ~HybridZone() override;

    [[nodiscard]] bool checkROZoneSmackLabel(const std::string& path, const std::string& label) override;
    [[nodiscard]] bool checkRWZoneSmackLabel(const std::string& path, const std::string& label) override;
    [[nodiscard]] bool checkAutoStart() override;

private:
    static const Rule RULE;
};

} // namespace ZoneCore
