#include "Daemon/Names.h"
#include "Doctor/Examination.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Zonectl {

namespace {

/// What the daemon does without a directory as it should be.
struct Cost
{
    Severity severity;
    const char* text;
};
constexpr Cost ENDS = {Severity::Problem, ": the daemon ends at start-up"};
constexpr Cost LOGS = {Severity::Warning, ": the daemon logs a failure"};

[[nodiscard]] const Cost& costOf(const LabelRule& rule)
{
    return rule.consequence == Consequence::StartFails ? ENDS : LOGS;
}

/// The path as the daemon's messages have it.
[[nodiscard]] std::string asLogged(const std::string& path)
{
    return (path.starts_with("/run/") ? "/var" : "") + path;
}

[[nodiscard]] std::string labelMessage(const LabelRule& rule, const char* error)
{
    return "Failed to get smack label of \"" + asLogged(rule.path) + "\"(\"" + rule.wanted + "\") - \"" +
           error + "\"";
}

/// A file, or whatever else, in the place of a directory. It is moved out of the way.
[[nodiscard]] bool checkIsDirectory(Examination& examination, const std::string& path, const Cost& cost,
                                    std::vector<Repair> afterwards)
{
    if (!examination.machine.entryExists(path) || examination.machine.isDirectory(path)) {
        return true;
    }
    std::vector<Repair> repairs = {{.kind = Repair::Kind::MoveAside, .path = path},
                                   {.kind = Repair::Kind::MakeDirectory, .path = path}};
    repairs.insert(repairs.end(), afterwards.begin(), afterwards.end());
    examination.add({.id = FindingIds::DIRECTORY_NONE,
                     .subject = path,
                     .severity = cost.severity,
                     .text = std::string("is not a directory") + cost.text,
                     .repairs = std::move(repairs)});
    return false;
}

[[nodiscard]] bool checkFileSystem(Examination& examination, const LabelRule& rule)
{
    if (!examination.machine.cannotHoldLabels(rule.path)) {
        return true;
    }
    examination.add({.id = FindingIds::DIRECTORY_ATTRIBUTES,
                     .subject = rule.path,
                     .severity = costOf(rule).severity,
                     .text = "lies on a file system without extended attributes of the security class" +
                             std::string(costOf(rule).text),
                     .remedy = "mount one with them there, as ext4 or a tmpfs with CONFIG_TMPFS_XATTR",
                     .message = labelMessage(rule, "Operation not supported")});
    return false;
}

void addBadVerdict(Examination& examination, const LabelRule& rule, LabelVerdict verdict)
{
    Diagnosed finding{.id = FindingIds::DIRECTORY_LABEL,
                      .subject = rule.path,
                      .severity = costOf(rule).severity,
                      .text = std::string(verdictText(verdict)) + costOf(rule).text,
                      .message = labelMessage(rule, "No data available"),
                      .repairs = repairsOf(rule, verdict, examination.smackKernel)};
    if (verdict == LabelVerdict::ReadOnly) {
        finding.id = FindingIds::DIRECTORY_READ_ONLY;
        finding.remedy = remountCommand(examination, rule.path);
        finding.message.clear();
    } else if (!examination.machine.exists(rule.path)) {
        finding.id = FindingIds::DIRECTORY_MISSING;
    }
    examination.add(std::move(finding));
}

/// Whether this user sees as much of the path as it takes to judge it; what cannot be judged is told.
[[nodiscard]] bool checkSeen(Examination& examination, const std::string& path)
{
    if (!examination.machine.hidden(path)) {
        return true;
    }
    examination.add({.id = FindingIds::DIRECTORY_HIDDEN,
                     .subject = path,
                     .severity = Severity::Note,
                     .text = "cannot be seen by this user, and cannot be judged",
                     .remedy = examination.asRoot()});
    return false;
}

/// Whether the rule's path is as it should be; what is not is told.
[[nodiscard]] bool checkRule(Examination& examination, const LabelRule& rule)
{
    if (!checkSeen(examination, rule.path)) {
        return false;
    }
    const Repair firstLabel{.kind = Repair::Kind::SetLabel, .path = rule.path, .value = rule.wanted};
    if (!checkIsDirectory(examination, rule.path, costOf(rule), {firstLabel}) ||
        !checkFileSystem(examination, rule)) {
        return false;
    }
    const LabelVerdict verdict = judge(rule, factsAbout(rule, examination.machine), examination.smackKernel);
    if (!isGood(verdict)) {
        addBadVerdict(examination, rule, verdict);
        return false;
    }
    return true;
}

/// Whether the daemon can make its lock, the FIFO and LXC its own files there.
[[nodiscard]] bool checkRoom(Examination& examination, const std::string& path)
{
    const auto space = examination.machine.freeSpace(path);
    if (examination.machine.onReadOnlyMount(path)) {
        examination.add({.id = FindingIds::DIRECTORY_READ_ONLY,
                         .subject = path,
                         .severity = Severity::Problem,
                         .text = std::string("lies on a read-only mount") + ENDS.text,
                         .remedy = remountCommand(examination, path)});
        return false;
    }
    if (space && (space->bytes == 0 || space->files == 0U)) {
        examination.add(
            {.id = FindingIds::DIRECTORY_FULL,
             .subject = path,
             .severity = Severity::Problem,
             .text = "no space is left there for the lock, the FIFO and what LXC keeps there",
             .remedy = "df -h " + examination.word(path) + " && df -i " + examination.word(path)});
        return false;
    }
    return true;
}

/// Only root may change what lies there: who can replace a pid file has any process killed. An image is often
/// unpacked by somebody else, who owns its files then.
[[nodiscard]] bool checkProtection(Examination& examination, const std::string& path)
{
    const auto status = examination.machine.status(path);
    if (!status) {
        return true;
    }
    bool good = true;
    if (status->owner != 0 && geteuid() == 0) {
        examination.add({.id = FindingIds::DIRECTORY_OWNER,
                         .subject = path,
                         .severity = Severity::Problem,
                         .text = "belongs to user " + std::to_string(status->owner) + " and not to root",
                         .repairs = {{.kind = Repair::Kind::TakeOver, .path = path}}});
        good = false;
    }
    if ((status->mode & (S_IWGRP | S_IWOTH)) != 0) {
        examination.add({.id = FindingIds::DIRECTORY_MODE,
                         .subject = path,
                         .severity = Severity::Problem,
                         .text = "others than root may change what lies there",
                         .repairs = {{.kind = Repair::Kind::CloseToOthers, .path = path}}});
        good = false;
    }
    return good;
}

[[nodiscard]] LabelRule daemonRule(const std::string& path)
{
    for (const LabelRule& rule : daemonRules()) {
        if (rule.path == path) {
            return rule;
        }
    }
    return {};
}

/// A directory below the runtime directory, which the daemon or liblxc makes when it is not there.
[[nodiscard]] bool checkMadeDirectory(Examination& examination, const std::string& path)
{
    return checkIsDirectory(examination, path, ENDS, {}) && checkProtection(examination, path);
}

} // namespace

