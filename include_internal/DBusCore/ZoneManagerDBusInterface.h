#pragma once

#include "Common/Handles.h"

#include <gio/gio.h>

#include <mutex>
#include <vector>

namespace DBusCore {

/// The number of a bus method: its row in the call table.
enum ZoneDBusMethod
{
    METHOD_NONE = -1,
    METHOD_GET_VERSION = 0,
    METHOD_GET_ZONE_LIST,
    METHOD_ZONE_GET_STATE,
    METHOD_ZONE_GET_PID,
    METHOD_ZONE_GET_INIT_PID,
    METHOD_ZONE_START,
    METHOD_ZONE_STOP,
    METHOD_ZONE_FREEZE,
    METHOD_ZONE_UNFREEZE,
    METHOD_ZONE_LOCK,
    METHOD_ZONE_UNLOCK,
    METHOD_ZONE_ATTACH,
    METHOD_ZONE_ATTACH_WAIT,
};

/// The daemon's service on the system bus: one object with one interface. It owns the well-known name,
/// dispatches each call through the call table, refuses calls that name a protection zone or no zone at all,
/// and broadcasts the state changes.
///
/// Threads: the bus callbacks and every handler run on the main thread; emitStateChangedSignal on the
/// monitor's.
class ZoneManagerDBusInterface
{
public:
    ZoneManagerDBusInterface() = default;
    ~ZoneManagerDBusInterface();
    ZoneManagerDBusInterface(const ZoneManagerDBusInterface&) = delete;
    ZoneManagerDBusInterface& operator=(const ZoneManagerDBusInterface&) = delete;

    /// Parses the introspection data and asks for the bus name. The callbacks run on the caller's main
    /// context.
    [[nodiscard]] bool connectDBus();

    /// Takes the object off the bus and, when that worked, gives up the name and everything else.
    void disconnectDBus();

    /// Broadcasts a state change.
    /// @param zoneName of any container; @param state its new state's word
    [[nodiscard]] bool emitStateChangedSignal(const gchar* zoneName, const gchar* state);

    // Called by the bus library; user_data is the service object.
    static void on_bus_acquired(GDBusConnection* connection, const gchar* name, gpointer user_data);
    static void on_name_acquired(GDBusConnection* connection, const gchar* name, gpointer user_data);
    static void on_bus_lost(GDBusConnection* connection, const gchar* name, gpointer user_data);
    static void callVTable(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                           const gchar* interface_name, const gchar* method_name, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer user_data);

    /// The method whose name begins with the given one, METHOD_NONE when there is none.
    [[nodiscard]] static ZoneDBusMethod getMethodName(const char* name);

    // The refusals: each answers with a fixed value and looks at nothing.
    static void returnErrorBoolean(GDBusMethodInvocation* invocation, gpointer user_data);
    static void returnErrorInteger(GDBusMethodInvocation* invocation, gpointer user_data);
    static void returnErrorString(GDBusMethodInvocation* invocation, gpointer user_data);

    // The methods: each answers exactly once. A true reply to a request means that it was queued.
    static void getVersion(GDBusMethodInvocation* invocation, gpointer user_data);
    static void getZoneList(GDBusMethodInvocation* invocation, gpointer user_data);
    static void getZoneState(GDBusMethodInvocation* invocation, gpointer user_data);
    static void getZonePid(GDBusMethodInvocation* invocation, gpointer user_data);
    static void getZoneInitPid(GDBusMethodInvocation* invocation, gpointer user_data);
    static void startZone(GDBusMethodInvocation* invocation, gpointer user_data);
    static void stopZone(GDBusMethodInvocation* invocation, gpointer user_data);
    static void freezeZone(GDBusMethodInvocation* invocation, gpointer user_data);
    static void unfreezeZone(GDBusMethodInvocation* invocation, gpointer user_data);
    static void lockZone(GDBusMethodInvocation* invocation, gpointer user_data);
    static void unlockZone(GDBusMethodInvocation* invocation, gpointer user_data);
    static void attachZone(GDBusMethodInvocation* invocation, gpointer user_data);
    static void attachWaitZone(GDBusMethodInvocation* invocation, gpointer user_data);

    /// Reads an "as" value: newly allocated copies of its strings, then one null. The caller frees the
    /// copies.
    static void g_variant_get_vector(GVariant* value, std::vector<const char*>& out);

private:
    /// Who called what, for the log; a missing word is shown as "-".
    struct Call
    {
        const char* sender;
        const char* objectPath;
        const char* interfaceName;
        const char* methodName;
    };

    void setConnection(GDBusConnection* newConnection);
    [[nodiscard]] ZoneCore::GBusConnectionPtr getConnection();

    /// Null until the bus is acquired and after it is lost. Written by the main thread, read by the
    /// monitor's: both under the mutex, which is held for no more than the copy of a reference.
    ZoneCore::GBusConnectionPtr connection;
    GDBusNodeInfo* nodeInfo = nullptr;
    guint32 registrationId = 0;
    guint32 ownerId = 0;
    std::mutex connectionMutex;
};

} // namespace DBusCore
