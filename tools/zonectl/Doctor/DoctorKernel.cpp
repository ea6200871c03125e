#include "Daemon/Names.h"
#include "Device/ControlGroups.h"
#include "Doctor/Examination.h"

#include <unistd.h>

namespace Zonectl {

namespace {

[[nodiscard]] std::string joined(const std::vector<std::string>& parts)
{
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : " ") + part;
    }
    return text;
}

/// Whether the hierarchy is one in which the daemon looks for what a dead zone has left behind.
[[nodiscard]] bool isCleanedUp(const NestedHierarchy& hierarchy)
{
    return !hierarchy.controllers.empty() && hierarchy.controllers.find('=') == std::string::npos &&
           hierarchy.mount.starts_with(std::string(Names::CGROUP_DIRECTORY) + "/");
}

/// Tells of the controllers in which LXC makes its groups where the daemon's clean-up does not look. Returns
/// whether there are none.
// cppcheck-suppress constParameter; it does not see through the designated initialisers of add()
[[nodiscard]] bool checkNesting(Examination& examination)
{
    std::vector<std::string> groups;
    std::vector<std::string> mounts;
    for (const NestedHierarchy& hierarchy : nestedHierarchies(examination.machine)) {
        if (isCleanedUp(hierarchy)) {
            groups.push_back(hierarchy.group);
            mounts.push_back(shellWord(hierarchy.mount));
        }
    }
    if (groups.empty()) {
        return true;
    }
    examination.add(
        {.id = FindingIds::CGROUPS_NESTED,
         .subject = "cgroups",
         .severity = Severity::Warning,
         .text =
             "process 1 is in " + joined(groups) +
             ", so that LXC makes its groups below that: what a dead zone leaves there is not cleaned up, "
             "and then keeps it from starting (File exists)",
         .remedy = "for top in " + joined(mounts) +
                   "; do echo 1 >\"$top/cgroup.procs\"; done # while no zone runs"});
    return false;
}

} // namespace

void checkUser(Examination& examination)
{
    if (geteuid() == 0) {
        examination.addOk(FindingIds::USER, "user", "root");
    } else {
        examination.add({.id = FindingIds::USER_NOT_ROOT,
                         .subject = "user",
                         .severity = Severity::Problem,
                         .text = "not root: what only root can see is judged by the files alone",
                         .remedy = "sudo zonectl doctor"});
    }
}

void checkSmack(Examination& examination)
{
    if (examination.smackKernel) {
        examination.addOk(FindingIds::SMACK, "smack", "the kernel enforces labels");
    } else {
        examination.add({.id = FindingIds::SMACK_INACTIVE,
                         .subject = "smack",
                         .severity = Severity::Note,
                         .text = "not in this kernel: labels are kept and not enforced, and a path has none "
                                 "until it is given one"});
    }
}

void checkCgroups(Examination& examination)
{
    std::vector<std::string> found;
    for (const std::string& list :
         controllerLists(examination.machine.read("/proc/self/cgroup").value_or(""))) {
        if (examination.machine.isDirectory(std::string(Names::CGROUP_DIRECTORY) + "/" + list)) {
            found.push_back(list);
        }
    }
    if (found.empty()) {
        examination.add({.id = FindingIds::CGROUPS_NONE,
                         .subject = "cgroups",
                         .severity = Severity::Warning,
                         .text = "no version 1 controller is mounted below /sys/fs/cgroup: what a dead zone "
                                 "leaves behind is not cleaned up",
                         .remedy = examination.systemdRuns()
                                       ? "boot with systemd.unified_cgroup_hierarchy=0"
                                       : "let the boot mount the version 1 controllers there, as "
                                         "/sys/fs/cgroup/memory"});
    } else if (checkNesting(examination)) {
        examination.addOk(FindingIds::CGROUPS, "cgroups", "version 1: " + joined(found));
    }
}

std::vector<std::string> controllerLists(std::string_view cgroupText)
{
    std::vector<std::string> lists;
    while (!cgroupText.empty()) {
        const std::size_t end = cgroupText.find('\n');
        const std::string_view line = cgroupText.substr(0, end);
        cgroupText = end == std::string_view::npos ? std::string_view() : cgroupText.substr(end + 1);
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
        if (second == std::string_view::npos || second == first + 1 ||
            line.find('=') != std::string_view::npos) {
            continue;
        }
        lists.emplace_back(line.substr(first + 1, second - first - 1));
    }
    return lists;
}

} // namespace Zonectl
