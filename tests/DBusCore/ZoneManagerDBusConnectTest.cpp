// How the service comes to the bus, loses it and goes, step by step: the bus library is a fake.
#include "DBusCore/Introspection.h"
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "tests/DBusCore/FakeBusLibrary.h"
#include "tests/support/unit/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using DBusCore::BUS_NAME;
using testing::ElementsAre;
using testing::IsEmpty;
using ZoneCore::GBusConnectionPtr;
using ZoneTest::FakeBusLibrary;
using ZoneTest::LogCapture;
using Service = DBusCore::ZoneManagerDBusInterface;

namespace {

constexpr const char* PARSED = "D g_dbus_node_info_new_for_xml the interface";
constexpr const char* OWNED = "D g_bus_own_name system org.ornix.zoneframework 0";
constexpr const char* NO_EXIT = "D g_dbus_connection_set_exit_on_close 0";
constexpr const char* ACQUIRED = "I Bus(\"org.ornix.zoneframework\") is acquired";
constexpr const char* REGISTERED = "D g_dbus_connection_register_object /org/ornix/zoneframework "
                                   "org.ornix.zoneframework.interface";
constexpr const char* NODE_RELEASED = "D g_dbus_node_info_unref the node";

class ZoneManagerDBusConnect : public testing::Test
{
protected:
    /// What has been written since the last time.
    std::vector<std::string> texts()
    {
        auto result = log.texts();
        EXPECT_THAT(log.otherLines(), IsEmpty());
        log.clear();
        return result;
    }
    void connect()
    {
        ASSERT_TRUE(service->connectDBus());
        log.clear();
    }
    /// Connects, and has the object registered.
    void publish()
    {
        connect();
        Service::on_bus_acquired(connection.get(), BUS_NAME, service.get());
        log.clear();
    }
    /// The connection that a signal is sent on; null when there is none.
    GDBusConnection* connectionOfSignals()
    {
        library.connection = nullptr;
        static_cast<void>(service->emitStateChangedSignal("hybrid", "RUNNING"));
        log.clear();
        return library.connection;
    }

    LogCapture log;
    FakeBusLibrary library;
    GBusConnectionPtr connection = FakeBusLibrary::newConnection();
    std::unique_ptr<Service> service = std::make_unique<Service>();
};

unsigned references(const GBusConnectionPtr& connection)
{
    return static_cast<unsigned>(g_atomic_int_get(&G_OBJECT(connection.get())->ref_count));
}

} // namespace

// connectDBus.

TEST_F(ZoneManagerDBusConnect, ParsesItsInterfaceAndThenAsksForTheName)
{
    EXPECT_TRUE(service->connectDBus());
    EXPECT_THAT(texts(), ElementsAre(PARSED, OWNED));
    EXPECT_EQ(library.owner.busAcquired, Service::on_bus_acquired);
    EXPECT_EQ(library.owner.nameAcquired, Service::on_name_acquired);
    EXPECT_EQ(library.owner.nameLost, Service::on_bus_lost);
    EXPECT_EQ(library.owner.userData, service.get());
    EXPECT_EQ(library.owner.destroyUserData, nullptr);
}

TEST_F(ZoneManagerDBusConnect, HasItsInterfaceByTheTimeItAsksForTheName)
{
    library.during("g_bus_own_name",
                   [this] { Service::on_bus_acquired(connection.get(), BUS_NAME, service.get()); });
    EXPECT_TRUE(service->connectDBus());
    ASSERT_NE(library.node, nullptr);
    EXPECT_EQ(library.object.interface, library.node->interfaces[0]);
}

