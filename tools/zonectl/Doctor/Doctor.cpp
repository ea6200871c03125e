#include "Doctor/Doctor.h"

#include "Daemon/Names.h"
#include "Device/LxcLibrary.h"
#include "Doctor/Examination.h"

#include <algorithm>
#include <array>
#include <unistd.h>

namespace Zonectl {

namespace {

enum class AppliesTo
{
    EverySystem,
    RunningMachine, ///< asks the running system, and makes no sense for another root
};

struct CheckRow
{
    void (*check)(Examination& examination);
    AppliesTo applies;
};

/// From the kernel up to the zones: what comes first is what later things rest on.
constexpr std::array CHECKS = {
    CheckRow{checkUser, AppliesTo::RunningMachine},
    CheckRow{checkSmack, AppliesTo::RunningMachine},
    CheckRow{checkCgroups, AppliesTo::RunningMachine},
    CheckRow{checkBus, AppliesTo::RunningMachine},
    CheckRow{checkBusPolicy, AppliesTo::EverySystem},
    CheckRow{checkOtherUnits, AppliesTo::EverySystem},
    CheckRow{checkLibrary, AppliesTo::EverySystem},
    CheckRow{checkLauncher, AppliesTo::EverySystem},
    CheckRow{checkRuntimeDirectories, AppliesTo::EverySystem},
    CheckRow{checkTemplateDirectory, AppliesTo::EverySystem},
    CheckRow{checkLock, AppliesTo::RunningMachine},
    CheckRow{checkFifo, AppliesTo::RunningMachine},
    CheckRow{checkSockets, AppliesTo::RunningMachine},
    CheckRow{checkWritableBase, AppliesTo::EverySystem},
    CheckRow{checkContainers, AppliesTo::EverySystem},
};

} // namespace

bool Diagnosis::hasProblems() const
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const Diagnosed& finding) { return finding.severity == Severity::Problem; });
}

Examination::Examination(const Machine& examined)
    : machine(examined), smackKernel(kernelHasSmack()), listing(listContainers(examined))
{
    diagnosis.listed = listing.containers.size() + listing.unreadable.size();
    diagnosis.unjudged = listing.unreadable.size();
}

void Examination::add(Diagnosed finding)
{
    if (finding.remedy.empty()) {
        finding.remedy = shellCommand(machine.rootDirectory(), finding.repairs);
    }
    diagnosis.findings.push_back(std::move(finding));
}

void Examination::addOk(std::string_view id, std::string subject, std::string text)
{
    add({.id = id, .subject = std::move(subject), .severity = Severity::Ok, .text = std::move(text)});
}

std::string Examination::word(const std::string& path) const
{
    return shellWord(machine.rootDirectory() + path);
}

std::string Examination::asRoot() const
{
    return "sudo zonectl doctor" + (machine.live() ? "" : " --root " + shellWord(machine.rootDirectory()));
}

bool Examination::systemdRuns() const
{
    return machine.live() && machine.isDirectory("/run/systemd/system");
}

bool libraryMayBeAsked(const Machine& machine)
{
    return machine.live() && geteuid() == 0;
}

Repair appendedTo(const std::string& config, std::string lines)
{
    return {.kind = Repair::Kind::AppendLines, .path = config, .value = std::move(lines)};
}

ContainerListing listContainers(const Machine& machine)
{
    if (libraryMayBeAsked(machine)) {
        const LxcLibrary library(Names::LXC_LIBRARY);
        if (library.usable()) {
            return library.list(machine);
        }
    }
    return listFromFiles(machine);
}

Diagnosis examine(const Machine& machine)
{
    Examination examination(machine);
    for (const CheckRow& row : CHECKS) {
        if (machine.live() || row.applies == AppliesTo::EverySystem) {
            row.check(examination);
        }
    }
    return std::move(examination.diagnosis);
}

} // namespace Zonectl
