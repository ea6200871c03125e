#include "Daemon/Names.h"
#include "Daemon/ZoneWords.h"
#include "Doctor/AutoStart.h"
#include "Doctor/Examination.h"

#include <algorithm>
#include <array>

namespace Zonectl {

namespace {

constexpr const char* LXC_CONFIGURATION = "/etc/lxc/lxc.conf";

void checkContainer(Examination& examination, const ContainerInfo& container)
{
    const bool taken = checkRefusals(examination, container);
    if (checkSettings(examination, container) && taken) {
        examination.addOk(FindingIds::CONTAINER, container.name,
                          std::string(kindWord(container.kind)) +
                              (container.autoStart ? ", starts automatically" : ""));
    }
}

/// The line for which stock liblxc refuses the configuration, if it is one of the usual ones.
[[nodiscard]] std::vector<Repair> repairsOfUnloadable(const ContainerInfo& container,
                                                      const std::string& config)
{
    std::vector<Repair> repairs = repairsOfAutoStart(container, config);
    if (container.hasLibraryKey && container.kind != ZUP::ZONE_TYPE_NONE) {
        repairs.push_back({.kind = Repair::Kind::ReplaceKey,
                           .path = config,
                           .value = "zone.container_type = " + container.kindText,
                           .key = "lxc.container_type"});
    }
    return repairs;
}

/// What to do where nothing can be repaired from here.
[[nodiscard]] std::string remedyOfUnloadable(const Examination& examination, const ContainerInfo& container,
                                             const std::string& config)
{
    return hasPlainAutoStart(container) ? "lxc-info -n " + shellWord(container.name) +
                                              " -l error -o /dev/stderr # tells which line is wrong"
                                        : autoStartRemedy(examination.word(config));
}

// cppcheck-suppress constParameter; it does not see through the designated initialisers of add()
void addUnloadable(Examination& examination, const std::string& name)
{
    const std::string& lxcPath = examination.listing.lxcPath;
    const std::string config = configPath(lxcPath, name);
    const ContainerInfo container = readContainer(examination.machine, lxcPath, name);
    std::vector<Repair> repairs = repairsOfUnloadable(container, config);
    examination.add({.id = FindingIds::CONTAINER_UNLOADABLE,
                     .subject = name,
                     .severity = Severity::Problem,
                     .text = "liblxc refuses its configuration: the daemon never sees this container",
                     .remedy = repairs.empty() ? remedyOfUnloadable(examination, container, config) : "",
                     .repairs = std::move(repairs)});
}

/// Whether there is what a busybox container is made of.
[[nodiscard]] bool hasBusybox(const Machine& machine)
{
    constexpr std::array DIRECTORIES = {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin",
                                        "/usr/bin",        "/sbin",          "/bin"};
    return std::any_of(DIRECTORIES.begin(), DIRECTORIES.end(), [&machine](const char* directory) {
        return machine.isProgram(std::string(directory) + "/busybox");
    });
}

/// The commands that define a first zone, of the kind that needs no labels of its own. Without the
/// distribution's defaults, whose network needs a bridge that need not be there.
[[nodiscard]] std::string definition(const Examination& examination)
{
    if (!examination.machine.live()) {
        return "define one there, as in the examples of zone.config(5)";
    }
    const std::string& lxcPath = examination.listing.lxcPath;
    return std::string(hasBusybox(examination.machine) ? "" : "apt install busybox-static; ") +
           "NAME=red; lxc-create -n $NAME -t busybox -f /dev/null && printf '%s\\n'"
           " 'zone.container_type = hybrid' 'lxc.net.0.type = empty'"
           " \"lxc.cgroup.dir.container = lxc.payload/$NAME\""
           " \"lxc.cgroup.dir.monitor = lxc.monitor/$NAME\""
           " 'lxc.cgroup.dir.monitor.pivot = lxc.pivot'"
           " >>" +
           shellWord(lxcPath) + "/$NAME/config # zone.config(5) tells of the lines";
}

// cppcheck-suppress constParameter; it does not see through the designated initialisers of add()
void addUnreadable(Examination& examination, const std::string& what)
{
    examination.add({.id = FindingIds::CONTAINER_UNREADABLE,
                     .subject = "containers",
                     .severity = Severity::Note,
                     .text = what + " cannot be judged",
                     .remedy = examination.asRoot()});
}

/// The containers whose configuration only root may read, in one note.
void checkUnreadable(Examination& examination)
{
    std::string names;
    for (const std::string& name : examination.listing.unreadable) {
        names += (names.empty() ? "" : ", ") + name;
    }
    if (!names.empty()) {
        addUnreadable(examination, "the configuration of " + names +
                                       " cannot be read by this user: whether the daemon takes it");
    }
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
    if (examination.listing.pathClosed) {
        addUnreadable(examination, path + " cannot be read by this user: what is defined there");
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
                     .remedy = usual ? definition(examination)
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
        checkContainer(examination, container);
    }
    checkUnreadable(examination);
    if (listing.containers.empty() && listing.unreadable.empty()) {
        examination.add({.id = FindingIds::CONTAINERS_NONE,
                         .subject = "containers",
                         .severity = Severity::Problem,
                         .text = "none is defined: the daemon ends at start-up",
                         .remedy = definition(examination),
                         .message = "lxc containers (base path : " + listing.lxcPath + ")"});
    } else if (checkZonesOfDaemon(examination) && !examination.diagnosis.automaticStartBlocked() &&
               examination.diagnosis.unjudged == 0) {
        examination.addOk(FindingIds::AUTOSTART, "automatic start", "every listed container becomes a zone");
    }
}

} // namespace Zonectl
