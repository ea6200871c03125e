#include "Daemon/DaemonCalls.h"

#include "Daemon/BusClient.h"
#include "Daemon/Names.h"

#include <utility>

namespace Zonectl {

/// A call that is under way.
struct DaemonCalls::Call
{
    std::string method;
    std::weak_ptr<GCancellable> alive;
    ReplyTaker taker;
    FailureTaker onFailure;
};

DaemonCalls::DaemonCalls(GDBusConnection* connection)
    : bus(G_DBUS_CONNECTION(g_object_ref(connection))),
      alive(g_cancellable_new(), [](GCancellable* cancellable) { g_object_unref(cancellable); })
{}

DaemonCalls::~DaemonCalls()
{
    g_cancellable_cancel(alive.get());
}

void DaemonCalls::call(const char* method, GVariant* parameters, const char* replyType,
                       std::chrono::milliseconds limit, ReplyTaker taker, FailureTaker onFailure)
{
    g_dbus_connection_call(bus.get(), Names::BUS_NAME, Names::OBJECT_PATH, Names::INTERFACE, method,
                           parameters, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                           static_cast<int>(limit.count()), alive.get(), &DaemonCalls::repliedCallback,
                           new Call{method, alive, std::move(taker), std::move(onFailure)});
}

void DaemonCalls::repliedCallback(GObject* source, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Call> ended(static_cast<Call*>(data));
    ZoneCore::GErrorPtr error;
    const ZoneCore::GVariantPtr reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, ZoneCore::OutError(error)));
    if (ended->alive.expired()) {
        return;
    }
    if (reply) {
        ended->taker(reply.get());
    } else {
        ended->onFailure({describeCallError(ended->method, error.get()), isNoAnswer(error.get())});
    }
}

void DaemonCalls::askNames(std::chrono::milliseconds limit, NamesTaker taker, FailureTaker onFailure)
{
    const auto take = [taker = std::move(taker)](GVariant* reply) { taker(namesOf(reply)); };
    call("GetZoneList", nullptr, "(as)", limit, take, std::move(onFailure));
}

void DaemonCalls::askNumber(const char* method, const std::string& zone, std::chrono::milliseconds limit,
                            NumberTaker taker, FailureTaker onFailure)
{
    const auto take = [taker = std::move(taker)](GVariant* reply) {
        gint32 number = 0;
        g_variant_get(reply, "(i)", &number);
        taker(number);
    };
    call(method, g_variant_new("(s)", zone.c_str()), "(i)", limit, take, std::move(onFailure));
}

} // namespace Zonectl
