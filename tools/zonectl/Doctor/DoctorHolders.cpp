#include "Daemon/Names.h"
#include "Device/Holders.h"
#include "Doctor/Examination.h"

#include <unistd.h>

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

enum class Standing
{
    Daemon,
    Unknown, ///< the program is hidden from this user
    Stranger,
};

[[nodiscard]] Standing standingOf(const Examination& examination, const Holder& holder)
{
    if (holder.isDaemon() || (examination.daemon && holder.pid == *examination.daemon)) {
        return Standing::Daemon;
    }
    // Root sees the descriptors of each process that has a number here: what it does not find is far away.
    const bool mayBeDaemon = holder.program.empty() && (holder.pid > 0 || geteuid() != 0);
    return mayBeDaemon ? Standing::Unknown : Standing::Stranger;
}

[[nodiscard]] std::string lookingCloser(const Examination& examination, const Holder& holder)
{
    return geteuid() == 0 ? "ps -fp " + std::to_string(holder.pid) : examination.asRoot();
}

/// Something that the daemon needs for itself.
struct Possession
{
    std::string_view id; ///< of the finding that all is well
    std::string subject;
    std::string held; ///< how it is held: "held", "bound"
};

/// Tells who has it: the daemon, somebody who cannot be made out, or a stranger, of whom `problem` tells.
void tellHolder(Examination& examination, const Possession& possession, const Holder& holder,
                Diagnosed problem)
{
    const std::string text = possession.held + " by " + holder.description();
    switch (standingOf(examination, holder)) {
    case Standing::Daemon:
        examination.addOk(possession.id, possession.subject, text);
        break;
    case Standing::Unknown:
        examination.add({.id = FindingIds::HOLDER_UNKNOWN,
                         .subject = possession.subject,
                         .severity = Severity::Note,
                         .text = text + ", which may be the zone manager",
                         .remedy = lookingCloser(examination, holder)});
        break;
    case Standing::Stranger:
        problem.subject = possession.subject;
        problem.severity = Severity::Problem;
        problem.remedy = endCommand(holder);
        examination.add(std::move(problem));
        break;
    }
}

/// Whether this user may see the file; that it may not is told.
[[nodiscard]] bool checkSeen(Examination& examination, const char* subject, const std::string& path)
{
    if (!examination.machine.hidden(path)) {
        return true;
    }
    examination.add({.id = FindingIds::HOLDER_UNKNOWN,
                     .subject = subject,
                     .severity = Severity::Note,
                     .text = path + " cannot be seen by this user, nor who holds it",
                     .remedy = examination.asRoot()});
    return false;
}

void checkSocket(Examination& examination, const char* subject, const std::string& address,
                 std::string message)
{
    const auto holder = addressHolder(examination.machine, address);
    if (!holder) {
        examination.addOk(FindingIds::SOCKET, subject, "free");
        return;
    }
    tellHolder(examination, {FindingIds::SOCKET, subject, "bound"}, *holder,
               {.id = FindingIds::SOCKET_TAKEN,
                .text = "the address is bound by " + holder->description() + ": the daemon ends at start-up",
                .message = std::move(message)});
}

} // namespace

void checkLock(Examination& examination)
{
    if (!checkSeen(examination, "lock", Names::INSTANCE_LOCK)) {
        return;
    }
    const auto holder = lockHolder(examination.machine, Names::INSTANCE_LOCK);
    if (!holder) {
        examination.addOk(FindingIds::LOCK, "lock", "free");
        return;
    }
    tellHolder(
        examination, {FindingIds::LOCK, "lock", "held"}, *holder,
        {.id = FindingIds::LOCK_HELD,
         .text = std::string(Names::INSTANCE_LOCK) + " is held by " + holder->description() +
                 ": the daemon ends at start-up",
         .message = "Another instance of Zone Manager is running - \"Resource temporarily unavailable\""});
}

void checkFifo(Examination& examination)
{
    const Machine& machine = examination.machine;
    const std::string& lxcPath = examination.listing.lxcPath;
    const std::string path = Names::RUN_DIRECTORY + lxcPath + "/" + Names::MONITOR_FIFO;
    if (!checkSeen(examination, "fifo", path)) {
        return;
    }
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
        return;
    }
    const bool monitord = holder->program == MONITORD;
    tellHolder(
        examination, {FindingIds::FIFO, "fifo", "read"}, *holder,
        {.id = FindingIds::FIFO_HELD,
         .text = path + " is read by " + holder->description() +
                 ", which takes the state messages: the daemon ends at start-up" +
                 (monitord ? "; lxc-monitord.service or lxc-monitor started it" : ""),
         .message = "[zone-monitor:%d] Failed to set flock for monitor fifo - " + lxcPath + " / [%d]"});
}

void checkSockets(Examination& examination)
{
    const std::string& lxcPath = examination.listing.lxcPath;
    const std::string publisher = publisherAddress(lxcPath);
    checkSocket(examination, "state socket", publisher,
                "[zone-monitor:%d] Failed to open the unix domain socket for monitor publisher - " + lxcPath +
                    " / " + publisher);
    checkSocket(examination, "init-pid socket", Names::RESPONSE_SOCKET, "[zone-monitor:%d] Failed to bind");
}

} // namespace Zonectl
