#include "DBusCore/ZoneManagerDBusInterface.h"

#include "Common/Log.h"
#include "DBusCore/Introspection.h"
#include "ZoneCore/ZoneContext.h"
#include "ZoneCore/ZoneManager.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include <lxc/lxccontainer.h>

namespace DBusCore {

using ZoneCore::GBusConnectionPtr;
using ZoneCore::GErrorPtr;
using ZoneCore::GVariantIterPtr;
using ZoneCore::GVariantPtr;
using ZoneCore::OutError;
using ZoneCore::ZoneContext;
using ZoneCore::ZoneManager;

namespace {

using MethodHandler = void (*)(GDBusMethodInvocation* invocation, gpointer user_data);

/// One row of the call table.
struct ZoneDBusMethodEntry
{
    ZoneDBusMethod method;
    const char* name;
    MethodHandler handler;
    MethodHandler refuse; ///< answers a call that names a protection zone, or none
};

using Service = ZoneManagerDBusInterface;

constexpr std::array<ZoneDBusMethodEntry, 14> call_table{{
    {METHOD_GET_VERSION, "GetVersion", Service::getVersion, Service::returnErrorString},
    {METHOD_GET_ZONE_LIST, "GetZoneList", Service::getZoneList, Service::returnErrorString},
    {METHOD_ZONE_GET_STATE, "ZoneGetState", Service::getZoneState, Service::returnErrorInteger},
    {METHOD_ZONE_GET_PID, "ZoneGetPid", Service::getZonePid, Service::returnErrorInteger},
    {METHOD_ZONE_GET_INIT_PID, "ZoneGetInitPid", Service::getZoneInitPid, Service::returnErrorInteger},
    {METHOD_ZONE_START, "ZoneStart", Service::startZone, Service::returnErrorBoolean},
    {METHOD_ZONE_STOP, "ZoneStop", Service::stopZone, Service::returnErrorBoolean},
    {METHOD_ZONE_FREEZE, "ZoneFreeze", Service::freezeZone, Service::returnErrorBoolean},
    {METHOD_ZONE_UNFREEZE, "ZoneUnfreeze", Service::unfreezeZone, Service::returnErrorBoolean},
    {METHOD_ZONE_LOCK, "ZoneLock", Service::lockZone, Service::returnErrorBoolean},
    {METHOD_ZONE_UNLOCK, "ZoneUnlock", Service::unlockZone, Service::returnErrorBoolean},
    {METHOD_ZONE_ATTACH, "ZoneAttach", Service::attachZone, Service::returnErrorBoolean},
    {METHOD_ZONE_ATTACH_WAIT, "ZoneAttachWait", Service::attachWaitZone, Service::returnErrorInteger},
    {METHOD_NONE, nullptr, nullptr, Service::returnErrorInteger},
}};

/// A container's name as the bus takes it: names come from outside and need not be valid texts.
std::unique_ptr<gchar, ZoneCore::FreeWith<g_free>> busText(const char* name)
{
    return std::unique_ptr<gchar, ZoneCore::FreeWith<g_free>>(g_utf8_make_valid(name, -1));
}

const char* orDash(const char* text)
{
    return text == nullptr ? "-" : text;
}

/// The zone that a call names: its first argument when that is a string.
std::optional<std::string> zoneNameOf(GVariant* parameters)
{
    if (g_variant_n_children(parameters) == 0) {
        return std::nullopt;
    }
    const GVariantPtr first(g_variant_get_child_value(parameters, 0));
    if (!g_variant_is_of_type(first.get(), G_VARIANT_TYPE_STRING)) {
        return std::nullopt;
    }
    return g_variant_get_string(first.get(), nullptr);
}

/// The same for a handler, whose call has been checked to name a zone.
std::string zoneNameOf(GDBusMethodInvocation* invocation)
{
    return zoneNameOf(g_dbus_method_invocation_get_parameters(invocation)).value_or("");
}

/// The service object behind a callback's user data; null with a line in the log when there is none.
ZoneManagerDBusInterface* serviceOf(gpointer user_data)
{
    if (user_data == nullptr) {
        ZLOGE("Invalid argument - ZoneManagerDBusInterface");
    }
    return static_cast<ZoneManagerDBusInterface*>(user_data);
}

constexpr const char* VERSION = "4.0.28/4.0.12";
constexpr const char* REFUSED_STRING = "none";
constexpr int REFUSED_INTEGER = -1;

/// Sends the one reply of a call. The bus library drops a reply of another shape than the method declares:
/// the value is owned here, so that nothing is lost then.
void reply(GDBusMethodInvocation* invocation, GVariant* value)
{
    const GVariantPtr owned(g_variant_ref_sink(value));
    g_dbus_method_invocation_return_value(invocation, owned.get());
}

/// Copies of the strings of an "as" argument, with a closing null; frees the copies.
class StringVector
{
public:
    explicit StringVector(GVariant* arguments, gsize index)
    {
        const GVariantPtr value(g_variant_get_child_value(arguments, index));
        ZoneManagerDBusInterface::g_variant_get_vector(value.get(), strings);
    }
    ~StringVector()
    {
        for (const char* text : strings) {
            g_free(const_cast<char*>(text));
        }
    }
    StringVector(const StringVector&) = delete;
    StringVector& operator=(const StringVector&) = delete;

