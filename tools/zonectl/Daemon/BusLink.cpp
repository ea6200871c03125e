#include "Daemon/BusLink.h"

#include "Daemon/Names.h"

#include <utility>

namespace Zonectl {

namespace {

constexpr guint PAUSE_MILLISECONDS = 500;
constexpr std::chrono::seconds ATTEMPT_LIMIT(5);

} // namespace

BusLink::~BusLink()
{
    if (timer != 0) {
        g_source_remove(timer);
    }
    disconnect();
}

void BusLink::connect()
{
    attempt = std::make_unique<BusAttempt>(
        ATTEMPT_LIMIT, [this](ZoneCore::GBusConnectionPtr made, const std::string& reason) {
            attempt.reset();
            made ? take(std::move(made)) : fail(reason);
        });
}

gboolean BusLink::retryCallback(gpointer data)
{
    auto* link = static_cast<BusLink*>(data);
    link->timer = 0;
    link->connect();
    return G_SOURCE_REMOVE;
}

void BusLink::take(ZoneCore::GBusConnectionPtr connection)
{
    bus = std::move(connection);
    closedHandler = g_signal_connect(bus.get(), "closed", G_CALLBACK(&BusLink::closedCallback), this);
    for (Observer* observer : observers) {
        observer->busConnected(bus.get());
    }
    nameWatch =
        g_bus_watch_name_on_connection(bus.get(), Names::BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                       &BusLink::appearedCallback, &BusLink::vanishedCallback, this, nullptr);
    if (g_dbus_connection_is_closed(bus.get()) != FALSE) { // before its end was listened for
        fail("the connection was closed");
    }
}

void BusLink::fail(const std::string& reason)
{
    present = false;
    for (Observer* observer : observers) {
        observer->busLost(reason);
    }
    disconnect();
    timer = g_timeout_add(PAUSE_MILLISECONDS, &BusLink::retryCallback, this);
}

void BusLink::disconnect()
{
    if (!bus) {
        return;
    }
    if (nameWatch != 0) {
        g_bus_unwatch_name(nameWatch);
        nameWatch = 0;
    }
    g_signal_handler_disconnect(bus.get(), closedHandler);
    bus.reset();
}

void BusLink::closedCallback(GDBusConnection* /*connection*/, gboolean /*remote*/, GError* error,
                             gpointer data)
{
    static_cast<BusLink*>(data)->fail(error == nullptr ? "the connection was closed" : error->message);
}

void BusLink::appearedCallback(GDBusConnection* /*connection*/, const gchar* /*name*/, const gchar* /*owner*/,
                               gpointer data)
{
    auto* link = static_cast<BusLink*>(data);
    link->present = true;
    for (Observer* observer : link->observers) {
        observer->daemonAppeared();
    }
}

void BusLink::vanishedCallback(GDBusConnection* connection, const gchar* /*name*/, gpointer data)
{
    auto* link = static_cast<BusLink*>(data);
    if (connection == nullptr || g_dbus_connection_is_closed(connection) != FALSE) {
        return; // the end of the connection is told by itself
    }
    link->present = false;
    for (Observer* observer : link->observers) {
        observer->daemonAbsent();
    }
}

} // namespace Zonectl
