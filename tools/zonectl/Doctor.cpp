#include "Doctor.h"

#include "BusClient.h"
#include "Failure.h"
#include "Labels.h"
#include "LxcLibrary.h"
#include "Names.h"
#include "ZoneWords.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <unistd.h>

namespace Zonectl {

namespace {

constexpr std::chrono::seconds BUS_PATIENCE(5);

/// Whether the daemon's liblxc can be asked: only root sees root's containers, and a library of another
/// system is not run.
[[nodiscard]] bool libraryMayBeAsked(const Machine& machine)
{
    return machine.live() && geteuid() == 0;
}

[[nodiscard]] std::string joined(const std::vector<std::string>& parts, const char* separator)
{
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : separator) + part;
    }
    return text;
}

[[nodiscard]] std::string firstLabelCommand(const LabelRule& rule)
{
    return "setfattr -n security.SMACK64 -v '" + rule.wanted + "' " + rule.path;
}

/// What helps against a bad verdict.
[[nodiscard]] std::string remedyFor(const LabelRule& rule, LabelVerdict verdict, bool smackKernel)
{
    switch (verdict) {
    case LabelVerdict::Missing:
        // With Smack the daemon makes and labels the last component itself.
        if (smackKernel || !rule.enforced) {
            return "mkdir -p " + (rule.creatable.empty() ? rule.path : rule.creatable);
        }
        [[fallthrough]];
    case LabelVerdict::NoLabel:
        return "mkdir -p " + rule.path + " && " + firstLabelCommand(rule);
    case LabelVerdict::ReadOnly:
        return "give " + rule.path + " its label where the image is made";
    default:
        return {};
    }
}

class Examination
{
public:
    explicit Examination(const Machine& examined) : machine(examined), smackKernel(kernelHasSmack()) {}

    [[nodiscard]] Diagnosis run()
    {
        using Check = void (Examination::*)();
        // Those in the second group ask the running system and make no sense for another root.
        constexpr std::array<Check, 6> OF_THE_FILES = {
            &Examination::checkLibrary,    &Examination::checkLauncher,   &Examination::checkDirectories,
            &Examination::checkOtherUnits, &Examination::checkContainers, &Examination::checkAutomaticStart,
        };
        constexpr std::array<Check, 4> OF_THE_MACHINE = {
            &Examination::checkRoot,
            &Examination::checkSmack,
            &Examination::checkCgroups,
            &Examination::checkBus,
        };
        if (machine.live()) {
            for (const Check check : OF_THE_MACHINE) {
                (this->*check)();
            }
        }
        for (const Check check : OF_THE_FILES) {
            (this->*check)();
        }
        return std::move(diagnosis);
    }

private:
    void add(Severity severity, std::string subject, std::string text, std::string remedy = "")
    {
        diagnosis.findings.push_back({std::move(subject), severity, std::move(text), std::move(remedy)});
    }

    void checkRoot()
    {
        if (geteuid() == 0) {
            add(Severity::Ok, "user", "root");
        } else {
            add(Severity::Problem, "user", "not root: what only root can see is judged by the files alone",
                "run 'zonectl doctor' as root");
        }
    }

    void checkSmack()
    {
        if (smackKernel) {
            add(Severity::Ok, "smack", "the kernel enforces labels");
        } else {
            add(Severity::Note, "smack",
                "not in this kernel: labels are kept and not enforced, and a path has none until it is given "
                "one");
        }
    }

    void checkCgroups()
    {
        std::vector<std::string> found;
        for (const std::string& list : controllerLists(machine.read("/proc/self/cgroup").value_or(""))) {
            if (machine.isDirectory(std::string(Names::CGROUP_DIRECTORY) + "/" + list)) {
                found.push_back(list);
            }
        }
        if (found.empty()) {
            add(Severity::Warning, "cgroups",
                "no version 1 controller is mounted below /sys/fs/cgroup: what a dead zone leaves behind is "
                "not cleaned up",
                "boot with systemd.unified_cgroup_hierarchy=0");
        } else {
            add(Severity::Ok, "cgroups", "version 1: " + joined(found, " "));
        }
    }

