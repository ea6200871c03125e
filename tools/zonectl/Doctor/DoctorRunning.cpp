#include "Daemon/BusCalls.h"
#include "Daemon/BusClient.h"
#include "Doctor/Examination.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <unistd.h>

namespace Zonectl {

namespace {

constexpr std::chrono::seconds PATIENCE(5);
/// Answered at once for a zone that the daemon has: LXC is not asked, which may wait for a monitor process.
constexpr const char* HARMLESS_METHOD = "ZoneGetPid";
constexpr int REFUSED = -1;

/// The daemon's threads that are no zone's.
constexpr std::array<std::string_view, 4> OTHER_THREADS = {"zone-manager", "zone-monitor", "gmain", "gdbus"};

/// Compares the zones of the daemon that runs with the containers of this moment: it took them when it began.
class ZoneComparison
{
public:
    ZoneComparison(Examination& wholeExamination, pid_t ownerOfName)
        : examination(wholeExamination), daemon(ownerOfName)
    {}

    /// Returns whether all of today's zones are the daemon's too.
    [[nodiscard]] bool run()
    {
        std::set<std::string> questions = missing = takenNow();
        questions.merge(notListed());
        if (!ask(questions)) {
            return true;
        }
        for (const std::string& name : missing) {
            addMissing(name);
        }
        for (const std::string& name : gone) {
            addGone(name);
        }
        return missing.empty();
    }

private:
    /// The containers that a daemon would take if it began now, and of which it speaks.
    [[nodiscard]] std::set<std::string> takenNow() const
    {
        std::set<std::string> names;
        for (const ContainerInfo& container : examination.listing.containers) {
            if (container.kind == ZUP::ZONE_TYPE_HYBRID || container.kind == ZUP::ZONE_TYPE_ISOLATION) {
                names.insert(container.name);
            }
        }
        for (const RefusedContainer& container : examination.diagnosis.refused) {
            names.erase(container.name);
        }
        return names;
    }

    /// The names of the daemon's threads that are no container's: a zone has a thread of its name.
    [[nodiscard]] std::set<std::string> notListed() const
    {
        const std::string threads = "/proc/" + std::to_string(daemon) + "/task/";
        std::set<std::string> names;
        for (const std::string& thread : examination.machine.entries(threads)) {
            std::string name =
                examination.machine.read(std::string(threads).append(thread).append("/comm")).value_or("");
            name.erase(std::min(name.find('\n'), name.size()));
            if (!name.empty() && !isListed(name) &&
                std::find(OTHER_THREADS.begin(), OTHER_THREADS.end(), name) == OTHER_THREADS.end()) {
                names.insert(std::move(name));
            }
        }
        return names;
    }

    [[nodiscard]] bool isListed(const std::string& name) const
    {
        const ContainerListing& listing = examination.listing;
        return std::any_of(listing.containers.begin(), listing.containers.end(),
                           [&name](const ContainerInfo& container) { return container.name == name; }) ||
               std::find(listing.unloadable.begin(), listing.unloadable.end(), name) !=
                   listing.unloadable.end();
    }

    /// Leaves in `missing` and `gone` what the daemon says is so. Returns whether it answered.
    [[nodiscard]] bool ask(const std::set<std::string>& questions)
    {
        bool silent = false;
        try {
            const BusClient client(PATIENCE);
            BusCalls calls(client);
            for (const std::string& name : questions) {
                calls.askInteger(HARMLESS_METHOD, name, PATIENCE, [&, name](std::optional<int> answer) {
                    silent = silent || !answer;
                    take(name, answer.value_or(REFUSED) != REFUSED);
                });
            }
            calls.finish();
            calls.check();
        } catch (const Failure& failure) {
            addSilent(failure.what());
            return false;
        }
        if (silent) {
            addSilent("it did not answer in time");
        }
        return !silent;
    }

    void take(const std::string& name, bool daemonHasIt)
    {
        if (daemonHasIt && missing.erase(name) == 0) {
            gone.push_back(name);
        }
    }

    [[nodiscard]] std::string restart() const
    {
        return examination.systemdRuns()
                   ? "systemctl restart zone-manager"
                   : "kill " + std::to_string(daemon) + " # and start the daemon again when it has ended";
    }

    void addMissing(const std::string& name)
    {
        examination.add({.id = FindingIds::DAEMON_STALE,
                         .subject = name,
                         .severity = Severity::Problem,
                         .text =
                             "has changed since the daemon began, which does not have it as a zone; if it "
                             "was refused then, nothing starts automatically",
                         .remedy = restart()});
    }

    void addGone(const std::string& name)
    {
        examination.add({.id = FindingIds::DAEMON_GONE,
                         .subject = name,
                         .severity = Severity::Warning,
                         .text = "is no container any more, and still a zone of the daemon that runs",
                         .remedy = restart()});
    }

    void addSilent(const std::string& why)
    {
        examination.add(
            {.id = FindingIds::DAEMON_SILENT,
             .subject = "zones",
             .severity = Severity::Warning,
             .text = "the daemon was not asked which zones it has: " + why,
             .remedy = geteuid() == 0
                           ? "zonectl list # tells which zone's LXC monitor holds it up, if one does"
                           : examination.asRoot()});
    }

    Examination& examination;
    pid_t daemon;
    std::set<std::string> missing;
    std::vector<std::string> gone;
};

} // namespace

bool checkZonesOfDaemon(Examination& examination)
{
    return !examination.daemon || ZoneComparison(examination, *examination.daemon).run();
}

} // namespace Zonectl
