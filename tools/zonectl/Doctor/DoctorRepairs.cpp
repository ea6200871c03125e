#include "Doctor/DoctorRepairs.h"

#include "Output/Question.h"

#include <algorithm>

namespace Zonectl {

namespace {

/// One remedy can bring the next problem to light, as a kind does the labels that it asks for.
constexpr int MOST_ROUNDS = 4;

class RepairShop
{
public:
    RepairShop(const Machine& repaired, const Options& commandLine) : machine(repaired), options(commandLine)
    {}

    /// Applies each remedy that was not tried before; says whether something was changed.
    [[nodiscard]] bool runRound(const Diagnosis& diagnosis)
    {
        bool changed = false;
        for (const Diagnosed& finding : diagnosis.findings) {
            if (!finding.repairs.empty() && !wasTried(finding)) {
                outcomes.push_back(apply(finding));
                changed |= outcomes.back().done;
            }
        }
        return changed;
    }

    [[nodiscard]] std::vector<RepairOutcome> take() { return std::move(outcomes); }

private:
    [[nodiscard]] bool wasTried(const Diagnosed& finding) const
    {
        return std::any_of(outcomes.begin(), outcomes.end(), [&](const RepairOutcome& outcome) {
            return outcome.finding.id == finding.id && outcome.finding.remedy == finding.remedy;
        });
    }

    [[nodiscard]] RepairOutcome apply(const Diagnosed& finding)
    {
        RepairOutcome outcome{.finding = finding};
        if (!options.yes && answer) {
            answer = ask(finding.subject + ": " + finding.text + "\n  " + finding.remedy + "\nDo that?",
                         options.patience());
        }
        if (!answer.value_or(false)) {
            outcome.problem = answer ? "" : "no answer in time";
            return outcome;
        }
        for (const Repair& step : finding.repairs) {
            outcome.problem = carryOut(machine.rootDirectory(), step);
            if (!outcome.problem.empty()) {
                return outcome;
            }
        }
        outcome.done = true;
        return outcome;
    }

    const Machine& machine;
    const Options& options;
    std::optional<bool> answer = true; ///< the last; who does not answer one question is not asked another
    std::vector<RepairOutcome> outcomes;
};

} // namespace

std::vector<RepairOutcome> repair(const Machine& machine, const Options& options, Diagnosis& diagnosis)
{
    RepairShop shop(machine, options);
    for (int round = 0; round < MOST_ROUNDS && shop.runRound(diagnosis); ++round) {
        diagnosis = examine(machine);
    }
    return shop.take();
}

} // namespace Zonectl