    [[nodiscard]] const char* const* data() const { return strings.data(); }

private:
    std::vector<const char*> strings;
};

constexpr GDBusInterfaceVTable METHOD_CALLS{ZoneManagerDBusInterface::callVTable, nullptr, nullptr, {}};

} // namespace

ZoneManagerDBusInterface::~ZoneManagerDBusInterface()
{
    if (nodeInfo != nullptr) {
        g_dbus_node_info_unref(nodeInfo);
    }
}

bool ZoneManagerDBusInterface::connectDBus()
{
    const std::string xml = INTROSPECTION_XML;
    GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    if (parsed == nullptr) {
        ZLOGE("Failed to make node from XML");
        return false;
    }
    nodeInfo = parsed;
    const guint id = g_bus_own_name(G_BUS_TYPE_SYSTEM, BUS_NAME, G_BUS_NAME_OWNER_FLAGS_NONE, on_bus_acquired,
                                    on_name_acquired, on_bus_lost, this, nullptr);
    if (id == 0) {
        ZLOGE("Failed to own dbus for \"%s\"", BUS_NAME);
        return false;
    }
    ownerId = id;
    return true;
}

void ZoneManagerDBusInterface::disconnectDBus()
{
    const GBusConnectionPtr current = getConnection();
    if (current == nullptr || g_dbus_connection_unregister_object(current.get(), registrationId) == FALSE) {
        return;
    }
    g_bus_unown_name(ownerId);
    registrationId = 0;
    ownerId = 0;
    setConnection(nullptr);
    g_dbus_node_info_unref(nodeInfo);
    nodeInfo = nullptr;
}

void ZoneManagerDBusInterface::setConnection(GDBusConnection* newConnection)
{
    GBusConnectionPtr replaced(newConnection == nullptr ? nullptr
                                                        : G_DBUS_CONNECTION(g_object_ref(newConnection)));
    const std::lock_guard lock(connectionMutex);
    connection.swap(replaced);
}

GBusConnectionPtr ZoneManagerDBusInterface::getConnection()
{
    const std::lock_guard lock(connectionMutex);
    return GBusConnectionPtr(connection == nullptr ? nullptr
                                                   : G_DBUS_CONNECTION(g_object_ref(connection.get())));
}

void ZoneManagerDBusInterface::on_bus_acquired(GDBusConnection* connection, const gchar* name,
                                               gpointer user_data)
{
    auto* service = serviceOf(user_data);
    if (service == nullptr) {
        return;
    }
    // A shared connection ends the process when the bus goes away, unless it is told not to.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    service->setConnection(connection);
    ZLOGI("Bus(\"%s\") is acquired", name);

    GErrorPtr error;
    const guint id =
        g_dbus_connection_register_object(connection, OBJECT_PATH, service->nodeInfo->interfaces[0],
                                          &METHOD_CALLS, user_data, nullptr, OutError(error));
    if (id > 0) {
        ZLOGI("DBus object(\"%s\") is registered(Object ID : %ud)", OBJECT_PATH, id);
        service->registrationId = id;
    } else if (error != nullptr) {
        ZLOGE("Failed to register object- %s", error->message);
    } else {
        ZLOGE("Failed to register object");
    }
}

void ZoneManagerDBusInterface::on_name_acquired(GDBusConnection* connection, const gchar* name,
                                                gpointer user_data)
{
    auto* service = serviceOf(user_data);
    if (service == nullptr) {
        return;
    }
    service->setConnection(connection);
    ZLOGI("Name(\"%s\") is acquired", name);
}

void ZoneManagerDBusInterface::on_bus_lost(GDBusConnection* connection, const gchar* name, gpointer user_data)
{
    auto* service = serviceOf(user_data);
    if (service == nullptr) {
        return;
    }
    service->setConnection(connection);
    ZLOGE("Bus is lost(\"%s\")", name);
}

ZoneDBusMethod ZoneManagerDBusInterface::getMethodName(const char* name)
{
    if (name == nullptr) {
        ZLOGE("Invalid method name");
        return METHOD_NONE;
    }
    for (const auto* entry = call_table.data(); entry->name != nullptr; ++entry) {
        if (std::strncmp(entry->name, name, std::strlen(name)) == 0) {
            ZLOGI("method name type of \"%s\" is %d", name, entry->method);
            return entry->method;
        }
    }
    ZLOGE("Failed to get method name - \"%s\"", name);
    return METHOD_NONE;
}

void ZoneManagerDBusInterface::callVTable(GDBusConnection* /*connection*/, const gchar* sender,
                                          const gchar* object_path, const gchar* interface_name,
                                          const gchar* method_name, GVariant* parameters,
                                          GDBusMethodInvocation* invocation, gpointer user_data)
{
    if (serviceOf(user_data) == nullptr) {
        g_object_unref(invocation);
        return;
    }
    const Call call{orDash(sender), orDash(object_path), orDash(interface_name), orDash(method_name)};
    ZLOGI("sender : %s / object path : %s / interface name : %s / method name : %s", call.sender,
          call.objectPath, call.interfaceName, call.methodName);

    const ZoneDBusMethod method = getMethodName(method_name);
    if (method == METHOD_NONE) {
        ZLOGE("Failed to get dbus method info");
        ZLOGE("sender : %s / object path : %s / interface name : %s / method name : %s", call.sender,
              call.objectPath, call.interfaceName, call.methodName);
        g_object_unref(invocation); // unanswered, not leaked
        return;
    }
    const ZoneDBusMethodEntry& entry = call_table[static_cast<size_t>(method)];
    if (const auto zoneName = zoneNameOf(parameters)) {
        const ZUP::ZoneType kind = ZoneContext::singleton()->getZoneType(*zoneName);
        if (kind == ZUP::ZONE_TYPE_PROTECTION || kind == ZUP::ZONE_TYPE_NONE) {
            ZLOGE("[DBus] There is no access permission to protection zone(\"%s\") - Operation is not "
                  "permitted",
                  zoneName->c_str());
            ZLOGE("sender : %s / object path : %s / interface name : %s / method name : %s", call.sender,
                  call.objectPath, call.interfaceName, call.methodName);
            entry.refuse(invocation, user_data);
            return;
        }
    }
    entry.handler(invocation, user_data);
}

bool ZoneManagerDBusInterface::emitStateChangedSignal(const gchar* zoneName, const gchar* state)
{
    const GVariantPtr parameters(g_variant_ref_sink(g_variant_new("(ss)", busText(zoneName).get(), state)));
    ZLOGI("Parameters - %s / %s", zoneName, state);

    GErrorPtr error;
    const GBusConnectionPtr current = getConnection();
    if (current != nullptr &&
        g_dbus_connection_emit_signal(current.get(), nullptr, OBJECT_PATH, INTERFACE_NAME,
                                      SIGNAL_STATE_CHANGED, parameters.get(), OutError(error)) != FALSE) {
        ZLOGI("Broadcasting Signals - %s / %s", zoneName, state);
        return true;
    }
    if (error != nullptr) {
        ZLOGE("Failed to emit signal for changing container state [%s => %s] - %s", zoneName, state,
              error->message);
    } else {
        ZLOGE("Failed to emit signal for changing container state [%s => %s]", zoneName, state);
    }
    return false;
}

// The methods, one handler for each row of the call table.

void ZoneManagerDBusInterface::returnErrorBoolean(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    reply(invocation, g_variant_new("(b)", FALSE));
}

void ZoneManagerDBusInterface::returnErrorInteger(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    reply(invocation, g_variant_new("(i)", REFUSED_INTEGER));
}

void ZoneManagerDBusInterface::returnErrorString(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    reply(invocation, g_variant_new("(s)", REFUSED_STRING));
}

void ZoneManagerDBusInterface::getVersion(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    reply(invocation, g_variant_new("(s)", VERSION));
}

void ZoneManagerDBusInterface::getZoneList(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    GVariantBuilder names;
    g_variant_builder_init(&names, G_VARIANT_TYPE("as"));
    int count = -1;
    if (const char* lxcPath = lxc_get_global_config_item("lxc.lxcpath"); lxcPath != nullptr) {
        char** listed = nullptr;
        count = list_defined_containers(lxcPath, &listed, nullptr);
        for (int index = 0; index < count; ++index) {
            g_variant_builder_add(&names, "s", busText(listed[index]).get());
            std::free(listed[index]);
        }
        if (count >= 0) { // after a failure, the list may have been freed already
            std::free(listed);
        }
    }
    if (count < 0) {
        ZLOGE("Failed to find containers(%d)", count);
    }
    reply(invocation, g_variant_new("(as)", &names));
}

void ZoneManagerDBusInterface::getZoneState(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    const std::string name = zoneNameOf(invocation);
    ZLOGI("[DBus] ZoneGetState on zone '%s'", name.c_str());
    const ZoneCore::Zone* zone = ZoneContext::singleton()->getZone(name);
    if (zone == nullptr) {
        ZLOGE("Can not find zone object (zone name : %s)", name.c_str());
        reply(invocation, g_variant_new("(i)", 0));
        return;
    }
    reply(invocation, g_variant_new("(i)", zone->container->state()));
}

void ZoneManagerDBusInterface::getZonePid(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    reply(invocation, g_variant_new("(i)", 0));
}

void ZoneManagerDBusInterface::getZoneInitPid(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    const std::string name = zoneNameOf(invocation);
    ZLOGI("[DBus] ZoneGetInitPid on zone '%s'", name.c_str());
    reply(invocation, g_variant_new("(i)", ZoneContext::singleton()->getZoneInitPID(name)));
}

void ZoneManagerDBusInterface::attachWaitZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    const std::string name = zoneNameOf(invocation);
    ZLOGI("[DBus] ZoneAttachWait on zone '%s'", name.c_str());
    reply(invocation, g_variant_new("(i)", ZoneContext::singleton()->getZoneInitPID(name)));
}

