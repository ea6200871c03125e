#include "Daemon/Names.h"
#include "Device/ProgramFile.h"
#include "Doctor/Examination.h"

#include <sys/stat.h>

namespace Zonectl {

namespace {

constexpr const char* SUBJECT = "launcher";

/// What the daemon writes of a zone that it cannot start, where there is one to be started.
[[nodiscard]] std::string failedStart(const ContainerListing& listing)
{
    for (const ContainerInfo& container : listing.containers) {
        if (container.kind != ZUP::ZONE_TYPE_NONE) {
            return "Failed to start " + container.name + "(thread name : " + container.name + ", tid : %d)";
        }
    }
    return {};
}

// cppcheck-suppress constParameter; it does not see through the designated initialisers of add()
void addProblem(Examination& examination, std::string_view id, std::string text, std::string remedy,
                std::vector<Repair> repairs = {})
{
    examination.add({.id = id,
                     .subject = SUBJECT,
                     .severity = Severity::Problem,
                     .text = std::move(text) + ": no zone can be started or stopped",
                     .remedy = std::move(remedy),
                     .message = failedStart(examination.listing),
                     .repairs = std::move(repairs)});
}

/// Whoever can change it becomes root with the next start of a zone.
void checkProtection(Examination& examination, const std::string& path)
{
    const auto status = examination.machine.status(path);
    if (status && (status->mode & (S_IWGRP | S_IWOTH)) != 0) {
        examination.add({.id = FindingIds::LAUNCHER_UNPROTECTED,
                         .subject = SUBJECT,
                         .severity = Severity::Warning,
                         .text = path + " can be changed by others, and root runs it",
                         .repairs = {{.kind = Repair::Kind::CloseToOthers, .path = path}}});
    } else {
        examination.addOk(FindingIds::LAUNCHER, SUBJECT, path);
    }
}

void checkContent(Examination& examination, const std::string& path)
{
    const ProgramFault fault = inspectProgram(examination.machine, path);
    switch (fault.kind) {
    case ProgramFault::Kind::None:
        checkProtection(examination, path);
        break;
    case ProgramFault::Kind::Interpreter:
        addProblem(examination, FindingIds::LAUNCHER_INTERPRETER,
                   path + " needs " + fault.detail + ", which is not there", "install " + fault.detail);
        break;
    case ProgramFault::Kind::Format:
        addProblem(examination, FindingIds::LAUNCHER_FORMAT, path + " is " + fault.detail,
                   "install the package");
        break;
    }
}

} // namespace

void checkLauncher(Examination& examination)
{
    const Machine& machine = examination.machine;
    const std::string path = Names::LAUNCHER;
    if (machine.closed(path)) {
        examination.add({.id = FindingIds::LAUNCHER_UNREADABLE,
                         .subject = SUBJECT,
                         .severity = Severity::Note,
                         .text = path + " cannot be read by this user, and cannot be judged",
                         .remedy = examination.asRoot()});
    } else if (!machine.entryExists(path)) {
        addProblem(examination, FindingIds::LAUNCHER_MISSING, path + " is missing", "install the package");
    } else if (!machine.exists(path)) {
        addProblem(examination, FindingIds::LAUNCHER_DANGLING,
                   path + " is a link to " + machine.linkTarget(path) + ", which is not there",
                   "install the package");
    } else if (machine.isDirectory(path)) {
        addProblem(examination, FindingIds::LAUNCHER_FORMAT, path + " is a directory", "install the package");
    } else if (!machine.isProgram(path)) {
        addProblem(examination, FindingIds::LAUNCHER_NOT_EXECUTABLE, path + " is not executable", "",
                   {{.kind = Repair::Kind::MakeExecutable, .path = path}});
    } else {
        checkContent(examination, path);
    }
}

} // namespace Zonectl
