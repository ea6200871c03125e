#include "Zones/Follower.h"

#include "Daemon/Names.h"
#include "Daemon/ZoneWords.h"
#include "Device/Containers.h"
#include "Device/ProcessTable.h"
#include "Output/Output.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace Zonectl {

namespace {

using std::chrono::milliseconds;

/// How often the state is asked for, and how long the answer may take: a signal that is lost costs this much.
constexpr milliseconds POLL_INTERVAL(1000);

[[nodiscard]] std::string secondsText(std::chrono::steady_clock::duration span)
{
    std::array<char, 32> text = {};
    const std::chrono::duration<double> seconds = span;
    static_cast<void>(std::snprintf(text.data(), text.size(), "%.1f s", seconds.count()));
    return text.data();
}

[[nodiscard]] std::string timeOver(const Pursuit& one, std::chrono::seconds limit)
{
    return "it was not " + one.goal() + " within " + std::to_string(limit.count()) +
           " s (last state: " + (one.lastState().empty() ? "unknown" : one.lastState()) + "); " +
           commandHint("explain", one.name()) + " tells what the daemon did";
}

} // namespace

Follower::Follower(const BusClient& busClient, std::vector<Pursuit>& followed, Progress& progressShown)
    : client(busClient), pursuits(followed), progress(progressShown), lxcPath(configuredLxcPath(machine)),
      calls(busClient),
      subscription(client.onStateChange(
          [this](const std::string& zone, const std::string& state) { note(zone, state); })),
      nameWatch(g_bus_watch_name_on_connection(client.connection(), Names::BUS_NAME,
                                               G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
                                               &Follower::daemonVanishedCallback, this, nullptr))
{}

Follower::~Follower()
{
    g_bus_unwatch_name(nameWatch);
}

gboolean Follower::tickCallback(gpointer data)
{
    static_cast<Follower*>(data)->tick = true;
    return G_SOURCE_CONTINUE;
}

/// Called for the end of the connection, too.
void Follower::daemonVanishedCallback(GDBusConnection* /*bus*/, const gchar* /*name*/, gpointer data)
{
    static_cast<Follower*>(data)->daemonGone = true;
}

bool Follower::anyOpen() const
{
    return std::any_of(pursuits.begin(), pursuits.end(), [](const Pursuit& one) { return one.open(); });
}

void Follower::run(std::chrono::seconds timeLimit, const std::string& latencyText)
{
    limit = timeLimit;
    latency = latencyText;
    const Clock::time_point end = Clock::now() + limit;
    const guint timer =
        g_timeout_add(static_cast<guint>(POLL_INTERVAL.count()), &Follower::tickCallback, this);
    tick = true;
    while (anyOpen() && !daemonGone && Clock::now() < end) {
        if (std::exchange(tick, false)) {
            ask();
            showStatus();
        }
        g_main_context_iteration(nullptr, TRUE);
    }
    g_source_remove(timer);
    progress.clear();
    for (Pursuit& one : pursuits) {
        if (one.open() && daemonGone) {
            one.fail(EXIT_UNREACHABLE, "the zone manager has left the bus; what was queued is lost with it");
        } else if (one.open()) {
            one.fail(EXIT_TIME_LIMIT, timeOver(one, limit));
        }
    }
}

void Follower::note(const std::string& zone, const std::string& state)
{
    for (Pursuit& one : pursuits) {
        if (one.name() == zone && one.open()) {
            one.change(state);
            std::string text = zone;
            text.append(": ").append(state).append(" (after ").append(secondsText(Clock::now() - begun));
            progress.event(text + ")");
            showStatus();
        }
    }
}

void Follower::ask()
{
    const ProcessTable processes(machine);
    for (Pursuit& one : pursuits) {
        const ProcessInfo* monitor = processes.monitorOf(lxcPath, one.name());
        const bool askable = !unaskable.contains(one.name()) && !asked.contains(one.name()) &&
                             (monitor == nullptr || !monitor->stopped());
        if (!one.open() || !askable) {
            continue;
        }
        asked.insert(one.name());
        calls.askInteger("ZoneGetState", one.name(), POLL_INTERVAL, [this, &one](std::optional<int> state) {
            asked.erase(one.name());
            if (state) {
                one.observe(stateWord(*state));
            }
        });
    }
}

void Follower::showStatus()
{
    std::string text;
    for (const Pursuit& one : pursuits) {
        if (one.open()) {
            text += (text.empty() ? "" : ", ") + one.name() + " " +
                    (one.lastState().empty() ? "?" : one.lastState());
        }
    }
    if (text.empty()) {
        return;
    }
    const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begun);
    progress.status(text + " (" + std::to_string(passed.count()) + " s of " + std::to_string(limit.count()) +
                    " s; " + latency + ")");
}

} // namespace Zonectl