void ZoneManagerDBusInterface::startZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    const std::string name = zoneNameOf(invocation);
    ZLOGI("[DBus] ZoneStart on zone '%s'", name.c_str());
    reply(invocation, g_variant_new("(b)", ZoneManager::singleton()->startZone(name)));
}

void ZoneManagerDBusInterface::stopZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    const std::string name = zoneNameOf(invocation);
    ZLOGI("[DBus] ZoneStop on zone '%s'", name.c_str());
    reply(invocation, g_variant_new("(b)", ZoneManager::singleton()->stopZone(name)));
}

void ZoneManagerDBusInterface::unfreezeZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    const std::string name = zoneNameOf(invocation);
    ZLOGI("[DBus] ZoneUnfreeze on zone '%s'", name.c_str());
    reply(invocation, g_variant_new("(b)", ZoneManager::singleton()->unfreezeZone(name)));
}

void ZoneManagerDBusInterface::freezeZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    ZLOGI("[DBus] ZoneFreeze not implemanted");
    reply(invocation, g_variant_new("(b)", FALSE));
}

void ZoneManagerDBusInterface::lockZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    ZLOGI("[DBus] ZoneLock not implemanted");
    reply(invocation, g_variant_new("(b)", FALSE));
}

void ZoneManagerDBusInterface::unlockZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    ZLOGI("[DBus] ZoneUnlock not implemanted");
    reply(invocation, g_variant_new("(b)", FALSE));
}

