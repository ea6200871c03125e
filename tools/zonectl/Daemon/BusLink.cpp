#include "Daemon/BusLink.h"

#include "Daemon/Names.h"

#include <utility>

namespace Zonectl {

namespace {

constexpr guint PAUSE_MILLISECONDS = 500;
constexpr guint ATTEMPT_MILLISECONDS = 5000;

} // namespace

BusLink::~BusLink()
{
    if (timer != 0) {
        g_source_remove(timer);
    }
    if (attempt) {
        g_cancellable_cancel(attempt.get());
    }
    disconnect();
}

void BusLink::connect()
{
    using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;
    ZoneCore::GErrorPtr error;
    const StringPtr address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, ZoneCore::OutError(error)));
    if (!address) {
        fail(error->message);
        return;
    }
    attempt.reset(g_cancellable_new());
    timer = g_timeout_add(ATTEMPT_MILLISECONDS, &BusLink::giveUpCallback, this);
    // The process's shared connection would never be made anew.
    constexpr auto FLAGS = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_dbus_connection_new_for_address(address.get(), FLAGS, nullptr, attempt.get(),
                                      &BusLink::connectedCallback, new Ticket(self));
}

gboolean BusLink::giveUpCallback(gpointer data)
{
    auto* link = static_cast<BusLink*>(data);
    link->timer = 0;
    g_cancellable_cancel(link->attempt.get());
    return G_SOURCE_REMOVE;
}

gboolean BusLink::retryCallback(gpointer data)
{
    auto* link = static_cast<BusLink*>(data);
    link->timer = 0;
    link->connect();
    return G_SOURCE_REMOVE;
}

void BusLink::connectedCallback(GObject* /*source*/, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Ticket> ticket(static_cast<Ticket*>(data));
    ZoneCore::GErrorPtr error;
    ZoneCore::GBusConnectionPtr made(
        g_dbus_connection_new_for_address_finish(result, ZoneCore::OutError(error)));
    const auto alive = ticket->lock();
    if (!alive) {
        return;
    }
    BusLink& link = **alive;
    link.attempt.reset();
    if (link.timer != 0) {
        g_source_remove(link.timer);
        link.timer = 0;
    }
    made ? link.take(std::move(made)) : link.fail(error->message);
}

void BusLink::take(ZoneCore::GBusConnectionPtr connection)
{
    bus = std::move(connection);
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
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
