#include "Daemon/BusClient.h"

#include "Daemon/BusAttempt.h"
#include "Daemon/Names.h"

#include <utility>

namespace Zonectl {

namespace {

[[nodiscard]] bool isDBusError(const GError* error, GDBusError code)
{
    return g_error_matches(error, G_DBUS_ERROR, code) != FALSE;
}

[[nodiscard]] bool isIOError(const GError* error, GIOErrorEnum code)
{
    return g_error_matches(error, G_IO_ERROR, code) != FALSE;
}

} // namespace

bool isNoAnswer(const GError* error)
{
    return isDBusError(error, G_DBUS_ERROR_NO_REPLY) || isDBusError(error, G_DBUS_ERROR_TIMEOUT) ||
           isIOError(error, G_IO_ERROR_TIMED_OUT);
}

Failure noBus(const std::string& reason)
{
    return {EXIT_UNREACHABLE, "cannot reach the system bus: " + reason};
}

Failure noDaemon()
{
    return {EXIT_UNREACHABLE,
            "the zone manager is not running (nobody owns " + std::string(Names::BUS_NAME) + ")"};
}

Failure describeCallError(const std::string& method, GError* error)
{
    if (isDBusError(error, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        isDBusError(error, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        return noDaemon();
    }
    if (isNoAnswer(error)) {
        return {EXIT_UNREACHABLE, "the zone manager did not answer " + method};
    }
    if (isIOError(error, G_IO_ERROR_CLOSED) || isDBusError(error, G_DBUS_ERROR_DISCONNECTED)) {
        return {EXIT_UNREACHABLE, "the connection to the bus was lost during " + method};
    }
    if (isDBusError(error, G_DBUS_ERROR_ACCESS_DENIED)) {
        return {EXIT_FAILED, "the bus does not permit you to call " + method + " (are you root?)"};
    }
    if (isDBusError(error, G_DBUS_ERROR_UNKNOWN_OBJECT) || isDBusError(error, G_DBUS_ERROR_UNKNOWN_METHOD) ||
        isDBusError(error, G_DBUS_ERROR_UNKNOWN_INTERFACE)) {
        return {EXIT_FAILED,
                "the program behind " + std::string(Names::BUS_NAME) + " does not offer " + method};
    }
    if (isIOError(error, G_IO_ERROR_INVALID_ARGUMENT)) {
        return {EXIT_FAILED, "the zone manager answered " + method + " in an unexpected form"};
    }
    g_dbus_error_strip_remote_error(error);
    return {EXIT_FAILED, method + " failed: " + error->message};
}

StateSubscription::StateSubscription(GDBusConnection* bus, StateHandler handler)
    : connection(bus), stateHandler(std::move(handler)),
      id(g_dbus_connection_signal_subscribe(bus, Names::BUS_NAME, Names::INTERFACE, Names::STATE_SIGNAL,
                                            Names::OBJECT_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                            &StateSubscription::signalCallback, this, nullptr))
{}

StateSubscription::~StateSubscription()
{
    g_dbus_connection_signal_unsubscribe(connection, id);
}

void StateSubscription::signalCallback(GDBusConnection* /*bus*/, const gchar* /*sender*/,
                                       const gchar* /*path*/, const gchar* /*interface*/,
                                       const gchar* /*signal*/, GVariant* parameters, gpointer data)
{
    // The introspection data declare no arguments, so the shape is nobody's promise and is looked at here.
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)")) == FALSE) {
        return;
    }
    const gchar* zone = nullptr;
    const gchar* state = nullptr;
    g_variant_get(parameters, "(&s&s)", &zone, &state);
    static_cast<StateSubscription*>(data)->stateHandler(zone, state);
}

BusClient::BusClient(std::chrono::milliseconds patience)
    : timeoutMilliseconds(static_cast<int>(patience.count()))
{
    bool over = false;
    std::string trouble;
    const BusAttempt attempt(patience, [&](ZoneCore::GBusConnectionPtr made, const std::string& reason) {
        bus = std::move(made);
        trouble = reason;
        over = true;
    });
    while (!over) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (!bus) {
        throw noBus(trouble);
    }
}

ZoneCore::GVariantPtr BusClient::call(const char* method, GVariant* parameters, const char* replyType) const
{
    ZoneCore::GErrorPtr error;
    ZoneCore::GVariantPtr reply(
        g_dbus_connection_call_sync(bus.get(), Names::BUS_NAME, Names::OBJECT_PATH, Names::INTERFACE, method,
                                    parameters, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                    timeoutMilliseconds, nullptr, ZoneCore::OutError(error)));
    if (!reply) {
        throw describeCallError(method, error.get());
    }
    return reply;
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

std::vector<std::string> BusClient::zoneNames() const
{
    return namesOf(call("GetZoneList", nullptr, "(as)").get());
}

int BusClient::integerAbout(const char* method, const std::string& zone) const
{
    const ZoneCore::GVariantPtr reply = call(method, g_variant_new("(s)", zone.c_str()), "(i)");
    gint32 value = 0;
    g_variant_get(reply.get(), "(i)", &value);
    return value;
}

int BusClient::zoneState(const std::string& zone) const
{
    return integerAbout("ZoneGetState", zone);
}

std::string BusClient::version(const std::string& zone) const
{
    const ZoneCore::GVariantPtr reply = call("GetVersion", g_variant_new("(s)", zone.c_str()), "(s)");
    const gchar* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    return text;
}

bool BusClient::request(const char* method, const std::string& zone) const
{
    const ZoneCore::GVariantPtr reply = call(method, g_variant_new("(s)", zone.c_str()), "(b)");
    gboolean queued = FALSE;
    g_variant_get(reply.get(), "(b)", &queued);
    return queued != FALSE;
}

bool BusClient::attach(const std::string& zone, const std::vector<std::string>& commandLine) const
{
    GVariantBuilder command;
    g_variant_builder_init(&command, G_VARIANT_TYPE("as"));
    for (const std::string& word : commandLine) {
        g_variant_builder_add(&command, "s", word.c_str());
    }
    constexpr gint32 ROOT = 0;
    const ZoneCore::GVariantPtr reply =
        call("ZoneAttach", g_variant_new("(sasasii)", zone.c_str(), &command, nullptr, ROOT, ROOT), "(b)");
    gboolean queued = FALSE;
    g_variant_get(reply.get(), "(b)", &queued);
    return queued != FALSE;
}

bool BusClient::daemonPresent() const
{
    ZoneCore::GErrorPtr error;
    const ZoneCore::GVariantPtr reply(g_dbus_connection_call_sync(
        bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
        g_variant_new("(s)", Names::BUS_NAME), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE,
        timeoutMilliseconds, nullptr, ZoneCore::OutError(error)));
    if (!reply) {
        throw describeCallError("NameHasOwner", error.get());
    }
    gboolean present = FALSE;
    g_variant_get(reply.get(), "(b)", &present);
    return present != FALSE;
}

std::optional<pid_t> BusClient::ownerPid() const
{
    constexpr const char* METHOD = "GetConnectionUnixProcessID";
    ZoneCore::GErrorPtr error;
    const ZoneCore::GVariantPtr reply(g_dbus_connection_call_sync(
        bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", METHOD,
        g_variant_new("(s)", Names::BUS_NAME), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
        timeoutMilliseconds, nullptr, ZoneCore::OutError(error)));
    if (g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE) {
        return std::nullopt;
    }
    if (!reply) {
        throw describeCallError(METHOD, error.get());
    }
    guint pid = 0;
    g_variant_get(reply.get(), "(u)", &pid);
    return static_cast<pid_t>(pid);
}

std::unique_ptr<StateSubscription> BusClient::onStateChange(StateHandler handler) const
{
    return std::make_unique<StateSubscription>(bus.get(), std::move(handler));
}

} // namespace Zonectl
