#pragma once

#include "Watch/Timeline.h"

#include <optional>
#include <string>
#include <vector>

namespace Zonectl {

/// A state that a zone went through.
struct Step
{
    std::string state;
    std::optional<Micros> lasted; ///< nothing when its beginning or end was not seen
};

/// What stands side by side: the same step of both recordings, or a step that only one has.
struct StepPair
{
    std::optional<Step> a;
    std::optional<Step> b;

    [[nodiscard]] bool inBoth() const { return a && b; }
    /// How long the step took in B, in hundredths of its time in A; only for one that took notably longer in
    /// one of them: by more than a fifth and more than 100 ms. Without end for a step of no length.
    [[nodiscard]] std::optional<std::int64_t> notablePercent() const;
};

struct ZoneComparison
{
    std::string zone;
    std::vector<StepPair> steps;

    [[nodiscard]] bool same() const;
};

/// The steps of a zone. A time that could not be seen is no step, and splits none: a zone that is found in
/// the state in which it was left was in it all the time, as far as can be told.
[[nodiscard]] std::vector<Step> stepsOf(const ZoneTimeline& zone);

/// Puts two sequences side by side so that as many steps as possible are in both.
[[nodiscard]] std::vector<StepPair> alignSteps(const std::vector<Step>& a, const std::vector<Step>& b);

/// The zones of both, by name.
[[nodiscard]] std::vector<ZoneComparison> compare(const Timeline& a, const Timeline& b);

} // namespace Zonectl
