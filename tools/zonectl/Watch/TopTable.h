#pragma once

#include "Output/Output.h"
#include "Watch/ZoneUsage.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Zonectl {

/// One zone in one look.
struct TopRow
{
    std::string name;
    std::string state;
    bool toldByDaemon = false;              ///< else the state is what its control groups tell
    std::optional<std::int64_t> permille{}; ///< of one processor, since the look before
    std::optional<std::int64_t> uptimeSeconds{};
    std::optional<std::int64_t> memoryBytes{};
    std::optional<std::int64_t> processes{};
};

/// Remembers how much processor time each zone had used at the look before.
class ProcessorShares
{
public:
    /// The share since the zone's look before, in thousandths of one processor; nothing at the first one, and
    /// when the zone's groups were made anew meanwhile.
    [[nodiscard]] std::optional<std::int64_t> next(const std::string& zone, Micros now,
                                                   const std::optional<Micros>& used);
    [[nodiscard]] bool knows(const std::string& zone) const { return looks.contains(zone); }

private:
    struct Look
    {
        Micros at;
        Micros used;
    };
    std::map<std::string, Look> looks;
};

/// "3d 04:05:06"
[[nodiscard]] std::string uptimeText(std::int64_t seconds);
/// "12.3 MiB"
[[nodiscard]] std::string bytesText(std::int64_t bytes);

[[nodiscard]] std::string topText(const std::vector<TopRow>& rows, const Style& style);
/// An array on one line, its new-line included.
[[nodiscard]] std::string topJson(const std::vector<TopRow>& rows);

} // namespace Zonectl