    void checkBus()
    {
        try {
            const bool running = BusClient(BUS_PATIENCE).daemonPresent();
            add(running ? Severity::Ok : Severity::Note, "bus",
                running ? "the zone manager is on the bus" : "reachable; the zone manager is not on it");
        } catch (const Failure& failure) {
            add(Severity::Problem, "bus", failure.what(), "start dbus.service");
        }
    }

    void checkLibrary()
    {
        const std::string path = Names::LXC_LIBRARY;
        if (!machine.exists(path)) {
            add(Severity::Problem, "liblxc", path + " is missing: the daemon cannot even be loaded",
                "install the package, or put the device's liblxc there");
            return;
        }
        if (!libraryMayBeAsked(machine)) {
            add(Severity::Note, "liblxc",
                path + " is there; it is tried only on the running machine, by root");
            return;
        }
        const LxcLibrary library(path);
        if (!library.error().empty()) {
            add(Severity::Problem, "liblxc", "cannot be loaded: " + library.error());
        } else if (!library.missing().empty()) {
            add(Severity::Problem, "liblxc", path + " lacks " + joined(library.missing(), ", "),
                "install the liblxc that comes with the zone manager");
        } else if (const std::string error = library.tryMonitorFunctions(configuredLxcPath(machine));
                   !error.empty()) {
            add(Severity::Problem, "liblxc", path + ": " + error);
        } else {
            add(Severity::Ok, "liblxc", path + " has all that is needed");
        }
    }

    void checkLauncher()
    {
        const std::string path = Names::LAUNCHER;
        if (!machine.exists(path)) {
            add(Severity::Problem, "launcher", path + " is missing: no zone can be started or stopped",
                "install the package");
        } else if (!machine.isProgram(path)) {
            add(Severity::Problem, "launcher", path + " is not executable", "chmod 755 " + path);
        } else {
            add(Severity::Ok, "launcher", path);
        }
    }

    void checkDirectories()
    {
        for (const LabelRule& rule : daemonRules()) {
            const PathFacts facts = factsAbout(rule, machine);
            const LabelVerdict verdict = judge(rule, facts, smackKernel);
            const bool fatal = rule.consequence == Consequence::StartFails;
            if (isGood(verdict)) {
                add(Severity::Ok, rule.path, std::string(verdictText(verdict)));
            } else {
                add(fatal ? Severity::Problem : Severity::Warning, rule.path,
                    std::string(verdictText(verdict)) +
                        (fatal ? ": the daemon ends at start-up" : ": the daemon logs a failure"),
                    remedyFor(rule, verdict, smackKernel));
            }
        }
    }

    /// The distribution's own units compete with the daemon for the containers and for their messages.
    void checkOtherUnits()
    {
        const std::string wanted = "/etc/systemd/system/multi-user.target.wants/";
        if (machine.entryExists(wanted + "lxc.service")) {
            add(Severity::Warning, "lxc.service",
                "is enabled: it starts the same containers at boot, all at once, and stops them at its end",
                "systemctl disable lxc.service");
        }
        if (machine.entryExists(wanted + "lxc-monitord.service")) {
            add(Severity::Warning, "lxc-monitord.service",
                "is enabled: whichever comes first takes the state messages; the daemon ends when it is "
                "second",
                "systemctl disable --now lxc-monitord.service");
        }
    }

    void checkContainers()
    {
        const ContainerListing listing = listContainers(machine);
        diagnosis.listed = listing.containers.size();
        checkWritableBase(listing.lxcPath);
        for (const std::string& name : listing.unloadable) {
            add(Severity::Warning, name,
                "liblxc refuses its configuration: the daemon never sees this container",
                "lxc-info -n " + name + " tells which line is wrong");
        }
        for (const ContainerInfo& container : listing.containers) {
            checkContainer(listing.lxcPath, container);
        }
    }

