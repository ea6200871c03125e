#pragma once

#include "CommandLine/Failure.h"
#include "Common/Handles.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Zonectl {

/// Called for each state change with the zone's name and the new state's word.
using StateHandler = std::function<void(const std::string& zone, const std::string& state)>;

/// Says in the user's words what became of a call. Strips the error's text of what the bus library put there.
[[nodiscard]] Failure describeCallError(const std::string& method, GError* error);

/// What is said when there is no bus, and when no daemon is on it.
[[nodiscard]] Failure noBus(const std::string& reason);
[[nodiscard]] Failure noDaemon();

/// Whether the error says that nobody answered a call in time.
[[nodiscard]] bool isNoAnswer(const GError* error);

/// The names of a "GetZoneList" reply.
[[nodiscard]] std::vector<std::string> namesOf(GVariant* reply);

/// A standing interest in the daemon's state signal; ends with the object.
/// The handler runs on the main context that was the thread's default when the interest began.
class StateSubscription
{
public:
    StateSubscription(GDBusConnection* bus, StateHandler handler);
    ~StateSubscription();
    StateSubscription(const StateSubscription&) = delete;
    StateSubscription& operator=(const StateSubscription&) = delete;

private:
    static void signalCallback(GDBusConnection* bus, const gchar* sender, const gchar* path,
                               const gchar* interface, const gchar* signal, GVariant* parameters,
                               gpointer data);

    GDBusConnection* connection; ///< outlives the subscription: the client owns it
    StateHandler stateHandler;
    guint id;
};

/// The daemon's methods as plain calls. Every call waits for its reply and ends by Failure: EXIT_UNREACHABLE
/// for no bus, no daemon or no answer in time, EXIT_FAILED for all else. One thread only.
class BusClient
{
public:
    /// Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured); `patience` bounds that and each
    /// call. While it connects, the main context that is the thread's default is run.
    explicit BusClient(std::chrono::milliseconds patience);

    /// The names of all containers that are defined, in the daemon's order.
    [[nodiscard]] std::vector<std::string> zoneNames() const;
    /// The number of a zone's state; -1 when the daemon refuses to speak about the zone.
    [[nodiscard]] int zoneState(const std::string& zone) const;
    /// The daemon's version; "none" when it refuses to speak about the zone.
    [[nodiscard]] std::string version(const std::string& zone) const;
    /// Calls one of the methods that take a zone and answer whether the request was queued.
    [[nodiscard]] bool request(const char* method, const std::string& zone) const;
    /// Asks for a command line to be run in a zone, as root and with an empty environment; whether that is
    /// queued.
    [[nodiscard]] bool attach(const std::string& zone, const std::vector<std::string>& commandLine) const;
    /// Whether the daemon's name has an owner on the bus.
    [[nodiscard]] bool daemonPresent() const;
    /// The process that owns the daemon's name; nothing when nobody does.
    [[nodiscard]] std::optional<pid_t> ownerPid() const;

    [[nodiscard]] std::unique_ptr<StateSubscription> onStateChange(StateHandler handler) const;
    /// The connection; owned by the client.
    [[nodiscard]] GDBusConnection* connection() const { return bus.get(); }

private:
    [[nodiscard]] ZoneCore::GVariantPtr call(const char* method, GVariant* parameters,
                                             const char* replyType) const;
    [[nodiscard]] int integerAbout(const char* method, const std::string& zone) const;

    ZoneCore::GBusConnectionPtr bus;
    int timeoutMilliseconds;
};

} // namespace Zonectl
