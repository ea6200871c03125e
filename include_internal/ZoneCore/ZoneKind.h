#pragma once

#include "ZoneCore/Zone.h"

#include <string>

namespace ZoneCore {

/// What the three kinds of zones have in common: they remember their type, and they check the same
/// directories. A kind is its rule (words and labels) and its choice, for each directory, between permitting
/// it as it is and enforcing the label.
class ZoneKind : public Zone
{
public:
    void setZoneType(const ZUP::ZoneType& type) override { zoneType = type; }
    [[nodiscard]] ZUP::ZoneType getZoneType() override { return zoneType; }

    /// Checks the zone's read-only root, its writable directory and the "opt" directory in that, and stops at
    /// the first that fails.
    [[nodiscard]] bool checkZoneSmackLabel() override;

protected:
    /// One row for each kind.
    struct Rule
    {
        ZUP::ZoneType type;
        const char* word;          ///< the kind in messages
        const char* readOnlyLabel; ///< of the root
        const char* writableLabel; ///< of the writable directory
        const char* pathWord;      ///< what some messages write before a writable path
    };

    explicit ZoneKind(const Rule& kindRule) : zoneType(kindRule.type), rule(kindRule) {}

    /// The root must exist; its label is only told.
    [[nodiscard]] bool permitReadOnlyPath(const std::string& path, const std::string& label);
    /// The root must exist and carry the label; it is labelled unless its file system is read-only.
    [[nodiscard]] bool enforceReadOnlyPath(const std::string& path, const std::string& label);
    /// The directory is made when missing; its label is only told.
    [[nodiscard]] bool permitWritablePath(const std::string& path, const std::string& label);
    /// The directory is made when missing, and labelled.
    [[nodiscard]] bool enforceWritablePath(const std::string& path, const std::string& label);

    ZUP::ZoneType zoneType;

private:
    const Rule& rule;
};

} // namespace ZoneCore
