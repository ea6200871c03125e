#include "Commands.h"
#include "Daemon/BusLink.h"
#include "Daemon/ChangeSource.h"
#include "Daemon/DaemonCalls.h"
#include "Daemon/ZoneWords.h"
#include "Device/Containers.h"
#include "Device/Machine.h"
#include "Device/MonitorScout.h"
#include "Device/ZoneLife.h"
#include "Watch/RecordingFile.h"
#include "Watch/WatchOutput.h"

#include <algorithm>
#include <csignal>
#include <glib-unix.h>
#include <iostream>
#include <optional>
#include <set>

namespace Zonectl {

namespace {

/// How long a zone's present state is waited for.
constexpr std::chrono::seconds ANSWER_LIMIT(3);

constexpr const char* BUS = "bus"; ///< outranks the daemon, of which nothing is known without it

void note(const std::string& text)
{
    std::cerr << "zonectl: " << printable(text) << std::endl;
}

[[nodiscard]] bool isIgnored(int signal)
{
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// The states of zones, then each change, until it is told to end.
class Watcher : private ChangeSource::Listener, private BusLink::Observer
{
public:
    Watcher(const Options& commandOptions, const Style& outputStyle)
        : options(commandOptions), style(outputStyle), lxcPath(configuredLxcPath(machine)),
          loop(g_main_loop_new(nullptr, FALSE))
    {
        if (!options.record.empty()) {
            recording.emplace(options.record);
        }
        source = options.raw ? makeRecordSource(lxcPath, *this) : makeSignalSource(link, *this);
        link.observe(*this); // behind the source, so that it listens before anybody asks
    }

    [[nodiscard]] ExitStatus run()
    {
        g_unix_signal_add(SIGINT, &Watcher::endCallback, this);
        g_unix_signal_add(SIGTERM, &Watcher::endCallback, this);
        if (!isIgnored(SIGHUP)) { // by nohup, to outlive the terminal
            g_unix_signal_add(SIGHUP, &Watcher::endCallback, this);
        }
        if (options.timeout) {
            g_timeout_add_seconds(static_cast<guint>(options.timeout->count()), &Watcher::endCallback, this);
        }
        link.start();
        source->start();
        if (!failure) {
            g_main_loop_run(loop.get());
        }
        end();
        if (failure) {
            throw Failure(*failure);
        }
        return EXIT_OK;
    }

private:
    static gboolean endCallback(gpointer data)
    {
        g_main_loop_quit(static_cast<Watcher*>(data)->loop.get());
        return G_SOURCE_CONTINUE; // the process ends; until then a second Ctrl-C changes nothing
    }

    // What the source tells

    void sourceUp() override
    {
        if (recording && !everUp) {
            record(headerLine(headerOfNow(sourceName())));
        }
        if (down) {
            note("the " + down->who + " is back");
        }
        endGap();
        everUp = true;
        changedSince.clear();
        askDue = true;
        askPresent();
    }

    void sourceDown(const std::string& who) override
    {
        calls.reset();
        askDue = false;
        // A bus that ends takes leave of one after another: the daemon may be seen to go first.
        if (!down || (down->who != who && who == BUS)) {
            down = Absence{down ? down->since : recordingClock(), who};
            note("the " + who + " has left; waiting for it");
        }
    }

    void sourceMissing(const std::string& reason) override
    {
        if (!everUp) {
            fail({EXIT_UNREACHABLE, reason});
        }
    }

    void sourceRefused(const std::string& reason) override { fail({EXIT_FAILED, reason}); }

    void changed(const std::string& zone, const std::string& state) override
    {
        if (wanted(zone)) {
            changedSince.insert(zone);
            emit({.kind = WatchEvent::Kind::State, .at = recordingClock(), .zone = zone, .state = state});
        }
    }

    // What the bus tells

    void busConnected(GDBusConnection* /*bus*/) override {}
    void daemonAppeared() override { askPresent(); }
    void daemonAbsent() override { calls.reset(); }

    void busLost(const std::string& reason) override
    {
        calls.reset();
        if (options.raw) {
            sayOnce("no present states, since the bus cannot be reached: " + reason);
        }
    }

    // The present states

    /// Asks once after the source has come up, as soon as there is somebody to ask.
    void askPresent()
    {
        if (!askDue || !link.daemonPresent()) {
            return;
        }
        askDue = false;
        ++round;
        calls.emplace(link.connection());
        if (!options.arguments.empty()) {
            askStates(options.arguments);
            return;
        }
        calls->askNames(
            ANSWER_LIMIT, [this](const std::vector<std::string>& names) { askStates(names); },
            [this](const CallFailure& reason) { sayNoPresentStates(reason.failure); });
    }

    /// The daemon would wait for a silent monitor, and answer nobody meanwhile: it is not asked about such.
    void askStates(const std::vector<std::string>& names)
    {
        scout.ask(names, [this, names, asked = round](const std::set<std::string>& silent) {
            if (!calls || asked != round) {
                return; // the daemon has left meanwhile; when it is back, all are asked for again
            }
            for (const std::string& name : names) {
                silent.contains(name) ? takeFromProc(name, "monitor silent") : askState(name);
            }
        });
    }

    void askState(const std::string& name)
    {
        calls->askNumber(
            "ZoneGetState", name, ANSWER_LIMIT, [this, name](int state) { takePresent(name, state); },
            [this, name](const CallFailure& reason) { takeNoPresent(name, reason.failure); });
    }

    void takePresent(const std::string& zone, int state)
    {
        if (state >= 0) {
            emitPresent({.kind = WatchEvent::Kind::Present, .zone = zone, .state = stateWord(state)});
        } else if (readContainer(machine, lxcPath, zone).kind == ZUP::ZONE_TYPE_PROTECTION) {
            takeFromProc(zone, "protected");
        } else {
            emitPresent({.kind = WatchEvent::Kind::Present, .zone = zone, .note = "refused"});
        }
    }

    void takeFromProc(const std::string& zone, const std::string& reason)
    {
        emitPresent({.kind = WatchEvent::Kind::Present,
                     .zone = zone,
                     .state = LifeTable(machine, lxcPath).of(zone).state,
                     .note = reason + ", from /proc"});
    }

    void takeNoPresent(const std::string& zone, const Failure& reason)
    {
        if (reason.status() == EXIT_UNREACHABLE) {
            emitPresent({.kind = WatchEvent::Kind::Present, .zone = zone, .note = "no answer"});
        } else {
            sayNoPresentStates(reason);
        }
    }

    void emitPresent(WatchEvent event)
    {
        if (!changedSince.contains(event.zone)) { // else the change tells it better
            event.at = recordingClock();
            emit(event);
        }
    }

    void sayNoPresentStates(const Failure& reason)
    {
        sayOnce(std::string("no present states: ") + reason.what());
    }

    void sayOnce(const std::string& text)
    {
        if (!said) {
            said = true;
            note(text);
        }
    }

    // What comes out

    [[nodiscard]] bool wanted(const std::string& zone) const
    {
        const auto& names = options.arguments;
        return names.empty() || std::find(names.begin(), names.end(), zone) != names.end();
    }

    [[nodiscard]] std::string sourceName() const { return options.raw ? "raw" : "signal"; }

    /// One line at once: a reader behind a pipe sees each change when it happens, and finds it recorded.
    void emit(const WatchEvent& event)
    {
        if (failure) {
            return;
        }
        record(eventLine(event));
        const Micros wall = g_get_real_time();
        std::cout << (options.json ? watchJson(event, wall, sourceName()) : watchText(event, wall, style))
                  << std::flush;
        if (!std::cout) {
            fail({EXIT_FAILED, "the output could not be written"});
        }
    }

    void record(const std::string& line)
    {
        if (recording && !recording->append(line)) {
            fail({EXIT_FAILED, recording->problem()});
        }
    }

    void endGap()
    {
        if (down) {
            const Micros now = recordingClock();
            emit({.kind = WatchEvent::Kind::Gap, .at = now, .note = down->who, .length = now - down->since});
            down.reset();
        }
    }

    void end()
    {
        calls.reset();
        if (!failure && !everUp) {
            fail({EXIT_UNREACHABLE, "the bus did not answer"});
        }
        endGap();
        if (!failure) {
            emit({.kind = WatchEvent::Kind::End, .at = recordingClock()});
        }
    }

    /// Ends the command; the first failure counts.
    void fail(const Failure& reason)
    {
        if (!failure) {
            failure = reason;
        }
        g_main_loop_quit(loop.get());
    }

    /// The time since when nothing is seen, and for whose sake.
    struct Absence
    {
        Micros since;
        std::string who;
    };

    const Options& options;
    const Style& style;
    const Machine machine{""};
    const std::string lxcPath;
    MonitorScout scout; // before all that may have threads
    ZoneCore::GMainLoopPtr loop;
    std::optional<RecordingFile> recording;
    BusLink link;
    std::unique_ptr<ChangeSource> source;
    std::optional<DaemonCalls> calls;
    std::optional<Absence> down;
    std::optional<Failure> failure;
    std::set<std::string> changedSince; ///< zones with a change since the source came up
    bool everUp = false;
    bool askDue = false;
    unsigned round = 0; ///< of questions for the present states
    bool said = false;
};

} // namespace

ExitStatus watchCommand(const Options& options, const Style& style)
{
    return Watcher(options, style).run();
}

} // namespace Zonectl
