#include "Zones/ZoneSurvey.h"

#include "Daemon/BusCalls.h"
#include "Daemon/BusClient.h"
#include "Daemon/ZoneWords.h"
#include "Device/Containers.h"
#include "Device/Machine.h"
#include "Device/MonitorProbe.h"
#include "Device/ZoneLife.h"
#include "Zones/Refusal.h"

#include <algorithm>
#include <utility>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// What the daemon answers in a number's place for a protection zone and for a zone it does not have.
constexpr int REFUSED = -1;

/// How long the daemon may take for all its answers, unless the command line says otherwise.
constexpr milliseconds PATIENCE(5000);
/// The same when a monitor is silent. The daemon may wait for it already, on somebody else's behalf.
constexpr milliseconds PATIENCE_BESIDE_SILENCE(300);

[[nodiscard]] bool contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

class Surveyor
{
public:
    Surveyor(const std::vector<std::string>& names, std::optional<std::chrono::seconds> timeout)
        : wanted(names), lxcPath(configuredLxcPath(machine)), configured(configuredNames(machine, lxcPath)),
          voices(askMonitors(configured)), deadline(Clock::now() + patienceFor(timeout))
    {}

    [[nodiscard]] ZoneSurvey run()
    {
        try {
            askDaemon();
        } catch (const Failure& failure) {
            if (failure.status() != EXIT_UNREACHABLE) {
                throw;
            }
            result.trouble = failure;
        }
        if (result.trouble && result.zones.empty()) {
            result.known = configured;
            addViews();
        }
        completeFromProc();
        dropUnknown();
        explainTheRest();
        return std::move(result);
    }

private:
    /// Any silent monitor may hold the daemon up, also that of a zone which was not asked for.
    [[nodiscard]] milliseconds patienceFor(std::optional<std::chrono::seconds> timeout) const
    {
        if (timeout) {
            return *timeout;
        }
        const bool anySilent = std::any_of(voices.begin(), voices.end(), [](const auto& voice) {
            return voice.second == MonitorVoice::Silent;
        });
        return anySilent ? PATIENCE_BESIDE_SILENCE : PATIENCE;
    }

    /// The rest of the time; at least so much that an answer that is there is taken.
    [[nodiscard]] milliseconds timeLeft() const
    {
        return std::max(std::chrono::duration_cast<milliseconds>(deadline - Clock::now()), milliseconds(1));
    }

    [[nodiscard]] bool silent(const std::string& name) const
    {
        const auto voice = voices.find(name);
        return voice != voices.end() && voice->second == MonitorVoice::Silent;
    }

    void askDaemon()
    {
        const BusClient client(timeLeft());
        BusCalls calls(client);
        bool listed = false;
        calls.askNames(timeLeft(), [this, &listed](const auto& names) {
            listed = names.has_value();
            result.known = names.value_or(configured);
        });
        calls.finish();
        calls.check();
        if (!listed) {
            throw Failure(EXIT_UNREACHABLE, "the zone manager did not answer in time");
        }
        addViews();
        for (ZoneView& view : result.zones) {
            if (!view.fromProc) {
                askAbout(calls, view);
            }
        }
        calls.finish();
        calls.check();
    }

    /// One view for each zone; those of silent monitors are not to be asked about.
    void addViews()
    {
        for (const std::string& name : wanted.empty() ? result.known : wanted) {
            ZoneView view{.name = name};
            if (contains(configured, name)) {
                const ContainerInfo info = readContainer(machine, lxcPath, name);
                view.kind = info.kind;
                view.automatic = info.autoStart;
            }
            if (silent(name) && view.kind != ZUP::ZONE_TYPE_PROTECTION) {
                view.fromProc = true;
                view.note = "monitor silent, from /proc";
            }
            result.zones.push_back(std::move(view));
        }
    }

    void askAbout(BusCalls& calls, ZoneView& view)
    {
        view.fromProc = true; // until the state is here
        view.note = "daemon silent, from /proc";
        calls.askInteger("ZoneGetState", view.name, timeLeft(), [this, &view](std::optional<int> state) {
            if (!state) {
                result.trouble = Failure(EXIT_UNREACHABLE, "the zone manager did not answer in time");
                return;
            }
            view.fromProc = false;
            view.note.clear();
            view.refused = *state == REFUSED;
            if (!view.refused) {
                view.state = stateWord(*state);
            }
        });
        calls.askInteger("ZoneGetInitPid", view.name, timeLeft(),
                         [&view](std::optional<int> pid) { view.initPid = pid.value_or(0); });
    }

    /// The daemon tells nothing of a protection zone, whose processes can be seen all the same.
    [[nodiscard]] static bool isLeftToProc(const ZoneView& view)
    {
        return !view.state && (!view.refused || view.kind == ZUP::ZONE_TYPE_PROTECTION);
    }

    void completeFromProc()
    {
        if (std::none_of(result.zones.begin(), result.zones.end(), isLeftToProc)) {
            return;
        }
        const LifeTable lives(machine, lxcPath);
        for (ZoneView& view : result.zones) {
            if (!isLeftToProc(view)) {
                continue;
            }
            const ZoneLife life = lives.of(view.name);
            view.fromProc = true;
            if (view.note.empty()) {
                view.note = view.refused ? "protected, from /proc" : "from /proc";
            }
            view.state = life.state.empty() ? std::nullopt : std::optional(life.state);
            view.initPid = life.initPid;
        }
    }

    /// A zone whose container has been removed since the daemon's start is in no list, and yet a zone.
    void dropUnknown()
    {
        std::erase_if(result.zones, [this](const ZoneView& view) {
            const bool unknown = !contains(result.known, view.name) && (view.refused || view.fromProc);
            if (unknown) {
                result.unknown.push_back(view.name);
            }
            return unknown;
        });
    }

    void explainTheRest()
    {
        for (ZoneView& view : result.zones) {
            if (!view.note.empty()) {
                continue;
            }
            if (!contains(result.known, view.name)) {
                view.note = NO_CONTAINER;
            } else if (view.refused && view.kind != ZUP::ZONE_TYPE_NONE) {
                view.note = NOT_TAKEN;
            }
        }
    }

    const Machine machine{""};
    const std::vector<std::string>& wanted;
    std::string lxcPath;
    std::vector<std::string> configured;
    std::map<std::string, MonitorVoice> voices;
    Clock::time_point deadline;
    ZoneSurvey result;
};

} // namespace

ZoneSurvey surveyZones(const std::vector<std::string>& names, std::optional<std::chrono::seconds> timeout)
{
    return Surveyor(names, timeout).run();
}

} // namespace Zonectl
