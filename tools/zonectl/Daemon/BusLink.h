#pragma once

#include "Common/Handles.h"
#include "Daemon/BusAttempt.h"

#include <memory>
#include <string>
#include <vector>

namespace Zonectl {

/// A connection to the system bus that is made again whenever it is lost, and whether the daemon is on that
/// bus. Nothing here waits: all is told on the main context that is the thread's default.
class BusLink
{
public:
    /// Who wants to know. What is told first was observed first, by all in the order of `observe`.
    class Observer
    {
    public:
        virtual ~Observer() = default;
        /// There is a connection; whether the daemon is on it will be told next.
        virtual void busConnected(GDBusConnection* bus) = 0;
        virtual void daemonAppeared() = 0;
        /// It left, or it is not there to begin with.
        virtual void daemonAbsent() = 0;
        /// The connection is lost, or could not be made. The next try follows by itself.
        virtual void busLost(const std::string& reason) = 0;
    };

    BusLink() = default;
    ~BusLink();
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    /// Observers live as long as the main context is run.
    void observe(Observer& observer) { observers.push_back(&observer); }
    /// Makes the first try; called once, when all observe.
    void start() { connect(); }

    /// Null while there is none.
    [[nodiscard]] GDBusConnection* connection() const { return bus.get(); }
    [[nodiscard]] bool daemonPresent() const { return present; }

private:
    static void closedCallback(GDBusConnection* connection, gboolean remote, GError* error, gpointer data);
    static void appearedCallback(GDBusConnection* connection, const gchar* name, const gchar* owner,
                                 gpointer data);
    static void vanishedCallback(GDBusConnection* connection, const gchar* name, gpointer data);
    static gboolean retryCallback(gpointer data);

    void connect();
    void take(ZoneCore::GBusConnectionPtr connection);
    void fail(const std::string& reason);
    void disconnect();

    std::vector<Observer*> observers;
    std::unique_ptr<BusAttempt> attempt; ///< null between the tries
    ZoneCore::GBusConnectionPtr bus;
    guint timer = 0; ///< until the next try
    guint nameWatch = 0;
    gulong closedHandler = 0;
    bool present = false;
};

} // namespace Zonectl
