#pragma once

#include "Common/Handles.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace Zonectl {

/// One try to connect to the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured), by a connection of its own.
/// It is given up when its time is over: who listens at the address need not be a bus. Nothing here waits;
/// the outcome is told on the main context that is the thread's default, or never when the object ends first.
class BusAttempt
{
public:
    /// Gets the connection, or none and the reason. May end the attempt.
    using Taker = std::function<void(ZoneCore::GBusConnectionPtr connection, const std::string& reason)>;

    BusAttempt(std::chrono::milliseconds limit, Taker outcomeTaker);
    ~BusAttempt();
    BusAttempt(const BusAttempt&) = delete;
    BusAttempt& operator=(const BusAttempt&) = delete;

private:
    /// What the callback keeps, which may come back when the attempt is gone.
    using Ticket = std::weak_ptr<BusAttempt*>;

    static void connectedCallback(GObject* source, GAsyncResult* result, gpointer data);
    static gboolean giveUpCallback(gpointer data);
    /// Tells the outcome, once. The object may be gone afterwards.
    void tell(ZoneCore::GBusConnectionPtr connection, const std::string& reason);

    std::shared_ptr<BusAttempt*> self = std::make_shared<BusAttempt*>(this);
    std::unique_ptr<GCancellable, ZoneCore::FreeWith<g_object_unref>> cancellable{g_cancellable_new()};
    Taker taker;
    guint timer; ///< 0 when it has run or is not needed any more
};

} // namespace Zonectl
