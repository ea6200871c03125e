#pragma once

#include "Device/Containers.h"
#include "Device/Machine.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// What the daemon does without when a label rule cannot be met.
enum class Consequence
{
    StartFails,  ///< the daemon ends at start-up
    Logged,      ///< one line in the log
    ZoneRefused, ///< the zone is not taken
};

/// One path that the daemon's policy labels.
struct LabelRule
{
    std::string path;
    std::string wanted;
    bool enforced;         ///< the label must be there in the end; else the path only has to exist
    std::string creatable; ///< the directory below which the daemon makes the path; empty when it never does
    Consequence consequence;
    std::string zone;    ///< empty for the paths of the daemon itself
    bool inZone = false; ///< the zone itself can put something else in its place, as a symbolic link
};

/// What the disk says about a path.
struct PathFacts
{
    bool exists = false;
    std::optional<std::string> label;
    bool readOnly = false;   ///< the path, or where it would be made, lies on a read-only mount
    bool baseExists = false; ///< `LabelRule::creatable` names an existing directory
    bool hidden = false;     ///< this user may not see whether the path is there
};

/// How a rule will fare at the daemon's next start.
enum class LabelVerdict
{
    Satisfied,
    NotEnforced,
    WillBeSet,
    WillBeCreated,
    Missing,  ///< and nobody makes it
    NoLabel,  ///< the daemon never gives a first label
    ReadOnly, ///< must be changed, and cannot be
    Unknown,  ///< only a user who may see the path can tell
};

/// Whether the daemon gets what the rule wants.
[[nodiscard]] bool isGood(LabelVerdict verdict);

/// A few words for the verdict.
[[nodiscard]] std::string_view verdictText(LabelVerdict verdict);

/// The same rule as the daemon's: a current label that is a leading part of the wanted one is good enough,
/// and only a kernel with Smack gives a new path a first label.
[[nodiscard]] LabelVerdict judge(const LabelRule& rule, const PathFacts& facts, bool smackKernel);

/// The rules for the daemon's own paths.
[[nodiscard]] std::vector<LabelRule> daemonRules();

/// The rules for one zone, in the order in which the daemon checks them; none for a zone of no kind.
[[nodiscard]] std::vector<LabelRule> zoneRules(const std::string& lxcPath, const ContainerInfo& container);

/// Looks at the disk for one rule.
[[nodiscard]] PathFacts factsAbout(const LabelRule& rule, const Machine& machine);

} // namespace Zonectl
