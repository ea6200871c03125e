#pragma once

#include "Doctor/Doctor.h"
#include "Doctor/FindingIds.h"
#include "Doctor/Labels.h"

#include <optional>
#include <sys/types.h>

namespace Zonectl {

/// What the doctor's checks work with: what they look at, and what they have found so far.
struct Examination
{
    explicit Examination(const Machine& examined);

    const Machine& machine;
    const bool smackKernel;
    const ContainerListing listing;
    std::optional<pid_t> daemon{}; ///< the daemon that is on the bus
    Diagnosis diagnosis;

    /// Adds a finding. With repairs and without a remedy, the repairs' command is the remedy.
    void add(Diagnosed finding);
    void addOk(std::string_view id, std::string subject, std::string text);

    /// The system's path as a word of a shell command.
    [[nodiscard]] std::string word(const std::string& path) const;

    /// The command with which root sees what this user does not.
    [[nodiscard]] std::string asRoot() const;

    /// Whether systemctl can start and end what runs on the machine.
    [[nodiscard]] bool systemdRuns() const;
};

/// Whether the daemon's liblxc can be asked: only root sees root's containers, and a library of another
/// system is not run.
[[nodiscard]] bool libraryMayBeAsked(const Machine& machine);

/// What gives the rule's path what it lacks, in order; empty when nothing made here does.
[[nodiscard]] std::vector<Repair> repairsOf(const LabelRule& rule, LabelVerdict verdict, bool smackKernel);

/// The addition of lines to a container's configuration.
[[nodiscard]] Repair appendedTo(const std::string& config, std::string lines);

/// The command that makes the file system of the path writable.
[[nodiscard]] std::string remountCommand(const Examination& examination, const std::string& path);

/// Whether the daemon takes the container as a zone; what keeps it from doing so is told.
[[nodiscard]] bool checkRefusals(Examination& examination, const ContainerInfo& container);
/// Whether the container's configuration lets it be started and cleaned up; what does not is told.
[[nodiscard]] bool checkSettings(Examination& examination, const ContainerInfo& container);
/// Whether the daemon that runs, if one does, has all of the containers that it would take now; what differs
/// is told.
[[nodiscard]] bool checkZonesOfDaemon(Examination& examination);

void checkUser(Examination& examination);
void checkSmack(Examination& examination);
void checkCgroups(Examination& examination);
void checkBus(Examination& examination);
void checkBusPolicy(Examination& examination);
void checkOtherUnits(Examination& examination);
void checkLibrary(Examination& examination);
void checkLauncher(Examination& examination);
void checkRuntimeDirectories(Examination& examination);
void checkTemplateDirectory(Examination& examination);
void checkWritableBase(Examination& examination);
void checkLock(Examination& examination);
void checkFifo(Examination& examination);
void checkSockets(Examination& examination);
void checkContainers(Examination& examination);

} // namespace Zonectl
