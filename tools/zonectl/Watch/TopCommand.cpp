#include "Commands.h"
#include "Daemon/BusClient.h"
#include "Daemon/BusLink.h"
#include "Daemon/DaemonCalls.h"
#include "Daemon/ZoneWords.h"
#include "Device/Containers.h"
#include "Device/MonitorScout.h"
#include "Output/Screen.h"
#include "Watch/TopTable.h"
#include "Zones/Refusal.h"

#include <algorithm>
#include <csignal>
#include <glib-unix.h>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <unistd.h>

namespace Zonectl {

namespace {

constexpr guint INTERVAL_MILLISECONDS = 1000;
/// Longer than a look: a zone is not asked about again before.
constexpr std::chrono::seconds ANSWER_LIMIT(30);
/// How long the only table waits for a daemon that is slow, unless the command line says otherwise.
constexpr std::chrono::seconds PATIENCE(5);

/// The states as the daemon tells them, asked for without waiting and never twice at a time.
class DaemonStates : private BusLink::Observer
{
public:
    DaemonStates() { link.observe(*this); }

    void start() { link.start(); }

    /// Called when there is a daemon to ask, and when it has told for the first time which zones there are.
    void onNews(std::function<void()> taker) { newsTaker = std::move(taker); }

    /// Forgets the answers and asks anew: for the names, and for the states of these zones or of all.
    void ask(const std::vector<std::string>& given)
    {
        states.clear();
        refusals.clear();
        if (!calls) {
            return;
        }
        askNames();
        askStates(given.empty() ? zoneNames.value_or(given) : given);
    }

    /// The names of all zones; nothing as long as the daemon has not told them.
    [[nodiscard]] const std::optional<std::vector<std::string>>& names() const { return zoneNames; }

    /// Whether there is no more to be waited for before the states are asked for.
    [[nodiscard]] bool settled() const { return zoneNames || trouble; }

    /// Why the names are not there. Nobody may have told yet.
    [[nodiscard]] Failure problem() const
    {
        const char* silent = link.connection() == nullptr ? "the bus did not answer"
                                                          : "the zone manager did not answer in time";
        return trouble.value_or(Failure(EXIT_UNREACHABLE, silent));
    }

    /// Whether the daemon refused to speak of the zone since the last asking.
    [[nodiscard]] bool refused(const std::string& zone) const { return refusals.contains(zone); }

    /// The zone's state, when it came since the last asking.
    [[nodiscard]] std::optional<std::string> state(const std::string& zone) const
    {
        const auto found = states.find(zone);
        return found == states.end() ? std::nullopt : std::optional(found->second);
    }

private:
    void busConnected(GDBusConnection* /*bus*/) override {}
    void daemonAppeared() override
    {
        calls.emplace(link.connection());
        trouble.reset();
        newsTaker();
    }
    void daemonAbsent() override { forget(noDaemon()); }
    void busLost(const std::string& reason) override { forget(noBus(reason)); }

    void forget(const Failure& reason)
    {
        trouble = reason;
        calls.reset();
        askingNames = false;
        asking.clear();
        states.clear();
        refusals.clear();
        zoneNames.reset();
    }

    void askNames()
    {
        if (askingNames) {
            return;
        }
        askingNames = true;
        calls->askNames(
            ANSWER_LIMIT,
            [this](const std::vector<std::string>& names) {
                askingNames = false;
                const bool first = !zoneNames;
                zoneNames = names;
                if (first) {
                    newsTaker();
                }
            },
            [this](const CallFailure& failure) {
                askingNames = false;
                trouble = failure.failure;
            });
    }

    /// The daemon would wait for a silent monitor, and answer nobody meanwhile: it is not asked about such.
    void askStates(const std::vector<std::string>& zones)
    {
        if (zones.empty() || scout.busy()) {
            return;
        }
        scout.ask(zones, [this, zones](const std::set<std::string>& silent) {
            for (const std::string& zone : zones) {
                if (calls && !silent.contains(zone)) {
                    askState(zone);
                }
            }
        });
    }

    void askState(const std::string& zone)
    {
        if (!asking.insert(zone).second) {
            return;
        }
        calls->askNumber(
            "ZoneGetState", zone, ANSWER_LIMIT,
            [this, zone](int state) {
                asking.erase(zone);
                if (state >= 0) {
                    states.insert_or_assign(zone, stateWord(state));
                } else {
                    refusals.insert(zone);
                }
            },
            [this, zone](const CallFailure& /*failure*/) { asking.erase(zone); });
    }

    MonitorScout scout; // before the link, which has threads
    BusLink link;
    std::optional<DaemonCalls> calls;
    std::optional<std::vector<std::string>> zoneNames;
    std::map<std::string, std::string> states;
    std::set<std::string> refusals;
    std::set<std::string> asking; ///< zones whose answers are awaited
    std::optional<Failure> trouble;
    bool askingNames = false;
    std::function<void()> newsTaker = [] {};
};

/// Looks at the zones once in each interval and shows what it saw.
class Top
{
public:
    Top(const Options& commandOptions, const Style& outputStyle)
        : options(commandOptions), style(outputStyle), lxcPath(configuredLxcPath(machine)),
          loop(g_main_loop_new(nullptr, FALSE))
    {
        if (!options.json && isatty(STDOUT_FILENO) == 1) {
            screen.emplace([this](char key) {
                if (key == 'q') {
                    g_main_loop_quit(loop.get());
                }
            });
        }
    }

