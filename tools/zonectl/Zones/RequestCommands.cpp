#include "Commands.h"
#include "Daemon/BusClient.h"
#include "Daemon/ZoneWords.h"
#include "Device/Containers.h"
#include "Device/Machine.h"
#include "Device/MonitorProbe.h"
#include "Device/ZoneLife.h"
#include "Output/Json.h"
#include "Zones/Follower.h"
#include "Zones/Refusal.h"

#include <algorithm>
#include <iostream>
#include <optional>

namespace Zonectl {

namespace {

/// What the daemon answers in a state's place for a protection zone and for a zone it does not have.
constexpr int REFUSED = -1;

constexpr const char* REQUEST_LATENCY = "the daemon begins within 3 s";
constexpr const char* WAIT_LATENCY =
    "a request begins within 3 s, the next automatic start within 5.2 s, a restart "
    "within 8 s, and to each comes what the launcher takes";

[[nodiscard]] const char* methodOf(Errand errand)
{
    switch (errand) {
    case Errand::Start:
        return "ZoneStart";
    case Errand::Stop:
        return "ZoneStop";
    case Errand::Unfreeze:
    case Errand::Wait:
        break;
    }
    return "ZoneUnfreeze";
}

/// One run of a command that follows zones.
class Errands
{
public:
    /// The monitors are asked before anything else: the daemon is not to be asked about one that is silent.
    Errands(const Options& commandOptions, std::vector<Pursuit> wanted)
        : options(commandOptions), pursuits(std::move(wanted)), voices(askMonitors(names())),
          client(options.patience()), progress(Progress::mannerFor(options.json)),
          follower(client, pursuits, progress)
    {}

    /// Asks for what each zone is to do.
    void request()
    {
        forEach([this](Pursuit& one) {
            lookFirst(one);
            if (!one.open() && !one.done()) {
                return;
            }
            if (cannotStart(one)) {
                one.fail(EXIT_FAILED, std::string("it was not asked to start: ") + NO_CONTAINER);
                return;
            }
            if (!client.request(methodOf(one.errand()), one.name())) {
                one.fail(EXIT_FAILED, "the " + std::string(errandWord(one.errand())) +
                                          " was refused: " + whyRefused(client, one.name()));
                return;
            }
            one.noteQueued();
            if (one.open() && options.wait) {
                progress.event(one.name() + ": " + std::string(errandWord(one.errand())) + " is queued; " +
                               REQUEST_LATENCY + ", waiting up to " + limitText() + " for " + one.goal());
            }
        });
    }

    /// Looks whether each zone can be waited for. The daemon tells the changes of all containers, but answers
    /// questions about its own only.
    void look()
    {
        forEach([this](Pursuit& one) {
            const std::optional<int> told = lookFirst(one);
            if (told == REFUSED) {
                const std::vector<std::string> known = client.zoneNames();
                if (std::find(known.begin(), known.end(), one.name()) == known.end()) {
                    one.fail(EXIT_FAILED, noSuchZone(known));
                } else if (isProtected(one)) {
                    beginFromProc(one, "protected");
                }
            } else if (!told) {
                beginFromProc(one, "monitor silent");
            }
            if (one.open()) {
                progress.event(one.name() + ": waiting up to " + limitText() + " for " + one.goal() + " (" +
                               WAIT_LATENCY + ")");
            }
        });
    }

    void follow(const char* latency) { follower.run(options.waitPatience(), latency); }

    /// Prints what became of each, and returns the worst.
    [[nodiscard]] ExitStatus report(const Style& style)
    {
        progress.clear();
        if (options.json) {
            printJson();
        } else {
            printLines(style);
        }
        ExitStatus worst = EXIT_OK;
        std::cout.flush();
        for (const Pursuit& one : pursuits) {
            worst = std::max(worst, one.status());
            if (one.status() != EXIT_OK) {
                std::cerr << "zonectl: " << printable(one.name() + ": " + one.reason()) << std::endl;
            }
        }
        return worst;
    }

private:
    [[nodiscard]] std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const Pursuit& one : pursuits) {
            all.push_back(one.name());
        }
        return all;
    }

    [[nodiscard]] std::string limitText() const
    {
        return std::to_string(options.waitPatience().count()) + " s";
    }

    /// A daemon that is gone or does not answer is not asked again for the others.
    template <typename Action>
    void forEach(const Action& action)
    {
        const Pursuit* unreachable = nullptr;
        for (Pursuit& one : pursuits) {
            if (unreachable != nullptr) {
                one.fail(EXIT_UNREACHABLE, unreachable->reason());
                continue;
            }
            try {
                action(one);
            } catch (const Failure& failure) {
                one.fail(failure.status(), failure.what());
                unreachable = failure.status() == EXIT_UNREACHABLE ? &one : nullptr;
            }
        }
    }