    /// Every writable directory is made below this one, and only its last component.
    void checkWritableBase(const std::string& lxcPath)
    {
        if (lxcPath.empty()) {
            add(Severity::Problem, "lxc.lxcpath", "liblxc names no path: the daemon ends at start-up");
            return;
        }
        const std::string base = "/opt" + lxcPath;
        if (machine.isDirectory(base)) {
            add(Severity::Ok, base, "exists");
        } else {
            add(Severity::Problem, base,
                "is missing: the daemon does not make it, and refuses every zone "
                "whose directories are not there yet",
                "mkdir -p " + base);
        }
    }

    void checkContainer(const std::string& lxcPath, const ContainerInfo& container)
    {
        std::vector<std::string> reasons = refusalReasons(machine, lxcPath, container, smackKernel);
        if (!reasons.empty()) {
            add(Severity::Problem, container.name, "is refused: " + joined(reasons, "; "),
                labelRemedies(lxcPath, container));
            diagnosis.refused.push_back({container.name, std::move(reasons)});
            return;
        }
        add(Severity::Ok, container.name,
            std::string(kindWord(container.kind)) + (container.autoStart ? ", starts automatically" : ""));
        if (!machine.exists(container.rootfsPath)) {
            add(Severity::Warning, container.name,
                "its root file system " + container.rootfsPath + " is not there (yet)");
        }
        const std::string payload = "lxc.payload/" + container.name;
        if (container.payloadCgroup != payload) {
            add(Severity::Warning, container.name,
                "what it leaves behind when it dies is not found in its control groups",
                "lxc.cgroup.dir.container = " + payload + " and lxc.cgroup.dir.monitor = lxc.monitor/" +
                    container.name);
        }
    }

    [[nodiscard]] std::string labelRemedies(const std::string& lxcPath, const ContainerInfo& container) const
    {
        if (container.kind == ZUP::ZONE_TYPE_NONE) {
            return "a line 'zone.container_type = isolation' (or hybrid, or protection) in " + lxcPath + "/" +
                   container.name + "/config";
        }
        std::vector<std::string> remedies;
        for (const LabelRule& rule : zoneRules(lxcPath, container)) {
            std::string remedy =
                remedyFor(rule, judge(rule, factsAbout(rule, machine), smackKernel), smackKernel);
            if (!remedy.empty() && std::find(remedies.begin(), remedies.end(), remedy) == remedies.end()) {
                remedies.push_back(std::move(remedy));
            }
        }
        return joined(remedies, "; ");
    }

    void checkAutomaticStart()
    {
        if (diagnosis.listed == 0) {
            add(Severity::Problem, "containers", "none is defined: the daemon ends at start-up",
                "lxc-create, then a line 'zone.container_type = ...' in its configuration");
        } else if (diagnosis.refused.size() == diagnosis.listed) {
            add(Severity::Problem, "containers", "all are refused: the daemon ends at start-up");
        } else if (diagnosis.automaticStartBlocked()) {
            add(Severity::Problem, "automatic start",
                "nothing starts automatically: the daemon waits for as many zones as containers are listed");
        } else {
            add(Severity::Ok, "automatic start", "every listed container becomes a zone");
        }
    }

    const Machine& machine;
    bool smackKernel;
    Diagnosis diagnosis;
};

} // namespace

bool Diagnosis::hasProblems() const
{
    return anyProblem(findings);
}

std::vector<std::string> refusalReasons(const Machine& machine, const std::string& lxcPath,
                                        const ContainerInfo& container, bool smackKernel)
{
    std::vector<std::string> reasons;
    if (container.kind == ZUP::ZONE_TYPE_NONE) {
        reasons.emplace_back("its configuration names no valid kind (zone.container_type)");
    }
    for (const LabelRule& rule : zoneRules(lxcPath, container)) {
        const LabelVerdict verdict = judge(rule, factsAbout(rule, machine), smackKernel);
        if (!isGood(verdict)) {
            reasons.push_back(rule.path + ": " + std::string(verdictText(verdict)));
        }
    }
    if (container.rootfsPath.empty()) {
        reasons.emplace_back("its configuration names no lxc.rootfs.path");
    }
    return reasons;
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
    return Examination(machine).run();
}

} // namespace Zonectl
