#include "Daemon/Names.h"
#include "Doctor/AutoStart.h"
#include "Doctor/Examination.h"

#include <algorithm>

namespace Zonectl {

namespace {

constexpr std::size_t LONGEST_PATH = 255; // that the daemon's clean-up looks at

/// Looks at what makes a zone work worse than it could.
class SettingsCheck
{
public:
    SettingsCheck(Examination& wholeExamination, const ContainerInfo& checked)
        : examination(wholeExamination), container(checked),
          config(configPath(wholeExamination.listing.lxcPath, checked.name))
    {}

    /// Returns whether all is well.
    [[nodiscard]] bool run()
    {
        checkRootfs();
        checkControlGroups();
        checkName();
        checkNetwork();
        checkAutoStart();
        return good;
    }

private:
    void add(Diagnosed finding)
    {
        good = false;
        finding.subject = container.name;
        examination.add(std::move(finding));
    }

    /// The command that adds a line, where somebody has to decide.
    [[nodiscard]] std::string appendCommand(std::string line) const
    {
        return shellCommand(examination.machine.rootDirectory(), {appendedTo(config, std::move(line))});
    }

    void checkRootfs()
    {
        const std::string usual = examination.listing.lxcPath + "/" + container.name + "/rootfs";
        const std::string& path = container.rootfsPath;
        if (!path.starts_with('/') || examination.machine.exists(path) || examination.machine.hidden(path)) {
            return; // in a form that only liblxc understands, or there, or for root alone to say
        }
        add({.id = FindingIds::CONTAINER_ROOTFS,
             .severity = container.autoStart ? Severity::Problem : Severity::Warning,
             .text = "its root file system " + path + " is not there (yet): it cannot start" +
                     (container.autoStart ? ", and holds up the automatic start of those behind it" : ""),
             .remedy = examination.machine.isDirectory(usual)
                           ? appendCommand("lxc.rootfs.path = dir:" + usual + "\n")
                           : "put it there or mount it",
             .message =
                 "Failed to start " + container.name + "(thread name : " + container.name + ", tid : %d)"});
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
                 .repairs = {appendedTo(config, std::move(lines))}});
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
        if (hasPlainAutoStart(container) || container.autoStart) {
            return;
        }
        std::vector<Repair> repairs = repairsOfAutoStart(container, config);
        add({.id = FindingIds::CONTAINER_AUTOSTART,
             .severity = Severity::Warning,
             .text = "is not started automatically: lxc.start.auto = " + container.autoStartText +
                     " is not exactly 1",
             .remedy = repairs.empty() ? autoStartRemedy(examination.word(config)) : "",
             .repairs = std::move(repairs)});
    }

    Examination& examination;
    const ContainerInfo& container;
    std::string config;
    bool good = true;
};

} // namespace

bool checkSettings(Examination& examination, const ContainerInfo& container)
{
    return SettingsCheck(examination, container).run();
}

} // namespace Zonectl
