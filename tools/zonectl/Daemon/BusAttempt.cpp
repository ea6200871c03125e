#include "Daemon/BusAttempt.h"

#include <utility>

namespace Zonectl {

BusAttempt::BusAttempt(std::chrono::milliseconds limit, Taker outcomeTaker)
    : taker(std::move(outcomeTaker)),
      timer(g_timeout_add(static_cast<guint>(limit.count()), &BusAttempt::giveUpCallback, this))
{
    using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;
    const StringPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    // The process's shared connection is never made anew, and takes the process along when it is lost.
    constexpr auto FLAGS = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    // An empty address is refused like any other that leads nowhere.
    g_dbus_connection_new_for_address(address ? address.get() : "", FLAGS, nullptr, cancellable.get(),
                                      &BusAttempt::connectedCallback, new Ticket(self));
}

BusAttempt::~BusAttempt()
{
    if (timer != 0) {
        g_source_remove(timer);
    }
    g_cancellable_cancel(cancellable.get());
}

void BusAttempt::tell(ZoneCore::GBusConnectionPtr connection, const std::string& reason)
{
    self.reset(); // what comes later is for nobody
    if (timer != 0) {
        g_source_remove(std::exchange(timer, 0));
    }
    // The taker is not kept where it could be destroyed while it runs.
    const Taker outcomeTaker = std::move(taker);
    outcomeTaker(std::move(connection), reason);
}

gboolean BusAttempt::giveUpCallback(gpointer data)
{
    auto* attempt = static_cast<BusAttempt*>(data);
    attempt->timer = 0;
    // The bus library does not let everything be cancelled: what it waits for is not waited for here.
    g_cancellable_cancel(attempt->cancellable.get());
    attempt->tell(nullptr, "it did not answer in time");
    return G_SOURCE_REMOVE;
}

void BusAttempt::connectedCallback(GObject* /*source*/, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Ticket> ticket(static_cast<Ticket*>(data));
    ZoneCore::GErrorPtr error;
    ZoneCore::GBusConnectionPtr made(
        g_dbus_connection_new_for_address_finish(result, ZoneCore::OutError(error)));
    if (const auto alive = ticket->lock()) {
        (*alive)->tell(std::move(made), error ? error->message : "");
    }
}

} // namespace Zonectl
