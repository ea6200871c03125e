#include "Examination.h"
#include "Names.h"
#include "ZoneWords.h"

#include <algorithm>

namespace Zonectl {

namespace {

constexpr std::size_t LONGEST_PATH = 255; // that the daemon's clean-up looks at
constexpr const char* LXC_CONFIGURATION = "/etc/lxc/lxc.conf";

/// What the daemon writes while it looks at one zone begins so; the thread's number is known only then.
[[nodiscard]] std::string threadPrefix(const std::string& name)
{
    return "[" + name + ":%d] ";
}

/// One container, looked at the way the daemon does.
class ContainerCheck
{
public:
    ContainerCheck(Examination& wholeExamination, const ContainerInfo& checked)
        : examination(wholeExamination), container(checked),
          config(configPath(wholeExamination.listing.lxcPath, checked.name))
    {}

    void run()
    {
        checkKind();
        checkPaths();
        checkRootfs();
        if (!refusal.reasons.empty()) {
            examination.diagnosis.refused.push_back(std::move(refusal));
        }
        checkControlGroups();
        checkName();
        checkNetwork();
        checkAutoStart();
        if (good) {
            examination.addOk(FindingIds::CONTAINER, container.name,
                              std::string(kindWord(container.kind)) +
                                  (container.autoStart ? ", starts automatically" : ""));
        }
    }

private:
    void add(Diagnosed finding)
    {
        good = false;
        finding.subject = container.name;
        examination.add(std::move(finding));
    }

    /// Adds a reason for which the daemon refuses the container. It writes of the first and looks no further.
    void refuse(Diagnosed finding, std::string reason = "")
    {
        if (!refusal.reasons.empty()) {
            finding.message.clear();
        }
        refusal.name = container.name;
        refusal.reasons.push_back(reason.empty() ? finding.text : std::move(reason));
        finding.severity = Severity::Problem;
        finding.text = "is refused: " + finding.text;
        add(std::move(finding));
    }

    [[nodiscard]] Repair appended(std::string lines) const
    {
        return {.kind = Repair::Kind::AppendLines, .path = config, .value = std::move(lines)};
    }

    /// The command that adds lines, where somebody has to choose first.
    [[nodiscard]] std::string appendCommand(std::string lines) const
    {
        return shellCommand(examination.machine.rootDirectory(), {appended(std::move(lines))});
    }

    void checkKind()
    {
        if (container.kind != ZUP::ZONE_TYPE_NONE) {
            return;
        }
        if (container.kindIsUntold()) { // which is the library's fault, and told with it
            good = false;
            refusal = {container.name, {"liblxc does not tell its kind"}};
            return;
        }
        Diagnosed finding{.id = FindingIds::CONTAINER_NO_KIND,
                          .text = "its configuration names no valid kind (zone.container_type)",
                          .remedy = appendCommand("zone.container_type = hybrid\n") +
                                    " # or isolation, or protection",
                          .message = "Failed to create the zone object..." + container.name};
        if (!container.kindText.empty()) {
            finding.id = FindingIds::CONTAINER_BAD_KIND;
            finding.text =
                "its configuration names no valid kind: zone.container_type = " + container.kindText;
        } else if (kindFromText(container.includedKind) != ZUP::ZONE_TYPE_NONE) {
            finding.id = FindingIds::CONTAINER_INCLUDED_KIND;
            finding.text = "its kind stands in an included file, where it does not count";
            finding.remedy.clear();
            finding.repairs = {appended("zone.container_type = " + container.includedKind + "\n")};
        }
        refuse(std::move(finding));
    }

    void checkPaths()
    {
        const bool baseExists =
            examination.machine.isDirectory(Names::WRITABLE_PREFIX + examination.listing.lxcPath);
        for (const LabelRule& rule : zoneRules(examination.listing.lxcPath, container)) {
            const LabelVerdict verdict =
                judge(rule, factsAbout(rule, examination.machine), examination.smackKernel);
            if (isGood(verdict)) {
                continue;
            }
            const std::string reason = rule.path + ": " + std::string(verdictText(verdict));
            if (!rule.creatable.empty() && !baseExists) { // told with the directory that is missing
                good = false;
                refusal.name = container.name;
                refusal.reasons.push_back(reason);
            } else {
                refuse(badPath(rule, verdict), reason);
            }
        }
    }