    /// A zone outlives its container's definition, but comes up no more. It may run still: so only one that
    /// was seen not to run is meant.
    [[nodiscard]] bool cannotStart(const Pursuit& one) const
    {
        if (one.errand() != Errand::Start || !one.open() || one.lastState().empty()) {
            return false;
        }
        const std::vector<std::string> known = client.zoneNames();
        return std::find(known.begin(), known.end(), one.name()) == known.end();
    }

    /// The state as the daemon tells it, REFUSED when it does not speak about the zone, nothing when it may
    /// not be asked.
    std::optional<int> lookFirst(Pursuit& one)
    {
        const auto voice = voices.find(one.name());
        if (voice != voices.end() && voice->second == MonitorVoice::Silent) {
            follower.neverAsk(one.name());
            progress.line(one.name() + ": its LXC monitor is silent, so that only signals tell of it");
            return std::nullopt;
        }
        const int state = client.zoneState(one.name());
        if (state == REFUSED) {
            follower.neverAsk(one.name());
        } else {
            one.begin(stateWord(state));
        }
        return state;
    }

    [[nodiscard]] bool isProtected(const Pursuit& one) const
    {
        return readContainer(machine, lxcPath, one.name()).kind == ZUP::ZONE_TYPE_PROTECTION;
    }

    /// The processes tell a state where the daemon does not, unless the zone comes up or goes down just then.
    void beginFromProc(Pursuit& one, const std::string& reason)
    {
        if (const ZoneLife life = LifeTable(machine, lxcPath).of(one.name()); !life.state.empty()) {
            one.begin(life.state, reason + ", from /proc");
        }
    }

    void printLines(const Style& style) const
    {
        for (const Pursuit& one : pursuits) {
            if (one.status() != EXIT_OK) {
                continue; // it has a line among the errors
            }
            std::cout << printable(one.name()) << ": ";
            if (one.done()) {
                std::cout << style.paint(stateTone(one.lastState()), one.lastState())
                          << (one.reason().empty() ? "" : " (" + one.reason() + ")") << "\n";
            } else {
                std::cout << errandWord(one.errand()) << " is queued; "
                          << printable(commandHint("status", one.name())) << " or --wait tells the outcome\n";
            }
        }
    }

    void printJson() const
    {
        JsonWriter json;
        json.beginArray();
        for (const Pursuit& one : pursuits) {
            const bool waiting = one.errand() == Errand::Wait;
            json.beginObject().name("name").text(one.name()).name("request").text(errandWord(one.errand()));
            json.name("wanted").text(one.goal());
            if (!waiting) {
                json.name("queued").boolean(one.queued());
            }
            json.name("state");
            one.lastState().empty() ? json.null() : json.text(one.lastState());
            json.name("done").boolean(one.done()).name("reason");
            one.reason().empty() ? json.null() : json.text(one.reason());
            json.endObject();
        }
        std::cout << json.endArray().finish(JsonWriter::Layout::Indented) << "\n";
    }

    const Options& options;
    const Machine machine{""};
    const std::string lxcPath = configuredLxcPath(machine);
    std::vector<Pursuit> pursuits;
    std::map<std::string, MonitorVoice> voices;
    BusClient client;
    Progress progress;
    Follower follower;
};

/// Sends a request for each named zone and, when asked to, waits for them to be carried out.
[[nodiscard]] ExitStatus carryOut(Errand errand, const Options& options, const Style& style)
{
    std::vector<Pursuit> pursuits;
    for (const std::string& name : options.arguments) {
        if (std::none_of(pursuits.begin(), pursuits.end(),
                         [&name](const Pursuit& one) { return one.name() == name; })) {
            pursuits.emplace_back(name, errand);
        }
    }
    Errands errands(options, std::move(pursuits));
    errands.request();
    if (options.wait) {
        errands.follow(REQUEST_LATENCY);
    }
    return errands.report(style);
}

/// The state of that word, whatever its letters' case. Throws Failure(EXIT_USAGE) for another text.
[[nodiscard]] std::string stateFromArgument(const std::string& text)
{
    std::string words;
    for (const std::string_view word : stateWords()) {
        if (g_ascii_strcasecmp(std::string(word).c_str(), text.c_str()) == 0) {
            return std::string(word);
        }
        words.append(words.empty() ? "" : ", ").append(word);
    }
    throw Failure(EXIT_USAGE, "'" + text + "' is no state (there are: " + words + ")");
}

} // namespace

ExitStatus startCommand(const Options& options, const Style& style)
{
    return carryOut(Errand::Start, options, style);
}

ExitStatus stopCommand(const Options& options, const Style& style)
{
    return carryOut(Errand::Stop, options, style);
}

ExitStatus unfreezeCommand(const Options& options, const Style& style)
{
    return carryOut(Errand::Unfreeze, options, style);
}

ExitStatus waitCommand(const Options& options, const Style& style)
{
    Errands errands(options, {Pursuit(options.arguments[0], stateFromArgument(options.arguments[1]))});
    errands.look();
    errands.follow(WAIT_LATENCY);
    return errands.report(style);
}

} // namespace Zonectl