TEST_F(ZoneManagerDBusConnect, AsksForNoNameWithoutAnInterface)
{
    library.parses = false;
    EXPECT_FALSE(service->connectDBus());
    EXPECT_THAT(texts(), ElementsAre(PARSED, "E Failed to make node from XML"));
    service.reset();
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(ZoneManagerDBusConnect, KeepsTheInterfaceUntilItsEndWhenTheNameCannotBeOwned)
{
    library.ownerId = 0;
    EXPECT_FALSE(service->connectDBus());
    EXPECT_THAT(texts(), ElementsAre(PARSED, OWNED, "E Failed to own dbus for \"org.ornix.zoneframework\""));
    service->disconnectDBus(); // there is no connection to take anything off
    EXPECT_THAT(texts(), IsEmpty());
    service.reset();
    EXPECT_THAT(texts(), ElementsAre(NODE_RELEASED));
}

// The callbacks.

TEST_F(ZoneManagerDBusConnect, RegistersItsObjectOnTheBus)
{
    connect();
    Service::on_bus_acquired(connection.get(), BUS_NAME, service.get());
    EXPECT_THAT(texts(),
                ElementsAre(NO_EXIT, ACQUIRED, REGISTERED,
                            "I DBus object(\"/org/ornix/zoneframework\") is registered(Object ID : 3d)"));
    EXPECT_EQ(library.object.connection, connection.get());
    EXPECT_EQ(library.object.interface, library.node->interfaces[0]);
    EXPECT_EQ(library.object.calls.method_call, Service::callVTable);
    EXPECT_EQ(library.object.calls.get_property, nullptr);
    EXPECT_EQ(library.object.calls.set_property, nullptr);
    EXPECT_EQ(library.object.userData, service.get());
    EXPECT_EQ(library.object.destroyUserData, nullptr);
}

TEST_F(ZoneManagerDBusConnect, CanSendSignalsByTheTimeItRegistersItsObject)
{
    connect();
    GDBusConnection* used = nullptr;
    library.during("g_dbus_connection_register_object", [&] { used = connectionOfSignals(); });
    Service::on_bus_acquired(connection.get(), BUS_NAME, service.get());
    EXPECT_EQ(used, connection.get());
}

TEST_F(ZoneManagerDBusConnect, ReportsAnObjectThatCannotBeRegistered)
{
    library.registrationId = 0;
    library.unregisters = false;
    connect();
    for (const char* error : {"it is there already", static_cast<const char*>(nullptr)}) {
        library.error = error;
        Service::on_bus_acquired(connection.get(), BUS_NAME, service.get());
        EXPECT_THAT(texts(),
                    ElementsAre(NO_EXIT, ACQUIRED, REGISTERED,
                                error == nullptr ? "E Failed to register object"
                                                 : "E Failed to register object- it is there already"));
        EXPECT_EQ(connectionOfSignals(), connection.get());
    }
    // The name stays owned, since there is no object to take off.
    service->disconnectDBus();
    EXPECT_THAT(texts(), ElementsAre("D g_dbus_connection_unregister_object 0"));
}

TEST_F(ZoneManagerDBusConnect, KeepsTheConnectionThatItWasLastTold)
{
    const GBusConnectionPtr second = FakeBusLibrary::newConnection();
    const GBusConnectionPtr third = FakeBusLibrary::newConnection();
    publish();
    EXPECT_EQ(connectionOfSignals(), connection.get());
    Service::on_name_acquired(second.get(), BUS_NAME, service.get());
    EXPECT_THAT(texts(), ElementsAre("I Name(\"org.ornix.zoneframework\") is acquired"));
    EXPECT_EQ(connectionOfSignals(), second.get());
    Service::on_bus_lost(third.get(), BUS_NAME, service.get());
    EXPECT_THAT(texts(), ElementsAre("E Bus is lost(\"org.ornix.zoneframework\")"));
    EXPECT_EQ(connectionOfSignals(), third.get());
    Service::on_bus_lost(nullptr, BUS_NAME, service.get());
    EXPECT_THAT(texts(), ElementsAre("E Bus is lost(\"org.ornix.zoneframework\")"));
    EXPECT_EQ(connectionOfSignals(), nullptr);
    for (const GBusConnectionPtr* each : {&std::as_const(connection), &second, &third}) {
        EXPECT_EQ(references(*each), 1U);
    }
}

TEST_F(ZoneManagerDBusConnect, HoldsAReferenceOfItsConnection)
{
    publish();
    EXPECT_EQ(references(connection), 2U);
    Service::on_name_acquired(connection.get(), BUS_NAME, service.get());
    EXPECT_EQ(references(connection), 2U);
    service.reset();
    EXPECT_EQ(references(connection), 1U);
}

// disconnectDBus.

TEST_F(ZoneManagerDBusConnect, GivesUpObjectNameConnectionAndInterfaceInThisOrder)
{
    publish();
    std::vector<unsigned> seen;
    const auto look = [&] { seen.push_back(references(connection)); };
    library.during("g_bus_unown_name", look);
    library.during("g_dbus_node_info_unref", look);
    service->disconnectDBus();
    EXPECT_THAT(texts(), ElementsAre("D g_dbus_connection_unregister_object 3", "D g_bus_unown_name 7",
                                     NODE_RELEASED));
    EXPECT_EQ(library.connection, connection.get());
    EXPECT_THAT(seen, ElementsAre(3U, 2U)); // the test's, the teardown's own and, until then, the service's
    EXPECT_EQ(references(connection), 1U);
    // Nothing is left to give up.
    EXPECT_EQ(connectionOfSignals(), nullptr);
    service->disconnectDBus();
    service.reset();
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(ZoneManagerDBusConnect, GivesNothingUpWhileItsObjectStays)
{
    publish();
    library.unregisters = false;
    for (int attempt = 0; attempt < 2; ++attempt) {
        service->disconnectDBus();
        EXPECT_THAT(texts(), ElementsAre("D g_dbus_connection_unregister_object 3"));
        EXPECT_EQ(connectionOfSignals(), connection.get());
    }
    library.unregisters = true;
    service->disconnectDBus();
    EXPECT_THAT(texts(), ElementsAre("D g_dbus_connection_unregister_object 3", "D g_bus_unown_name 7",
                                     NODE_RELEASED));
}

TEST_F(ZoneManagerDBusConnect, ForgetsItsNumbers)
{
    publish();
    service->disconnectDBus();
    library.ownerId = 0;
    library.registrationId = 0;
    EXPECT_FALSE(service->connectDBus());
    Service::on_bus_acquired(connection.get(), BUS_NAME, service.get());
    log.clear();
    service->disconnectDBus();
    EXPECT_THAT(texts(), ElementsAre("D g_dbus_connection_unregister_object 0", "D g_bus_unown_name 0",
                                     NODE_RELEASED));
}

// The signal.

TEST_F(ZoneManagerDBusConnect, BroadcastsTheNameAndTheState)
{
    publish();
    EXPECT_TRUE(service->emitStateChangedSignal("hybrid", "RUNNING"));
    EXPECT_THAT(texts(), ElementsAre("I Parameters - hybrid / RUNNING",
                                     "D g_dbus_connection_emit_signal - /org/ornix/zoneframework "
                                     "org.ornix.zoneframework.interface ZoneStateChangedSignal "
                                     "('hybrid', 'RUNNING')",
                                     "I Broadcasting Signals - hybrid / RUNNING"));
    EXPECT_EQ(references(connection), 2U);
}

TEST_F(ZoneManagerDBusConnect, ReportsASignalThatIsNotSent)
{
    publish();
    library.emits = false;
    for (const char* error : {"the connection is closed", static_cast<const char*>(nullptr)}) {
        library.error = error;
        EXPECT_FALSE(service->emitStateChangedSignal("hybrid", "FROZEN"));
        const std::string failure = "E Failed to emit signal for changing container state [hybrid => FROZEN]";
        EXPECT_THAT(texts(), ElementsAre("I Parameters - hybrid / FROZEN",
                                         "D g_dbus_connection_emit_signal - /org/ornix/zoneframework "
                                         "org.ornix.zoneframework.interface ZoneStateChangedSignal "
                                         "('hybrid', 'FROZEN')",
                                         error == nullptr ? failure : failure + " - " + error));
    }
}

TEST_F(ZoneManagerDBusConnect, SendsSignalsOnAnotherThreadWhileTheBusComesAndGoes)
{
    constexpr int ROUNDS = 200;
    connect();
    int alive = 0;
    int sent = 0;
    // The service's own reference at least, as long as the signal is on its way.
    library.during("g_dbus_connection_emit_signal",
                   [&] { alive += G_IS_DBUS_CONNECTION(library.connection); });
    std::thread monitor([&] {
        for (int round = 0; round < ROUNDS; ++round) {
            sent += service->emitStateChangedSignal("hybrid", "RUNNING") ? 1 : 0;
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        // Nobody but the service holds this one.
        Service::on_name_acquired(FakeBusLibrary::newConnection().get(), BUS_NAME, service.get());
        Service::on_bus_lost(nullptr, BUS_NAME, service.get());
    }
    monitor.join();
    EXPECT_EQ(alive, sent);
    EXPECT_EQ(connectionOfSignals(), nullptr);
}