std::vector<Repair> repairsOf(const LabelRule& rule, LabelVerdict verdict, bool smackKernel)
{
    const Repair directory{
        .kind = Repair::Kind::MakeDirectory, .path = rule.path, .refusesLink = rule.inZone};
    switch (verdict) {
    case LabelVerdict::Missing:
        // With Smack the daemon makes and labels the last component itself.
        if (smackKernel || !rule.enforced) {
            return {{.kind = Repair::Kind::MakeDirectory,
                     .path = rule.creatable.empty() ? rule.path : rule.creatable}};
        }
        [[fallthrough]];
    case LabelVerdict::NoLabel:
        return {directory,
                {.kind = Repair::Kind::SetLabel,
                 .path = rule.path,
                 .value = rule.wanted,
                 .refusesLink = rule.inZone}};
    default:
        return {};
    }
}

std::string remountCommand(const Examination& examination, const std::string& path)
{
    return "mount -o remount,rw \"$(findmnt -n -o TARGET -T " + examination.word(path) + ")\"";
}

void checkRuntimeDirectories(Examination& examination)
{
    const std::string run = Names::RUN_DIRECTORY;
    bool good = checkRule(examination, daemonRule(run));
    if (!examination.machine.isDirectory(run)) {
        return;
    }
    good = checkRoom(examination, run) && good;
    good = checkProtection(examination, run) && good;
    if (good) {
        examination.addOk(FindingIds::DIRECTORY, run, "ok");
    }
    std::vector<std::string> below = {Names::LOCK_DIRECTORY, Names::PID_FILE_DIRECTORY};
    const std::string& lxcPath = examination.listing.lxcPath;
    for (std::size_t end = lxcPath.find('/', 1); lxcPath.size() > 1; end = lxcPath.find('/', end + 1)) {
        below.push_back(run + lxcPath.substr(0, end));
        if (end == std::string::npos) {
            break;
        }
    }
    for (const std::string& path : below) {
        if (examination.machine.entryExists(path) && checkMadeDirectory(examination, path)) {
            examination.addOk(FindingIds::DIRECTORY, path, "ok");
        }
    }
}

void checkTemplateDirectory(Examination& examination)
{
    const LabelRule rule = daemonRule(Names::SECURE_DATA_DIRECTORY);
    if (checkRule(examination, rule)) {
        examination.addOk(FindingIds::DIRECTORY, rule.path, "ok");
    }
}

void checkWritableBase(Examination& examination)
{
    const std::string& lxcPath = examination.listing.lxcPath;
    if (!examination.machine.isDirectory(lxcPath)) {
        return; // which the check of the containers tells
    }
    const std::string base = Names::WRITABLE_PREFIX + lxcPath;
    constexpr Cost REFUSES = {Severity::Problem,
                              ": every zone whose directories are not there yet is refused"};
    if (examination.machine.isDirectory(base)) {
        examination.addOk(FindingIds::DIRECTORY, base, "ok");
    } else if (checkSeen(examination, base) && checkIsDirectory(examination, base, REFUSES, {})) {
        examination.add({.id = FindingIds::DIRECTORY_MISSING,
                         .subject = base,
                         .severity = REFUSES.severity,
                         .text = "is missing, and the daemon does not make it" + std::string(REFUSES.text),
                         .message = "Failed to create the container path(" + base + "/" +
                                    (examination.listing.containers.empty()
                                         ? std::string("%s")
                                         : examination.listing.containers.front().name) +
                                    ") - \"No such file or directory\"",
                         .repairs = {{.kind = Repair::Kind::MakeDirectory, .path = base}}});
    }
}

} // namespace Zonectl