void ZoneManagerDBusInterface::attachZone(GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    GVariant* arguments = g_dbus_method_invocation_get_parameters(invocation);
    const GVariantPtr zoneArgument(g_variant_get_child_value(arguments, 0));
    const std::string name = g_variant_get_string(zoneArgument.get(), nullptr);
    ZLOGI("[DBus] ZoneAttach zoneName[%s]", name.c_str());

    // The reply may end the arguments' life; these copies and the command end with this handler. The zone's
    // thread gets a pointer to the command, which it must never follow.
    const StringVector commandLine(arguments, 1);
    const StringVector environment(arguments, 2);
    ZUP::LXCAttachCommand command{};
    g_variant_get_child(arguments, 3, "i", &command.uid);
    g_variant_get_child(arguments, 4, "i", &command.gid);
    command.program = commandLine.data()[0];
    command.commandLine = commandLine.data();
    reply(invocation, g_variant_new("(b)", ZoneManager::singleton()->zoneAttach(name, &command)));
}

void ZoneManagerDBusInterface::g_variant_get_vector(GVariant* value, std::vector<const char*>& out)
{
    const GVariantIterPtr iterator(g_variant_iter_new(value));
    gchar* text = nullptr;
    while (g_variant_iter_next(iterator.get(), "s", &text) != FALSE) {
        ZLOGI("Vector element %s", text);
        out.push_back(text);
    }
    out.push_back(nullptr);
}

} // namespace DBusCore