    [[nodiscard]] ExitStatus run()
    {
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            g_unix_signal_add(number, &Top::endCallback, this);
        }
        g_unix_signal_add(SIGWINCH, &Top::resizedCallback, this);
        states.onNews([this] { begin(); });
        states.start();
        begin();
        if (screen) {
            look();
            show();
        }
        g_timeout_add(INTERVAL_MILLISECONDS, &Top::lookCallback, this);
        if (options.timeout && !onlyOnce()) {
            const std::chrono::milliseconds limit = *options.timeout;
            g_timeout_add(static_cast<guint>(limit.count()), &Top::endCallback, this);
        }
        g_main_loop_run(loop.get());
        screen.reset();
        check();
        return EXIT_OK;
    }

private:
    /// A table that is not drawn anew.
    [[nodiscard]] bool onlyOnce() const { return !screen && !options.json; }

    /// Throws Failure when what was shown is not what was asked for.
    void check() const
    {
        if (outputLost) {
            throw Failure(EXIT_FAILED, "the output could not be written");
        }
        if (shownOnce && !states.names()) {
            throw Failure(states.problem());
        }
        if (!unknown.empty()) {
            throw Failure(EXIT_FAILED, noSuchZones(unknown, *states.names()));
        }
    }

    static gboolean endCallback(gpointer data)
    {
        g_main_loop_quit(static_cast<Top*>(data)->loop.get());
        return G_SOURCE_CONTINUE; // the process ends; until then a second Ctrl-C changes nothing
    }

    static gboolean resizedCallback(gpointer data)
    {
        auto* top = static_cast<Top*>(data);
        if (top->screen) {
            top->show();
        }
        return G_SOURCE_CONTINUE;
    }

    static gboolean lookCallback(gpointer data)
    {
        auto* top = static_cast<Top*>(data);
        if (top->waitsOn()) {
            return G_SOURCE_CONTINUE;
        }
        top->look();
        top->show();
        top->states.ask(top->options.arguments);
        return G_SOURCE_CONTINUE;
    }

    /// A zone that is met for the first time needs a look with which the next is compared.
    void begin()
    {
        for (const std::string& name : names()) {
            if (!shares.knows(name)) {
                static_cast<void>(share(name, usageOf(machine, lxcPath, name)));
            }
        }
        states.ask(options.arguments);
    }

    [[nodiscard]] std::optional<std::int64_t> share(const std::string& name, const ZoneUsage& usage)
    {
        return shares.next(name, recordingClock(), usage.processorTime);
    }

    /// The only table comes later when the daemon has not told by then which zones there are.
    [[nodiscard]] bool waitsOn()
    {
        const auto waited = std::chrono::milliseconds(INTERVAL_MILLISECONDS) * ++intervals;
        return onlyOnce() && !states.settled() && waited < options.timeout.value_or(PATIENCE);
    }

    /// Whether neither the daemon nor the configurations have a zone of that name. It refuses others, too,
    /// and speaks of some that have no configuration any more.
    [[nodiscard]] bool nobodyHas(const std::string& name) const
    {
        const auto lacks = [&name](const std::vector<std::string>& known) {
            return std::find(known.begin(), known.end(), name) == known.end();
        };
        return states.refused(name) && states.names() && lacks(*states.names()) &&
               lacks(configuredNames(machine, lxcPath));
    }

    void look()
    {
        rows.clear();
        unknown.clear();
        for (const std::string& name : names()) {
            if (nobodyHas(name)) {
                unknown.push_back(name);
                continue;
            }
            const ZoneUsage usage = usageOf(machine, lxcPath, name);
            const auto told = states.state(name);
            rows.push_back({.name = name,
                            .state = told.value_or(usage.state),
                            .toldByDaemon = told.has_value(),
                            .permille = share(name, usage),
                            .uptimeSeconds = usage.uptimeSeconds,
                            .memoryBytes = usage.memoryBytes,
                            .processes = usage.processes});
        }
    }

    [[nodiscard]] std::vector<std::string> names() const
    {
        if (!options.arguments.empty()) {
            return options.arguments;
        }
        return states.names() ? *states.names() : configuredNames(machine, lxcPath);
    }

    [[nodiscard]] std::string text() const
    {
        if (options.json) {
            return topJson(rows);
        }
        return rows.empty() && !unknown.empty() ? "" : topText(rows, style);
    }

    void show()
    {
        if (screen) {
            outputLost = !screen->draw(text());
        } else {
            std::cout << text() << std::flush;
            outputLost = !std::cout;
        }
        shownOnce = onlyOnce();
        if (outputLost || shownOnce || !unknown.empty()) {
            g_main_loop_quit(loop.get());
        }
    }

    const Options& options;
    const Style& style;
    const Machine machine{""};
    std::string lxcPath;
    ZoneCore::GMainLoopPtr loop;
    DaemonStates states;
    ProcessorShares shares;
    std::vector<TopRow> rows;
    std::vector<std::string> unknown; ///< names that were asked for and that nobody has
    int intervals = 0;
    bool shownOnce = false; ///< the only table
    std::optional<Screen> screen;
    bool outputLost = false;
};

} // namespace

ExitStatus topCommand(const Options& options, const Style& style)
{
    return Top(options, style).run();
}

} // namespace Zonectl
