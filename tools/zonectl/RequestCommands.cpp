#include "BusClient.h"
#include "Commands.h"
#include "Json.h"
#include "ZoneWords.h"

#include <chrono>
#include <iostream>
#include <utility>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;

/// A request that the daemon queues, and the state in which it has been carried out.
struct Request
{
    const char* verb;
    const char* method;
    const char* goal;
};

constexpr Request START = {"start", "ZoneStart", "RUNNING"};
constexpr Request STOP = {"stop", "ZoneStop", "STOPPED"};
constexpr Request UNFREEZE = {"unfreeze", "ZoneUnfreeze", "RUNNING"};

/// How often the state is asked for while waiting: a signal that is lost costs this much and no more.
constexpr guint POLL_MILLISECONDS = 1000;

/// Follows one zone until it is in the wanted state or the time is up.
class StateWaiter
{
public:
    /// Begins to listen, so that no change after this moment is missed.
    StateWaiter(const BusClient& busClient, std::string zoneName, std::string wantedState)
        : client(busClient), zone(std::move(zoneName)), wanted(std::move(wantedState)),
          subscription(client.onStateChange([this](const std::string& name, const std::string& state) {
              if (name == zone) {
                  note(state);
              }
          }))
    {}

    /// Returns whether the wanted state was seen within the time. Throws what a call throws.
    [[nodiscard]] bool wait(std::chrono::seconds patience)
    {
        const Clock::time_point end = Clock::now() + patience;
        const guint timer = g_timeout_add(POLL_MILLISECONDS, &StateWaiter::pollCallback, this);
        const auto stopPolling = std::unique_ptr<const guint, RemoveSource>(&timer);
        note(stateWord(client.zoneState(zone)));
        while (!reached && Clock::now() < end) {
            g_main_context_iteration(nullptr, TRUE);
            // cppcheck-suppress knownConditionTrueFalse; the iteration calls note().
            if (!reached && std::exchange(pollDue, false)) {
                note(stateWord(client.zoneState(zone)));
            }
        }
        return reached;
    }

    /// The last state that was seen.
    [[nodiscard]] const std::string& lastState() const { return last; }

private:
    struct RemoveSource
    {
        void operator()(const guint* id) const { g_source_remove(*id); }
    };

    static gboolean pollCallback(gpointer data)
    {
        static_cast<StateWaiter*>(data)->pollDue = true;
        return G_SOURCE_CONTINUE;
    }

    /// The wanted state counts even when another one follows at once.
    void note(const std::string& state)
    {
        last = reached ? last : state;
        reached = reached || state == wanted;
    }

    const BusClient& client;
    std::string zone;
    std::string wanted;
    std::string last = "NONE";
    bool reached = false;
    bool pollDue = false;
    std::unique_ptr<StateSubscription> subscription;
};

void printOutcome(const Options& options, const Request& request, const std::string* state)
{
    const std::string& zone = options.arguments[0];
    if (!options.json) {
        if (state != nullptr) {
            std::cout << printable(zone) << ": " << *state << "\n";
        }
        return;
    }
    JsonWriter json;
    json.beginObject()
        .name("name")
        .text(zone)
        .name("request")
        .text(request.verb)
        .name("queued")
        .boolean(true);
    if (state != nullptr) {
        json.name("state").text(*state).name("done").boolean(*state == request.goal);
    }
    std::cout << json.endObject().finish(JsonWriter::Layout::Indented) << "\n";
}

/// Sends a request and, when asked to, waits for it to be carried out.
[[nodiscard]] ExitStatus carryOut(const Request& request, const Options& options)
{
    const std::string& zone = options.arguments[0];
    const BusClient client(options.patience());
    StateWaiter waiter(client, zone, request.goal);
    if (!client.request(request.method, zone)) {
        throw Failure(EXIT_FAILED, std::string("the ") + request.verb + " of zone '" + zone +
                                       "' was refused: it is a protection zone, the daemon does not have "
                                       "it, or it is not ready");
    }
    const std::string seconds = std::to_string(options.patience().count());
    if (!options.wait) {
        if (!options.json) {
            std::cout << printable(zone) << ": " << request.verb
                      << " is queued; 'zonectl state' or --wait tells the outcome\n";
        }
        printOutcome(options, request, nullptr);
        return EXIT_OK;
    }
    if (!options.json) {
        std::cout << printable(zone) << ": " << request.verb << " is queued; waiting up to " << seconds
                  << " s for " << request.goal << std::endl;
    }
    const bool reached = waiter.wait(options.patience());
    printOutcome(options, request, &waiter.lastState());
    if (!reached) {
        throw Failure(EXIT_FAILED, "zone '" + zone + "' was not " + request.goal + " within " + seconds +
                                       " s (last state: " + waiter.lastState() + ")");
    }
    return EXIT_OK;
}

} // namespace

ExitStatus startCommand(const Options& options, const Style& /*style*/)
{
    return carryOut(START, options);
}

ExitStatus stopCommand(const Options& options, const Style& /*style*/)
{
    return carryOut(STOP, options);
}

ExitStatus unfreezeCommand(const Options& options, const Style& /*style*/)
{
    return carryOut(UNFREEZE, options);
}

} // namespace Zonectl