    [[nodiscard]] Diagnosed badPath(const LabelRule& rule, LabelVerdict verdict) const
    {
        Diagnosed finding{.id = FindingIds::CONTAINER_LABEL,
                          .text = rule.path + ": " + std::string(verdictText(verdict)),
                          .repairs = repairsOf(rule, verdict, examination.smackKernel)};
        const std::string unlabelled =
            "Failed to get smack label of \"" + rule.path + "\"(\"" + rule.wanted + "\") - ";
        if (verdict == LabelVerdict::ReadOnly) {
            finding.id = FindingIds::CONTAINER_READ_ONLY;
            finding.remedy = remountCommand(examination, rule.path);
            finding.message = rule.creatable.empty() ? threadPrefix(container.name) +
                                                           "This is RO directory(" + rule.path + ")..."
                                                     : "";
        } else if (examination.machine.cannotHoldLabels(rule.path)) {
            finding.id = FindingIds::CONTAINER_ATTRIBUTES;
            finding.text = rule.path + ": its file system holds no extended attributes";
            finding.remedy = "mount one with them there, as ext4 or a tmpfs with CONFIG_TMPFS_XATTR";
            finding.message = unlabelled + "\"Operation not supported\"";
            finding.repairs.clear();
        } else if (rule.enforced) {
            finding.message = unlabelled + "\"No data available\"";
        } else {
            finding.id = FindingIds::CONTAINER_PATH;
        }
        return finding;
    }

    void checkRootfs()
    {
        const std::string usual = examination.listing.lxcPath + "/" + container.name + "/rootfs";
        const bool usualExists = examination.machine.isDirectory(usual);
        if (container.rootfsPath.empty()) {
            Diagnosed finding{.id = FindingIds::CONTAINER_NO_ROOTFS,
                              .text = "its configuration names no lxc.rootfs.path",
                              .message = "Failed to get \"lxc.rootfs\" value..." + container.name};
            if (usualExists) {
                finding.repairs = {appended("lxc.rootfs.path = dir:" + usual + "\n")};
            } else {
                finding.remedy = "a line 'lxc.rootfs.path = dir:DIRECTORY' in " + config;
            }
            refuse(std::move(finding));
        } else if (container.rootfsPath.starts_with('/') &&
                   !examination.machine.exists(container.rootfsPath)) {
            add({.id = FindingIds::CONTAINER_ROOTFS,
                 .severity = container.autoStart ? Severity::Problem : Severity::Warning,
                 .text = "its root file system " + container.rootfsPath +
                         " is not there (yet): it cannot start" +
                         (container.autoStart ? ", and holds up the automatic start of those behind it" : ""),
                 .remedy = usualExists ? appendCommand("lxc.rootfs.path = dir:" + usual + "\n")
                                       : "put it there or mount it",
                 .message = "Failed to start " + container.name + "(thread name : " + container.name +
                            ", tid : %d)"});
        }
    }

    void checkControlGroups()
    {
        const std::string payload = "lxc.payload/" + container.name;
        const std::string monitor = "lxc.monitor/" + container.name;
        const std::string pivot = "lxc.pivot";
        std::string lines;
        if (container.payloadCgroup != payload) {
            lines += "lxc.cgroup.dir.container = " + payload + "\n";
        }
        if (container.monitorCgroup != monitor) {
            lines += "lxc.cgroup.dir.monitor = " + monitor + "\n";
        }
        if (container.pivotCgroup != pivot) {
            lines += "lxc.cgroup.dir.monitor.pivot = " + pivot + "\n";
        }
        if (!lines.empty()) {
            add({.id = FindingIds::CONTAINER_CGROUPS,
                 .severity = Severity::Warning,
                 .text =
                     "its control groups are not where the daemon looks for what it leaves behind when it "
                     "dies",
                 .repairs = {appended(std::move(lines))}});
        }
    }

    /// The clean-up passes over paths that are longer than it has room for.
    void checkName()
    {
        std::size_t longest = 0;
        for (const std::string& list :
             controllerLists(examination.machine.read("/proc/self/cgroup").value_or(""))) {
            const std::string path =
                std::string(Names::CGROUP_DIRECTORY) + "/" + list + "/lxc.payload/" + container.name;
            longest = std::max(longest, path.size());
        }
        if (longest > LONGEST_PATH) {
            add({.id = FindingIds::CONTAINER_NAME,
                 .severity = Severity::Warning,
                 .text =
                     "its name makes the paths of its control groups too long: what it leaves behind when "
                     "it dies is not found",
                 .remedy = "lxc-copy -R -n " + shellWord(container.name) + " -N SHORTER"});
        }
    }

    void checkNetwork()
    {
        if (container.sharesNetwork) {
            add({.id = FindingIds::CONTAINER_NETWORK,
                 .severity = Severity::Warning,
                 .text =
                     "shares the machine's network: its processes reach the daemon's abstract sockets, the "
                     "init-pid socket and LXC's own, and can bind them first",
                 .remedy = appendCommand("lxc.net.0.type = empty\n")});
        }
    }

