#pragma once

#include "Daemon/BusCalls.h"
#include "Daemon/BusClient.h"
#include "Device/Machine.h"
#include "Output/Progress.h"
#include "Zones/Pursuit.h"

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Zonectl {

/// Follows zones on their way by the daemon's signals and, since one may be lost, by asking now and then.
class Follower
{
public:
    /// Begins to listen, so that no change after this moment is missed. All outlive the follower.
    Follower(const BusClient& busClient, std::vector<Pursuit>& followed, Progress& progressShown);
    ~Follower();
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    /// The daemon is not to be asked about this zone: it would not answer, or not answer anybody.
    void neverAsk(const std::string& zone) { unaskable.insert(zone); }

    /// Returns when no pursuit is open any more. Those that still are when the time is up fail by that, all
    /// when the daemon goes. `latencyText` says how long it may take until something begins.
    void run(std::chrono::seconds timeLimit, const std::string& latencyText);

private:
    using Clock = std::chrono::steady_clock;

    static gboolean tickCallback(gpointer data);
    static void daemonVanishedCallback(GDBusConnection* bus, const gchar* name, gpointer data);

    [[nodiscard]] bool anyOpen() const;
    void note(const std::string& zone, const std::string& state);
    /// Asks for the states of open pursuits, but not for those of zones whose monitor has been stopped
    /// meanwhile.
    void ask();
    void showStatus();

    const BusClient& client;
    std::vector<Pursuit>& pursuits;
    Progress& progress;
    std::set<std::string> unaskable;
    std::set<std::string> asked; ///< the answer is still to come
    const Machine machine{""};
    std::string lxcPath;
    BusCalls calls;
    std::unique_ptr<StateSubscription> subscription;
    guint nameWatch;
    Clock::time_point begun = Clock::now();
    std::chrono::seconds limit{};
    std::string latency;
    bool daemonGone = false;
    bool tick = false;
};

} // namespace Zonectl
