#include "BusCalls.h"

#include "Names.h"

#include <utility>

namespace Zonectl {

/// What a reply needs to find its way back.
struct BusCalls::Call
{
    BusCalls* owner;
    std::string method;
    ReplyHandler handler;
};

BusCalls::BusCalls(const BusClient& busClient) : client(busClient), cancellable(g_cancellable_new()) {}

BusCalls::~BusCalls()
{
    // A cancelled call comes back by itself, and must find its owner then.
    g_cancellable_cancel(cancellable.get());
    finish();
}

void BusCalls::begin(const char* method, GVariant* parameters, const char* replyType,
                     std::chrono::milliseconds patience, ReplyHandler handler)
{
    auto call = std::make_unique<Call>(Call{this, method, std::move(handler)});
    ++underWay;
    g_dbus_connection_call(client.connection(), Names::BUS_NAME, Names::OBJECT_PATH, Names::INTERFACE, method,
                           parameters, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                           static_cast<int>(patience.count()), cancellable.get(), &BusCalls::replyCallback,
                           call.release());
}

void BusCalls::replyCallback(GObject* source, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Call> call(static_cast<Call*>(data));
    BusCalls& self = *call->owner;
    ZoneCore::GErrorPtr error;
    const ZoneCore::GVariantPtr reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, ZoneCore::OutError(error)));
    --self.underWay;
    if (g_cancellable_is_cancelled(self.cancellable.get()) != FALSE) {
        return;
    }
    if (!reply && !isNoAnswer(error.get())) {
        if (!self.failure) {
            self.failure = describeCallError(call->method, error.get());
        }
        return;
    }
    call->handler(reply.get());
}

void BusCalls::askInteger(const char* method, const std::string& zone, std::chrono::milliseconds patience,
                          IntegerHandler handler)
{
    begin(method, g_variant_new("(s)", zone.c_str()), "(i)", patience,
          [handler = std::move(handler)](GVariant* reply) {
              gint32 value = 0;
              if (reply == nullptr) {
                  handler(std::nullopt);
                  return;
              }
              g_variant_get(reply, "(i)", &value);
              handler(value);
          });
}

void BusCalls::askNames(std::chrono::milliseconds patience, NamesHandler handler)
{
    begin("GetZoneList", nullptr, "(as)", patience, [handler = std::move(handler)](GVariant* reply) {
        handler(reply == nullptr ? std::nullopt : std::optional(namesOf(reply)));
    });
}

void BusCalls::finish()
{
    while (underWay > 0) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

void BusCalls::check() const
{
    if (failure) {
        throw Failure(*failure);
    }
}

std::vector<std::string> namesOf(GVariant* reply)
{
    const ZoneCore::GVariantPtr list(g_variant_get_child_value(reply, 0));
    std::vector<std::string> names;
    for (gsize i = 0; i < g_variant_n_children(list.get()); ++i) {
        const ZoneCore::GVariantPtr name(g_variant_get_child_value(list.get(), i));
        names.emplace_back(g_variant_get_string(name.get(), nullptr));
    }
    return names;
}

} // namespace Zonectl
