#pragma once

#include "Common/Handles.h"

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

/// The functions of the bus library that the service calls, replaced in a program that has FakeBusLibrary.cpp
/// among its sources: such a program needs no bus, and any of them may fail.
namespace ZoneTest {

/// What the replaced functions answer and were given, as long as the object lives; one at a time.
///
/// Each call is written to the log at debug level, "FUNCTION ARGUMENTS...", which is no level of the
/// service's own: that tells its place among the service's records.
class FakeBusLibrary
{
public:
    FakeBusLibrary();
    ~FakeBusLibrary();
    FakeBusLibrary(const FakeBusLibrary&) = delete;
    FakeBusLibrary& operator=(const FakeBusLibrary&) = delete;

    /// A connection that leads nowhere.
    [[nodiscard]] static ZoneCore::GBusConnectionPtr newConnection();

    /// Has something done during the calls of a function, before it answers.
    void during(const std::string& function, std::function<void()> step);

    // The answers.
    bool parses = true;
    guint ownerId = 7;           ///< 0: the name cannot be owned
    guint registrationId = 3;    ///< 0: the object cannot be registered
    bool emits = true;           ///< the signal can be sent
    const char* error = nullptr; ///< the message of what fails; null: it fails without an error
    bool unregisters = true;

    // What the last call was given.
    GDBusNodeInfo* node = nullptr; ///< what the introspection data became
    struct
    {
        GBusAcquiredCallback busAcquired;
        GBusNameAcquiredCallback nameAcquired;
        GBusNameLostCallback nameLost;
        gpointer userData;
        GDestroyNotify destroyUserData;
    } owner{};
    struct
    {
        GDBusConnection* connection;
        GDBusInterfaceInfo* interface;
        GDBusInterfaceVTable calls;
        gpointer userData;
        GDestroyNotify destroyUserData;
    } object{};
    GDBusConnection* connection = nullptr; ///< of the last call that names one
    const void* eventData = nullptr;       ///< of the last event

    /// The last event's data, taken for an attach request: "UID GID PROGRAM [LINE...]".
    [[nodiscard]] std::string attachRequest() const;

    /// Writes a call of a replaced function to the log, and does what is to be done during it.
    void tell(const char* function, const std::string& arguments);

private:
    std::map<std::string, std::function<void()>> steps;
};

/// A method call as the bus library hands it over.
class FakeCall
{
public:
    /// @param arguments a tuple in GVariant's text form
    explicit FakeCall(const std::string& arguments);
    ~FakeCall();
    FakeCall(const FakeCall&) = delete;
    FakeCall& operator=(const FakeCall&) = delete;

    /// For the one who is to answer, with a reference of his own.
    [[nodiscard]] GDBusMethodInvocation* handOver() const;
    [[nodiscard]] GVariant* parameters() const;
    /// Whether everybody has dropped the reference that he was handed.
    [[nodiscard]] bool isReleased() const;

private:
    GObject* object;
};

} // namespace ZoneTest
