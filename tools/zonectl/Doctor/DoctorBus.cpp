#include "CommandLine/Failure.h"
#include "Daemon/BusClient.h"
#include "Daemon/Names.h"
#include "Device/BusPolicy.h"
#include "Device/Holders.h"
#include "Doctor/Examination.h"

#include <array>

namespace Zonectl {

namespace {

constexpr std::chrono::seconds PATIENCE(5);
constexpr const char* POLICY_FILE = "/usr/share/dbus-1/system.d/org.ornix.zoneframework.conf";
constexpr const char* NAME_LOST = "Bus is lost(\"org.ornix.zoneframework\")";
constexpr const char* WANTED_UNITS = "/etc/systemd/system/multi-user.target.wants/";

struct UnitRow
{
    std::string_view id;
    const char* unit;
    const char* text;
    bool endsToo; ///< the remedy ends what runs of it
};

/// The distribution's own units, which compete with the daemon for the containers and for their messages.
constexpr std::array OTHER_UNITS = {
    UnitRow{FindingIds::UNIT_LXC, "lxc.service",
            "is enabled: it starts the same containers at boot, all at once, and stops them at its end",
            false},
    UnitRow{
        FindingIds::UNIT_MONITORD, "lxc-monitord.service",
        "is enabled: it takes the state messages when it comes first, and the daemon ends then. It and "
        "zone-manager.service end each other: where it is started later, as at each upgrade of the package "
        "lxc, systemd stops the zone manager and does not start it again",
        true},
};

/// The command after which the unit is started no more, and has ended where it must.
[[nodiscard]] std::string disabling(const Examination& examination, const UnitRow& row)
{
    if (!examination.machine.live()) {
        return "systemctl --root=" + shellWord(examination.machine.rootDirectory()) + " disable " + row.unit;
    }
    if (!examination.systemdRuns()) {
        return "rm " + std::string(WANTED_UNITS) + row.unit;
    }
    return std::string("systemctl disable ") + (row.endsToo ? "--now " : "") + row.unit;
}

void checkOwner(Examination& examination, const Holder& owner)
{
    if (owner.isDaemon() || owner.program.empty()) { // the program of a stranger may be hidden
        examination.daemon = owner.pid;
        examination.addOk(FindingIds::BUS, "bus", "the zone manager is on the bus");
    } else {
        examination.add({.id = FindingIds::BUS_NAME_TAKEN,
                         .subject = "bus",
                         .severity = Severity::Problem,
                         .text = std::string(Names::BUS_NAME) + " belongs to " + owner.description() +
                                 ": the daemon waits for it in the bus's queue, and no request reaches it",
                         .remedy = "kill " + std::to_string(owner.pid),
                         .message = NAME_LOST});
    }
}

} // namespace

void checkBus(Examination& examination)
{
    try {
        if (const auto owner = BusClient(PATIENCE).ownerPid()) {
            checkOwner(examination, processHolder(examination.machine, *owner));
        } else {
            examination.addOk(FindingIds::BUS, "bus", "reachable; the zone manager is not on it");
        }
    } catch (const Failure& failure) {
        examination.add(
            {.id = FindingIds::BUS_UNREACHABLE,
             .subject = "bus",
             .severity = Severity::Problem,
             .text = std::string(failure.what()) + "; the daemon runs without requests and signals",
             .remedy = examination.systemdRuns() ? "systemctl start dbus.service"
                                                 : "mkdir -p /run/dbus && dbus-daemon --system --fork",
             .message = NAME_LOST});
    }
}

void checkBusPolicy(Examination& examination)
{
    const BusPolicy policy = readBusPolicy(examination.machine);
    const std::string file = policy.files.empty() ? POLICY_FILE : policy.files.back();
    if (policy.files.empty()) {
        examination.add({.id = FindingIds::POLICY_MISSING,
                         .subject = "policy",
                         .severity = Severity::Problem,
                         .text = file + " is missing: the bus does not let the daemon have its name",
                         .remedy = "install the package",
                         .message = NAME_LOST});
    } else if (!policy.rootMayOwn) {
        examination.add({.id = FindingIds::POLICY_NO_OWNER,
                         .subject = "policy",
                         .severity = Severity::Problem,
                         .text = file + " does not let root own " + Names::BUS_NAME,
                         .remedy = "install the package",
                         .message = NAME_LOST});
    } else if (policy.othersMayCall) {
        examination.add({.id = FindingIds::POLICY_OPEN,
                         .subject = "policy",
                         .severity = Severity::Warning,
                         .text = file + " lets everybody start and stop zones",
                         .remedy = "install the package"});
    } else {
        examination.addOk(FindingIds::POLICY, "policy", file);
    }
}

void checkOtherUnits(Examination& examination)
{
    for (const UnitRow& row : OTHER_UNITS) {
        if (examination.machine.entryExists(std::string(WANTED_UNITS) + row.unit)) {
            examination.add({.id = row.id,
                             .subject = row.unit,
                             .severity = Severity::Warning,
                             .text = row.text,
                             .remedy = disabling(examination, row)});
        }
    }
}

} // namespace Zonectl
