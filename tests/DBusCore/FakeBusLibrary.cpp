#include "tests/DBusCore/FakeBusLibrary.h"

#include "Common/Log.h"
#include "Common/ZoneEvent.h"
#include "Common/ZoneTypes.h"
#include "DBusCore/Introspection.h"

#include "tests/support/unit/Seam.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

using ZoneCore::FreeWith;
using ZoneCore::GBusConnectionPtr;
using ZoneCore::GVariantPtr;
using ZoneCore::ZoneEvent;

namespace ZoneTest {

namespace {

constexpr const char* PARAMETERS = "parameters";
FakeBusLibrary* current = nullptr;

std::string textOf(GVariant* value)
{
    const std::unique_ptr<gchar, FreeWith<g_free>> text(g_variant_print(value, TRUE));
    return text.get();
}

void setError(GError** error)
{
    if (current->error != nullptr) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, current->error);
    }
}

std::string orDash(const char* text)
{
    return text == nullptr ? "-" : text;
}

} // namespace

FakeBusLibrary::FakeBusLibrary()
{
    current = this;
}

FakeBusLibrary::~FakeBusLibrary()
{
    current = nullptr;
}

GBusConnectionPtr FakeBusLibrary::newConnection()
{
    return GBusConnectionPtr(G_DBUS_CONNECTION(g_object_new(G_TYPE_DBUS_CONNECTION, nullptr)));
}

void FakeBusLibrary::during(const std::string& function, std::function<void()> step)
{
    steps[function] = std::move(step);
}

void FakeBusLibrary::tell(const char* function, const std::string& arguments)
{
    ZLOGD("%s %s", function, arguments.c_str());
    if (const auto step = steps.find(function); step != steps.end()) {
        step->second();
    }
}

std::string FakeBusLibrary::attachRequest() const
{
    if (eventData == nullptr) {
        return "none";
    }
    const auto* command = static_cast<const ZUP::LXCAttachCommand*>(eventData);
    std::string line;
    for (const char* const* word = command->commandLine; *word != nullptr; ++word) {
        line += (line.empty() ? "" : " ") + std::string(*word);
    }
    return std::to_string(command->uid) + " " + std::to_string(command->gid) + " " +
           orDash(command->program) + " [" + line + "]";
}

FakeCall::FakeCall(const std::string& arguments) : object(G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr)))
{
    GVariant* value = g_variant_parse(nullptr, arguments.c_str(), nullptr, nullptr, nullptr);
    EXPECT_NE(value, nullptr) << arguments;
    g_object_set_data_full(object, PARAMETERS, value,
                           [](gpointer data) { g_variant_unref(static_cast<GVariant*>(data)); });
}

FakeCall::~FakeCall()
{
    g_object_unref(object);
}

GDBusMethodInvocation* FakeCall::handOver() const
{
    return reinterpret_cast<GDBusMethodInvocation*>(g_object_ref(object));
}

GVariant* FakeCall::parameters() const
{
    return static_cast<GVariant*>(g_object_get_data(object, PARAMETERS));
}

bool FakeCall::isReleased() const
{
    return g_atomic_int_get(&object->ref_count) == 1;
}

} // namespace ZoneTest

using ZoneTest::current;
using ZoneTest::genuine;
using ZoneTest::orDash;
using ZoneTest::setError;
using ZoneTest::textOf;

extern "C" {

GDBusNodeInfo* g_dbus_node_info_new_for_xml(const gchar* xml, GError** error)
{
    current->node = current->parses
                        ? genuine(&g_dbus_node_info_new_for_xml, "g_dbus_node_info_new_for_xml")(xml, error)
                        : nullptr;
    current->tell("g_dbus_node_info_new_for_xml",
                  std::string(xml) == DBusCore::INTROSPECTION_XML ? "the interface" : "another");
    return current->node;
}

void g_dbus_node_info_unref(GDBusNodeInfo* node)
{
    current->tell("g_dbus_node_info_unref", node == current->node ? "the node" : "another");
    genuine(&g_dbus_node_info_unref, "g_dbus_node_info_unref")(node);
}

guint g_bus_own_name(GBusType type, const gchar* name, GBusNameOwnerFlags flags,
                     GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                     GBusNameLostCallback nameLost, gpointer userData, GDestroyNotify destroyUserData)
{
    current->owner = {busAcquired, nameAcquired, nameLost, userData, destroyUserData};
    current->tell("g_bus_own_name", std::string(type == G_BUS_TYPE_SYSTEM ? "system" : "another") + " " +
                                        name + " " + std::to_string(flags));
    return current->ownerId;
}

void g_bus_unown_name(guint id)
{
    current->tell("g_bus_unown_name", std::to_string(id));
}

void g_dbus_connection_set_exit_on_close(GDBusConnection* connection, gboolean exits)
{
    current->connection = connection;
    current->tell("g_dbus_connection_set_exit_on_close", std::to_string(exits));
}

guint g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                        GDBusInterfaceInfo* interface, const GDBusInterfaceVTable* calls,
                                        gpointer userData, GDestroyNotify destroyUserData, GError** error)
{
    current->connection = connection;
    current->object = {connection, interface, *calls, userData, destroyUserData};
    current->tell("g_dbus_connection_register_object", std::string(path) + " " + interface->name);
    if (current->registrationId == 0) {
        setError(error);
    }
    return current->registrationId;
}

gboolean g_dbus_connection_unregister_object(GDBusConnection* connection, guint id)
{
    current->connection = connection;
    current->tell("g_dbus_connection_unregister_object", std::to_string(id));
    return current->unregisters ? TRUE : FALSE;
}

gboolean g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination,
                                       const gchar* path, const gchar* interface, const gchar* signal,
                                       GVariant* parameters, GError** error)
{
    const GVariantPtr taken(g_variant_ref_sink(parameters));
    current->connection = connection;
    current->tell("g_dbus_connection_emit_signal", orDash(destination) + " " + path + " " + interface + " " +
                                                       signal + " " + textOf(parameters));
    if (!current->emits) {
        setError(error);
    }
    return current->emits ? TRUE : FALSE;
}

GVariant* g_dbus_method_invocation_get_parameters(GDBusMethodInvocation* invocation)
{
    return static_cast<GVariant*>(
        g_object_get_data(reinterpret_cast<GObject*>(invocation), ZoneTest::PARAMETERS));
}

/// Takes the caller's reference of the call, as the bus library does.
void g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation, GVariant* value)
{
    // It does not look after the reference of a value that it does not deliver.
    EXPECT_FALSE(g_variant_is_floating(value));
    current->tell("g_dbus_method_invocation_return_value", textOf(value));
    g_object_unref(invocation);
}

/// Not of the bus library: how a request reaches its zone's thread.
void g_async_queue_push_unlocked(GAsyncQueue* queue, gpointer data)
{
    if (current != nullptr) {
        const auto* event = static_cast<const ZoneEvent*>(data);
        current->eventData = event->eventData;
        current->tell("g_async_queue_push_unlocked",
                      std::to_string(event->eventType) + " " + std::to_string(event->zoneState));
    }
    genuine(&g_async_queue_push_unlocked, "g_async_queue_push_unlocked")(queue, data);
}

} // extern "C"