    /// Stock liblxc refuses the whole configuration for such a value; a device's own may not.
    void checkAutoStart()
    {
        const std::string& value = container.autoStartText;
        if (!value.empty() && value != "0" && value != "1" && !container.autoStart) {
            add({.id = FindingIds::CONTAINER_AUTOSTART,
                 .severity = Severity::Warning,
                 .text = "is not started automatically: lxc.start.auto = " + value + " is not exactly 1",
                 .repairs = {{.kind = Repair::Kind::ReplaceKey,
                              .path = config,
                              .value = "lxc.start.auto = 1",
                              .key = "lxc.start.auto"}}});
        }
    }

    Examination& examination;
    const ContainerInfo& container;
    std::string config;
    RefusedContainer refusal{};
    bool good = true;
};

/// The line for which stock liblxc refuses the configuration, if it is one of the usual ones.
[[nodiscard]] std::vector<Repair> repairsOfUnloadable(const ContainerInfo& container,
                                                      const std::string& config)
{
    std::vector<Repair> repairs;
    const std::string& automatic = container.autoStartText;
    if (container.hasLibraryKey && container.kind != ZUP::ZONE_TYPE_NONE) {
        repairs.push_back({.kind = Repair::Kind::ReplaceKey,
                           .path = config,
                           .value = "zone.container_type = " + container.kindText,
                           .key = "lxc.container_type"});
    }
    if (!automatic.empty() && automatic != "0" && automatic != "1") {
        repairs.push_back({.kind = Repair::Kind::ReplaceKey,
                           .path = config,
                           .value = "lxc.start.auto = 1",
                           .key = "lxc.start.auto"});
    }
    return repairs;
}

void addUnloadable(Examination& examination, const std::string& name)
{
    const std::string& lxcPath = examination.listing.lxcPath;
    std::vector<Repair> repairs =
        repairsOfUnloadable(readContainer(examination.machine, lxcPath, name), configPath(lxcPath, name));
    examination.add({.id = FindingIds::CONTAINER_UNLOADABLE,
                     .subject = name,
                     .severity = Severity::Problem,
                     .text = "liblxc refuses its configuration: the daemon never sees this container",
                     .remedy = repairs.empty() ? "lxc-info -n " + shellWord(name) +
                                                     " -l error -o /dev/stderr # tells which line is wrong"
                                               : "",
                     .repairs = std::move(repairs)});
}

/// Whether there is a container path to look into.
[[nodiscard]] bool checkLxcPath(Examination& examination)
{
    const std::string& path = examination.listing.lxcPath;
    if (path.empty()) {
        examination.add({.id = FindingIds::LXC_PATH_NONE,
                         .subject = "lxc.lxcpath",
                         .severity = Severity::Problem,
                         .text = "liblxc names no path: the daemon ends at start-up",
                         .remedy = "a line 'lxc.lxcpath = /var/lib/lxc' in " + std::string(LXC_CONFIGURATION),
                         .message = "Failed to get lxc base path"});
        return false;
    }
    if (examination.machine.isDirectory(path)) {
        return true;
    }
    const bool usual = path == Names::DEFAULT_LXC_PATH;
    examination.add({.id = FindingIds::LXC_PATH_MISSING,
                     .subject = "lxc.lxcpath",
                     .severity = Severity::Problem,
                     .text = path + " is not there: the daemon ends at start-up",
                     .remedy = usual ? "define a container with lxc-create"
                                     : "sed -i" + std::string(BACKUP_SUFFIX) +
                                           " 's|^[[:blank:]]*lxc\\.lxcpath[[:blank:]]*=|# &|' " +
                                           examination.word(LXC_CONFIGURATION) + " # or put it there",
                     .message = "lxc containers (base path : " + path + ")"});
    return false;
}

} // namespace

void checkContainers(Examination& examination)
{
    if (!checkLxcPath(examination)) {
        return;
    }
    const ContainerListing& listing = examination.listing;
    for (const std::string& name : listing.unloadable) {
        addUnloadable(examination, name);
    }
    for (const ContainerInfo& container : listing.containers) {
        ContainerCheck(examination, container).run();
    }
    if (listing.containers.empty()) {
        examination.add(
            {.id = FindingIds::CONTAINERS_NONE,
             .subject = "containers",
             .severity = Severity::Problem,
             .text = "none is defined: the daemon ends at start-up",
             .remedy = "lxc-create -n NAME -t busybox, then a line 'zone.container_type = ...' in " +
                       configPath(listing.lxcPath, "NAME"),
             .message = "lxc containers (base path : " + listing.lxcPath + ")"});
    } else if (!examination.diagnosis.automaticStartBlocked()) {
        examination.addOk(FindingIds::AUTOSTART, "automatic start", "every listed container becomes a zone");
    }
}

} // namespace Zonectl
