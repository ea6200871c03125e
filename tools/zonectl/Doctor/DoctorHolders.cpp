#include "Daemon/Names.h"
#include "Device/Holders.h"
#include "Doctor/Examination.h"

namespace Zonectl {

namespace {

constexpr const char* MONITORD = "lxc-monitord";

/// The command that ends who holds what the daemon needs.
[[nodiscard]] std::string endCommand(const Holder& holder)
{
    if (holder.pid <= 0) {
        return "find it among the processes of containers that share the machine's network";
    }
    return "kill " + std::to_string(holder.pid);
}

struct SocketRow
{
    const char* subject;
    std::string address;
    std::string message;
};

void checkSocket(Examination& examination, const SocketRow& row)
{
    const auto holder = addressHolder(examination.machine, row.address);
    if (!holder) {
        examination.addOk(FindingIds::SOCKET, row.subject, "free");
    } else if (holder->isDaemon()) {
        examination.addOk(FindingIds::SOCKET, row.subject, "bound by " + holder->description());
    } else {
        examination.add(
            {.id = FindingIds::SOCKET_TAKEN,
             .subject = row.subject,
             .severity = Severity::Problem,
             .text = "the address is bound by " + holder->description() + ": the daemon ends at start-up",
             .remedy = endCommand(*holder),
             .message = row.message});
    }
}

} // namespace

void checkLock(Examination& examination)
{
    const auto holder = lockHolder(examination.machine, Names::INSTANCE_LOCK);
    if (!holder) {
        examination.addOk(FindingIds::LOCK, "lock", "free");
    } else if (holder->isDaemon()) {
        examination.addOk(FindingIds::LOCK, "lock", "held by " + holder->description());
    } else {
        examination.add(
            {.id = FindingIds::LOCK_HELD,
             .subject = "lock",
             .severity = Severity::Problem,
             .text = std::string(Names::INSTANCE_LOCK) + " is held by " + holder->description() +
                     ": the daemon ends at start-up",
             .remedy = endCommand(*holder),
             .message =
                 "Another instance of Zone Manager is running - \"Resource temporarily unavailable\""});
    }
}

void checkFifo(Examination& examination)
{
    const Machine& machine = examination.machine;
    const std::string& lxcPath = examination.listing.lxcPath;
    const std::string path = Names::RUN_DIRECTORY + lxcPath + "/" + Names::MONITOR_FIFO;
    const auto status = machine.status(path);
    if (machine.entryExists(path) && (!status || !status->isFifo)) {
        examination.add({.id = FindingIds::FIFO_NONE,
                         .subject = "fifo",
                         .severity = Severity::Problem,
                         .text = path + " is something else than a FIFO: no state message arrives",
                         .repairs = {{.kind = Repair::Kind::MoveAside, .path = path}}});
        return;
    }
    const auto holder = lockHolder(machine, path);
    if (!holder) {
        examination.addOk(FindingIds::FIFO, "fifo", "free");
    } else if (holder->isDaemon()) {
        examination.addOk(FindingIds::FIFO, "fifo", "read by " + holder->description());
    } else {
        const bool monitord = holder->program == MONITORD;
        examination.add(
            {.id = FindingIds::FIFO_HELD,
             .subject = "fifo",
             .severity = Severity::Problem,
             .text = path + " is read by " + holder->description() +
                     ", which takes the state messages: the daemon ends at start-up" +
                     (monitord ? "; lxc-monitord.service or lxc-monitor started it" : ""),
             .remedy = endCommand(*holder),
             .message = "[zone-monitor:%d] Failed to set flock for monitor fifo - " + lxcPath + " / [%d]"});
    }
}

void checkSockets(Examination& examination)
{
    const std::string& lxcPath = examination.listing.lxcPath;
    const std::string publisher = publisherAddress(lxcPath);
    checkSocket(examination,
                {"state socket", publisher,
                 "[zone-monitor:%d] Failed to open the unix domain socket for monitor publisher - " +
                     lxcPath + " / " + publisher});
    checkSocket(examination, {"init-pid socket", Names::RESPONSE_SOCKET, "[zone-monitor:%d] Failed to bind"});
}

} // namespace Zonectl
