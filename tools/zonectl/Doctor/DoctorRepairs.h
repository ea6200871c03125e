#pragma once

#include "CommandLine/Options.h"
#include "Doctor/Doctor.h"

#include <string>
#include <vector>

namespace Zonectl {

/// What became of a remedy.
struct RepairOutcome
{
    Diagnosed finding;
    bool done = false;
    std::string problem{}; ///< why it was not applied; empty when the user said no
};

/// Applies the remedies that this program can apply, asking for each unless told not to, and looks again,
/// until nothing new is left to apply. Leaves in `diagnosis` what was seen last.
[[nodiscard]] std::vector<RepairOutcome> repair(const Machine& machine, const Options& options,
                                                Diagnosis& diagnosis);

} // namespace Zonectl
