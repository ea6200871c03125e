#pragma once

#include "CommandLine/Failure.h"
#include "Common/ZoneTypes.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Zonectl {

/// One zone as the daemon shows it, or as its processes do where the daemon cannot.
struct ZoneView
{
    std::string name{};
    ZUP::ZoneType kind = ZUP::ZONE_TYPE_NONE; ///< from the configuration; none when that is not readable
    std::optional<bool> automatic{};          ///< whether it is marked; nothing as above
    std::optional<std::string> state{};       ///< its word; nothing when it is refused or not known
    int initPid = 0;                          ///< below 1 for none
    bool refused = false;                     ///< the daemon does not speak about it
    bool fromProc = false;                    ///< the daemon was not asked, or did not tell
    std::string note{};                       ///< why that is so
};

/// What was asked for, as far as it was found.
struct ZoneSurvey
{
    std::vector<ZoneView> zones;
    std::vector<std::string> known;   ///< the names of all zones
    std::vector<std::string> unknown; ///< names that were asked for and that nobody knows
    std::optional<Failure> trouble;   ///< the daemon could not be asked, or did not answer for all
};

/// Looks at the zones of these names, at all when there are none. First each zone's LXC monitor is asked for
/// a sign of life, all at the same time: the daemon waits for the monitor when it is asked about a zone and
/// answers nobody meanwhile, so that it is never asked about one that is silent. What the daemon cannot tell
/// comes from /proc. To be called while the process has one thread. Throws Failure when the daemon may not be
/// asked, or answers in a way that makes no sense.
[[nodiscard]] ZoneSurvey surveyZones(const std::vector<std::string>& names,
                                     std::optional<std::chrono::seconds> timeout);

} // namespace Zonectl
