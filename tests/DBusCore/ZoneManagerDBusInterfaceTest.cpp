#include "DBusCore/ZoneManagerDBusInterface.h"
#include "DBusCore/Introspection.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/support/unit/Eventually.h"

#include "Common/Handles.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace DBusCore;
using namespace ZoneCore;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using ZoneTest::byThread;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;
using ZoneTest::ManagerFixture;
using ZoneTest::ownTexts;
using ZoneTest::RegistryFixture;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto LIMIT = std::chrono::seconds(10);
/// For an answer that must not come.
constexpr auto SHORT_WAIT = std::chrono::milliseconds(250);

/// Dispatches on the default context until the condition holds.
[[nodiscard]] bool iterateUntil(const std::function<bool()>& condition)
{
    // Wakes a wait in which nothing happens.
    const guint timer = g_timeout_add(
        10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    const auto end = Clock::now() + LIMIT;
    bool holds = condition();
    while (!holds && Clock::now() < end) {
        g_main_context_iteration(nullptr, TRUE);
        holds = condition();
    }
    g_source_remove(timer);
    return holds;
}

/// A bus daemon of its own, which the program takes for the system bus. One for the whole program, because
/// GLib shares one connection to the system bus.
class Bus : public testing::Environment
{
public:
    void SetUp() override
    {
        ZoneTest::requirePrivateRoot();
        bus = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus);
        address = g_test_dbus_get_bus_address(bus);
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
    }
    void TearDown() override
    {
        stop();
        g_object_unref(bus);
    }
    /// Ends the bus daemon.
    static void stop() { g_test_dbus_stop(bus); }

    /// A connection of a client's own.
    static GBusConnectionPtr connect()
    {
        GErrorPtr error;
        GBusConnectionPtr client(g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, OutError(error)));
        EXPECT_EQ(error, nullptr) << (error == nullptr ? "" : error->message);
        return client;
    }

private:
    static inline GTestDBus* bus = nullptr;
    static inline std::string address;
};

[[maybe_unused]] testing::Environment* const BUS = testing::AddGlobalTestEnvironment(new Bus);

/// How a call ended.
struct Answer
{
    std::string text;  ///< the reply as GVariant prints it
    std::string error; ///< the bus error's message
};

/// A published service, a manager without a monitor thread, and one zone of each kind. The daemon's side and
/// the client's share the test's thread.
class ZoneManagerDBusInterfaceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        control.define("hybrid", ZUP::ZONE_TYPE_HYBRID);
        control.define("isolation", ZUP::ZONE_TYPE_ISOLATION);
        control.define("protection", ZUP::ZONE_TYPE_PROTECTION);
        registry =
            std::make_unique<RegistryFixture>(std::vector<std::string>{"hybrid", "isolation", "protection"});
        manager = std::make_unique<ManagerFixture>();
        manager->setMonitor(ZoneTest::runningMonitor());
        client = Bus::connect();
        log.clear();
        ASSERT_TRUE(service.connectDBus());
        ASSERT_TRUE(
            iterateUntil([this] { return wrote("I Name(\"org.ornix.zoneframework\") is acquired"); }));
        published = ownTexts(log);
        log.clear();
    }
    void TearDown() override
    {
        service.disconnectDBus();
        client.reset();
        // What the bus still has to say about the name must not reach the next test.
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
        manager.reset();
        registry.reset();
    }

    /// Whether a record of this text, or with this beginning, has been written.
    [[nodiscard]] bool wrote(const std::string& text, bool beginningOnly = false) const
    {
        const auto texts = ownTexts(log);
        return std::any_of(texts.begin(), texts.end(), [&](const std::string& record) {
            return beginningOnly ? record.rfind(text, 0) == 0 : record == text;
        });
    }

    /// Calls a method of the service and waits for the answer.
    /// @param arguments a tuple in GVariant's text form
    Answer call(const char* method, const std::string& arguments, const char* interface = INTERFACE_NAME,
                std::chrono::milliseconds limit = LIMIT)
    {
        std::optional<Answer> answer;
        start(method, arguments, interface, limit, answer);
        EXPECT_TRUE(iterateUntil([&] { return answer.has_value(); })) << method;
        return answer.value_or(Answer{});
    }
    std::string reply(const char* method, const std::string& arguments = "('hybrid',)")
    {
        log.clear();
        const Answer answer = call(method, arguments);
        EXPECT_EQ(answer.error, "");
        return answer.text;
    }
    /// A call whose reply the bus library does not deliver, because the method declares another shape.
    void expectUndelivered(const char* method, const std::string& arguments)
    {
        log.clear();
        const Answer answer = call(method, arguments, INTERFACE_NAME, SHORT_WAIT);
        EXPECT_EQ(answer.text, "");
        EXPECT_THAT(answer.error, HasSubstr("Timeout"));
        EXPECT_THAT(log.otherLines(), Contains(HasSubstr("Type of return value is incorrect")));
    }
    void start(const char* method, const std::string& arguments, const char* interface,
               std::chrono::milliseconds limit, std::optional<Answer>& answer)
    {
        GErrorPtr error;
        GVariant* parameters = g_variant_parse(nullptr, arguments.c_str(), nullptr, nullptr, OutError(error));
        ASSERT_EQ(error, nullptr) << arguments << ": " << error->message;
        g_dbus_connection_call(
            client.get(), BUS_NAME, OBJECT_PATH, interface, method, parameters, nullptr,
            G_DBUS_CALL_FLAGS_NONE, static_cast<int>(limit.count()), nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                GErrorPtr failure;
                const GVariantPtr value(
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, OutError(failure)));
                auto* out = static_cast<std::optional<Answer>*>(data);
                *out = Answer{};
                if (value != nullptr) {
                    const std::unique_ptr<gchar, FreeWith<g_free>> text(g_variant_print(value.get(), FALSE));
                    (*out)->text = text.get();
                }
                if (failure != nullptr) {
                    (*out)->error = failure->message;
                }
            },
            &answer);
    }

    /// The lines of a request, behind those of the dispatch.
    [[nodiscard]] std::vector<std::string> handlerTexts() const
    {
        auto texts = ownTexts(log);
        EXPECT_GE(texts.size(), 2U);
        EXPECT_THAT(texts[0], testing::StartsWith("I sender : "));
        EXPECT_THAT(texts[1], testing::StartsWith("I method name type of "));
        texts.erase(texts.begin(), texts.begin() + 2);
        return texts;
    }

    LogCapture log;
    FakeLxcControl control;
    std::unique_ptr<RegistryFixture> registry;
    std::unique_ptr<ManagerFixture> manager;
    ZoneManagerDBusInterface service;
    GBusConnectionPtr client;
    std::vector<std::string> published; ///< what the service wrote until it had the name
};

/// An object whose interface declares a method "Other" and hands its calls to the dispatch, with nothing said
/// about where they come from.
class ForeignObject
{
public:
    explicit ForeignObject(ZoneManagerDBusInterface* target)
        : server(Bus::connect()), client(Bus::connect()),
          node(g_dbus_node_info_new_for_xml(
              "<node><interface name='test.Foreign'><method name='Other'/></interface></node>", nullptr))
    {
        EXPECT_NE(g_dbus_connection_register_object(server.get(), "/test", node->interfaces[0], &CALLS,
                                                    target, nullptr, nullptr),
                  0U);
    }
    ForeignObject(const ForeignObject&) = delete;
    ForeignObject& operator=(const ForeignObject&) = delete;

    /// Calls the method, and waits a moment for an answer. @return the error's message
    [[nodiscard]] std::string call() const
    {
        std::optional<std::string> message;
        g_dbus_connection_call(
            client.get(), g_dbus_connection_get_unique_name(server.get()), "/test", "test.Foreign", "Other",
            nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, static_cast<int>(SHORT_WAIT.count()), nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                GError* error = nullptr;
                const GVariantPtr value(
                    g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
                *static_cast<std::optional<std::string>*>(data) = error == nullptr ? "" : error->message;
                g_clear_error(&error);
            },
            &message);
        EXPECT_TRUE(iterateUntil([&] { return message.has_value(); }));
        return message.value_or("");
    }

private:
    static void forward(GDBusConnection* connection, const gchar*, const gchar*, const gchar*,
                        const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                        gpointer service)
    {
        ZoneManagerDBusInterface::callVTable(connection, nullptr, nullptr, nullptr, method, parameters,
                                             invocation, service);
    }
    static constexpr GDBusInterfaceVTable CALLS{forward, nullptr, nullptr, {}};

    GBusConnectionPtr server;
    GBusConnectionPtr client;
    std::unique_ptr<GDBusNodeInfo, FreeWith<g_dbus_node_info_unref>> node;
};

std::string permissionLine(const std::string& zone)
{
    return "E [DBus] There is no access permission to protection zone(\"" + zone +
           "\") - Operation is not permitted";
}

} // namespace

// The method table.

TEST(ZoneDBusMethodTable, NumbersTheMethods)
{
    const std::vector<std::string> names{"GetVersion",     "GetZoneList", "ZoneGetState", "ZoneGetPid",
                                         "ZoneGetInitPid", "ZoneStart",   "ZoneStop",     "ZoneFreeze",
                                         "ZoneUnfreeze",   "ZoneLock",    "ZoneUnlock",   "ZoneAttach",
                                         "ZoneAttachWait"};
    for (std::size_t number = 0; number < names.size(); ++number) {
        const LogCapture log;
        EXPECT_EQ(ZoneManagerDBusInterface::getMethodName(names[number].c_str()), static_cast<int>(number));
        EXPECT_THAT(log.texts(), ElementsAre("I method name type of \"" + names[number] + "\" is " +
                                             std::to_string(number)));
    }
}

TEST(ZoneDBusMethodTable, TakesTheFirstNameThatBeginsLikeTheGivenOne)
{
    EXPECT_EQ(ZoneManagerDBusInterface::getMethodName("ZoneGet"), METHOD_ZONE_GET_STATE);
    EXPECT_EQ(ZoneManagerDBusInterface::getMethodName("ZoneAttachW"), METHOD_ZONE_ATTACH_WAIT);
    EXPECT_EQ(ZoneManagerDBusInterface::getMethodName(""), METHOD_GET_VERSION);
}

TEST(ZoneDBusMethodTable, KnowsNoOtherName)
{
    LogCapture log;
    EXPECT_EQ(ZoneManagerDBusInterface::getMethodName("ZoneStartNow"), METHOD_NONE);
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get method name - \"ZoneStartNow\""));
    log.clear();
    EXPECT_EQ(ZoneManagerDBusInterface::getMethodName(nullptr), METHOD_NONE);
    EXPECT_THAT(log.texts(), ElementsAre("E Invalid method name"));
}

// Callbacks without a bus.

TEST(ZoneDBusCallbacks, IgnoreCallsWithoutAService)
{
    const LogCapture log;
    ZoneManagerDBusInterface::on_bus_acquired(nullptr, "name", nullptr);
    ZoneManagerDBusInterface::on_name_acquired(nullptr, "name", nullptr);
    ZoneManagerDBusInterface::on_bus_lost(nullptr, "name", nullptr);
    const std::string line = "E Invalid argument - ZoneManagerDBusInterface";
    EXPECT_THAT(log.texts(), ElementsAre(line, line, line));
}

TEST(ZoneDBusCallbacks, ReportALostBusAndASignalWithoutOne)
{
    LogCapture log;
    ZoneManagerDBusInterface service;
    ZoneManagerDBusInterface::on_bus_lost(nullptr, BUS_NAME, &service);
    EXPECT_THAT(log.texts(), ElementsAre("E Bus is lost(\"org.ornix.zoneframework\")"));
    log.clear();
    EXPECT_FALSE(service.emitStateChangedSignal("hybrid", "RUNNING"));
    EXPECT_THAT(log.texts(),
                ElementsAre("I Parameters - hybrid / RUNNING",
                            "E Failed to emit signal for changing container state [hybrid => RUNNING]"));
    service.disconnectDBus(); // nothing to give up
}

// Publishing.

TEST_F(ZoneManagerDBusInterfaceTest, RegistersItsObjectAndOwnsItsName)
{
    EXPECT_THAT(published, ElementsAre("I Bus(\"org.ornix.zoneframework\") is acquired",
                                       MatchesRegex("I DBus object\\(\"/org/ornix/zoneframework\"\\) is "
                                                    "registered\\(Object ID : [0-9]+d\\)"),
                                       "I Name(\"org.ornix.zoneframework\") is acquired"));
}

// These leave a bus behind that is of no use to other tests, hence a process for each.

TEST_F(ZoneManagerDBusInterfaceTest, ReportsAnObjectThatIsThereAlready)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto tryIt = [this] {
        ZoneManagerDBusInterface second;
        const bool asked = second.connectDBus();
        _exit(asked && iterateUntil([this] { return wrote("E Failed to register object- ", true); }) ? 0 : 1);
    };
    EXPECT_EXIT(tryIt(), testing::ExitedWithCode(0), "");
}

TEST_F(ZoneManagerDBusInterfaceTest, OutlivesItsBus)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto tryIt = [this] {
        Bus::stop();
        const bool lost =
            iterateUntil([this] { return wrote("E Bus is lost(\"org.ornix.zoneframework\")"); });
        _exit(lost && !service.emitStateChangedSignal("hybrid", "RUNNING") ? 0 : 1);
    };
    EXPECT_EXIT(tryIt(), testing::ExitedWithCode(0), "");
}

TEST_F(ZoneManagerDBusInterfaceTest, GivesUpObjectAndName)
{
    service.disconnectDBus();
    EXPECT_THAT(call("GetVersion", "('hybrid',)").error,
                HasSubstr("The name org.ornix.zoneframework was not provided"));
    EXPECT_FALSE(service.emitStateChangedSignal("hybrid", "RUNNING"));
}

TEST_F(ZoneManagerDBusInterfaceTest, DescribesThirteenMethodsAndASignalWithoutArguments)
{
    const Answer answer = call("Introspect", "()", "org.freedesktop.DBus.Introspectable");
    GVariant* parsed = g_variant_parse(G_VARIANT_TYPE("(s)"), answer.text.c_str(), nullptr, nullptr, nullptr);
    ASSERT_NE(parsed, nullptr);
    const GVariantPtr tuple(parsed);
    const gchar* xml = nullptr;
    g_variant_get(tuple.get(), "(&s)", &xml);
    const std::unique_ptr<GDBusNodeInfo, FreeWith<g_dbus_node_info_unref>> node(
        g_dbus_node_info_new_for_xml(xml, nullptr));
    ASSERT_NE(node, nullptr);
    const GDBusInterfaceInfo* interface = g_dbus_node_info_lookup_interface(node.get(), INTERFACE_NAME);
    ASSERT_NE(interface, nullptr);

    std::vector<std::string> methods;
    for (auto* method = interface->methods; *method != nullptr; ++method) {
        std::string signature = (*method)->name;
        for (auto* argument = (*method)->in_args; *argument != nullptr; ++argument) {
            signature += std::string(" ") + (*argument)->signature + ":" + (*argument)->name;
        }
        for (auto* argument = (*method)->out_args; *argument != nullptr; ++argument) {
            signature += std::string(" -> ") + (*argument)->signature + ":" + (*argument)->name;
        }
        methods.push_back(signature);
    }
    EXPECT_THAT(methods,
                ElementsAre("GetVersion s:zoneName -> s:version", "GetZoneList -> as:zone_list",
                            "ZoneGetState s:zoneName -> i:retval", "ZoneGetPid s:zoneName -> i:retval",
                            "ZoneGetInitPid s:zoneName -> i:retval", "ZoneStart s:zoneName -> b:retval",
                            "ZoneStop s:zoneName -> b:retval", "ZoneFreeze s:zoneName -> b:retval",
                            "ZoneUnfreeze s:zoneName -> b:retval",
                            "ZoneLock s:zoneName b:force_stop -> b:retval",
                            "ZoneUnlock s:zoneName -> b:retval",
                            "ZoneAttach s:zoneName as:cmdline as:environment i:uid i:gid -> b:retval",
                            "ZoneAttachWait s:zoneName -> u:retval"));
    ASSERT_NE(interface->signals[0], nullptr);
    EXPECT_STREQ(interface->signals[0]->name, SIGNAL_STATE_CHANGED);
    EXPECT_EQ(interface->signals[0]->args[0], nullptr);
    EXPECT_EQ(interface->signals[1], nullptr);
    EXPECT_TRUE(interface->properties == nullptr || interface->properties[0] == nullptr);
}

// The signal.

TEST_F(ZoneManagerDBusInterfaceTest, BroadcastsAStateChange)
{
    std::string seen;
    const guint id = g_dbus_connection_signal_subscribe(
        client.get(), nullptr, INTERFACE_NAME, SIGNAL_STATE_CHANGED, OBJECT_PATH, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
           gpointer data) {
            const std::unique_ptr<gchar, FreeWith<g_free>> text(g_variant_print(parameters, FALSE));
            *static_cast<std::string*>(data) += text.get();
        },
        &seen, nullptr);
    static_cast<void>(
        call("GetVersion", "('hybrid',)")); // behind the subscription on the client's connection
    log.clear();
    EXPECT_TRUE(service.emitStateChangedSignal("hybrid", "RUNNING"));
    EXPECT_THAT(ownTexts(log),
                ElementsAre("I Parameters - hybrid / RUNNING", "I Broadcasting Signals - hybrid / RUNNING"));
    EXPECT_TRUE(iterateUntil([&] { return !seen.empty(); }));
    EXPECT_EQ(seen, "('hybrid', 'RUNNING')");
    // A name that is no text for the bus must not end the connection.
    seen.clear();
    EXPECT_TRUE(service.emitStateChangedSignal("\xff", "STOPPED"));
    EXPECT_TRUE(iterateUntil([&] { return !seen.empty(); }));
    g_dbus_connection_signal_unsubscribe(client.get(), id);
}

TEST_F(ZoneManagerDBusInterfaceTest, ReportsASignalOnAClosedConnection)
{
    const GBusConnectionPtr closed = Bus::connect();
    ASSERT_TRUE(g_dbus_connection_close_sync(closed.get(), nullptr, nullptr));
    ZoneManagerDBusInterface other;
    ZoneManagerDBusInterface::on_name_acquired(closed.get(), BUS_NAME, &other);
    log.clear();
    EXPECT_FALSE(other.emitStateChangedSignal("hybrid", "RUNNING"));
    EXPECT_THAT(ownTexts(log),
                ElementsAre("I Parameters - hybrid / RUNNING",
                            "E Failed to emit signal for changing container state [hybrid => RUNNING] - The "
                            "connection is closed"));
}

// Dispatch.

TEST_F(ZoneManagerDBusInterfaceTest, LogsWhoCallsWhat)
{
    EXPECT_EQ(reply("GetVersion"), "('4.0.28/4.0.12',)");
    EXPECT_THAT(ownTexts(log),
                ElementsAre(std::string("I sender : ") + g_dbus_connection_get_unique_name(client.get()) +
                                " / object path : /org/ornix/zoneframework / interface name : "
                                "org.ornix.zoneframework.interface / method name : GetVersion",
                            "I method name type of \"GetVersion\" is 0"));
}

TEST_F(ZoneManagerDBusInterfaceTest, RefusesProtectionZones)
{
    for (const char* method : {"ZoneStart", "ZoneStop", "ZoneFreeze", "ZoneUnfreeze", "ZoneUnlock"}) {
        EXPECT_EQ(reply(method, "('protection',)"), "(false,)") << method;
        EXPECT_THAT(handlerTexts(),
                    ElementsAre(permissionLine("protection"),
                                AllOf(testing::StartsWith("E sender : "),
                                      testing::EndsWith(std::string("method name : ") + method))));
    }
    EXPECT_EQ(reply("ZoneLock", "('protection', true)"), "(false,)");
    EXPECT_EQ(reply("ZoneAttach", "('protection', @as [], @as [], 0, 0)"), "(false,)");
    for (const char* method : {"ZoneGetState", "ZoneGetPid", "ZoneGetInitPid"}) {
        EXPECT_EQ(reply(method, "('protection',)"), "(-1,)") << method;
    }
    EXPECT_EQ(reply("GetVersion", "('protection',)"), "('none',)");
    EXPECT_EQ(control.launches(), 0U);
}

TEST_F(ZoneManagerDBusInterfaceTest, RefusesUnknownZonesInTheSameWords)
{
    EXPECT_EQ(reply("ZoneStart", "('nobody',)"), "(false,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I There is no \"nobody\" object",
                                            "E Can not find zone object (zone name : nobody)",
                                            permissionLine("nobody"), testing::StartsWith("E sender : ")));
    EXPECT_EQ(reply("ZoneGetState", "('nobody',)"), "(-1,)");
    EXPECT_EQ(reply("GetVersion", "('',)"), "('none',)");
}

TEST_F(ZoneManagerDBusInterfaceTest, RefusesInAShapeThatTheBusLibraryDoesNotDeliver)
{
    expectUndelivered("ZoneAttachWait", "('nobody',)"); // "i" where "u" is declared
    EXPECT_THAT(ownTexts(log), Contains(permissionLine("nobody")));
}

TEST_F(ZoneManagerDBusInterfaceTest, LeavesAnUnknownMethodUnanswered)
{
    const ForeignObject object(&service);
    const std::string who = "sender : - / object path : - / interface name : - / method name : Other";
    EXPECT_THAT(object.call(), HasSubstr("Timeout"));
    EXPECT_THAT(ownTexts(log), ElementsAre("I " + who, "E Failed to get method name - \"Other\"",
                                           "E Failed to get dbus method info", "E " + who));
}

TEST_F(ZoneManagerDBusInterfaceTest, LeavesACallWithoutAServiceUnanswered)
{
    const ForeignObject object(nullptr);
    EXPECT_THAT(object.call(), HasSubstr("Timeout"));
    EXPECT_THAT(ownTexts(log), ElementsAre("E Invalid argument - ZoneManagerDBusInterface"));
}

// The methods.

TEST_F(ZoneManagerDBusInterfaceTest, ListsTheDefinedContainersOfEveryKind)
{
    control.set("order", "protection\nhybrid\nisolation");
    EXPECT_EQ(reply("GetZoneList", "()"), "(['protection', 'hybrid', 'isolation'],)");
    EXPECT_THAT(handlerTexts(), IsEmpty());
    control.set("order", "");
    EXPECT_EQ(reply("GetZoneList", "()"), "([],)");
    EXPECT_THAT(handlerTexts(), IsEmpty());
}

TEST_F(ZoneManagerDBusInterfaceTest, ListsNothingWithoutAPathOrAListing)
{
    control.set("list_fails");
    EXPECT_EQ(reply("GetZoneList", "()"), "([],)");
    EXPECT_THAT(handlerTexts(), ElementsAre("E Failed to find containers(-1)"));
    control.remove("list_fails");
    control.remove("lxcpath");
    EXPECT_EQ(reply("GetZoneList", "()"), "([],)");
    EXPECT_THAT(handlerTexts(), ElementsAre("E Failed to find containers(-1)"));
}

TEST_F(ZoneManagerDBusInterfaceTest, TellsTheStateOfAZone)
{
    control.set("containers/hybrid/state", "FROZEN");
    EXPECT_EQ(reply("ZoneGetState"), "(7,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneGetState on zone 'hybrid'",
                                            "I The state of zone is received - \"FROZEN\"",
                                            "I ZoneContainerState instance is created",
                                            "I ZoneContainerState instance is destroyed"));
    control.set("containers/isolation/state", "RUNNING");
    EXPECT_EQ(reply("ZoneGetState", "('isolation',)"), "(3,)");
}

TEST_F(ZoneManagerDBusInterfaceTest, TellsInitPids)
{
    control.set("containers/hybrid/init_pid", "4711");
    EXPECT_EQ(reply("ZoneGetInitPid"), "(4711,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneGetInitPid on zone 'hybrid'"));
    EXPECT_EQ(reply("ZoneGetPid"), "(0,)"); // a placeholder
    EXPECT_THAT(handlerTexts(), IsEmpty());
}

TEST_F(ZoneManagerDBusInterfaceTest, AnswersAWaitInAShapeThatIsNotDelivered)
{
    expectUndelivered("ZoneAttachWait", "('hybrid',)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneAttachWait on zone 'hybrid'"));
}

TEST_F(ZoneManagerDBusInterfaceTest, QueuesRequests)
{
    const std::vector<std::pair<const char*, int>> rows{
        {"ZoneStart", 1}, {"ZoneStop", 2}, {"ZoneUnfreeze", 4}};
    for (const auto& [method, event] : rows) {
        EXPECT_EQ(reply(method), "(true,)") << method;
        EXPECT_THAT(handlerTexts(),
                    ElementsAre(std::string("I [DBus] ") + method + " on zone 'hybrid'",
                                HasSubstr("the zone event is sent to hybrid"),
                                "I zone event(" + std::to_string(event) + ") is sent (zone name : hybrid)"));
    }
}

TEST_F(ZoneManagerDBusInterfaceTest, QueuesNothingWhileTheMonitorDoesNotRun)
{
    manager->setMonitor(new ZoneMonitor);
    for (const char* method : {"ZoneStart", "ZoneStop", "ZoneUnfreeze"}) {
        EXPECT_EQ(reply(method), "(false,)") << method;
        EXPECT_THAT(handlerTexts(), ElementsAre(std::string("I [DBus] ") + method + " on zone 'hybrid'",
                                                "E " + byThread("zone-manager") +
                                                    "Monitor Thread is not running(target zone : hybrid)"));
    }
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', @as [], @as [], 0, 0)"), "(false,)");
    EXPECT_EQ(handlerTexts().back(),
              "E " + byThread("zone-manager") + "Monitor Thread is not running(target zone : hybrid)");
}

TEST_F(ZoneManagerDBusInterfaceTest, OffersNoFreezeAndNoLock)
{
    EXPECT_EQ(reply("ZoneFreeze"), "(false,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneFreeze not implemanted"));
    for (const char* arguments : {"('hybrid', true)", "('hybrid', false)"}) {
        EXPECT_EQ(reply("ZoneLock", arguments), "(false,)");
        EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneLock not implemanted"));
    }
    EXPECT_EQ(reply("ZoneUnlock"), "(false,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneUnlock not implemanted"));
    EXPECT_THAT(control.calls(), Not(Contains(testing::StartsWith("freeze "))));
}

TEST_F(ZoneManagerDBusInterfaceTest, QueuesAnAttachRequest)
{
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', ['ls', '-l'], ['A=1'], 10, 20)"), "(true,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]", "I Vector element ls",
                                            "I Vector element -l", "I Vector element A=1",
                                            HasSubstr("the zone event is sent to hybrid"),
                                            "I zone event(5) is sent (zone name : hybrid)"));
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', @as [], @as [], 0, 0)"), "(true,)");
    EXPECT_THAT(handlerTexts(), ElementsAre("I [DBus] ZoneAttach zoneName[hybrid]",
                                            HasSubstr("the zone event is sent to hybrid"),
                                            "I zone event(5) is sent (zone name : hybrid)"));
}

TEST_F(ZoneManagerDBusInterfaceTest, ReportsRequestsThatAreNotDelivered)
{
    Zone* zone = (*registry)->getZone("hybrid");
    zone->terminate();
    ASSERT_TRUE(ZoneTest::eventually([&] { return !zone->isRunning(); }));
    const std::vector<std::pair<const char*, const char*>> rows{
        {"ZoneStart", "start"}, {"ZoneStop", "stop"}, {"ZoneUnfreeze", "unfreeze"}};
    for (const auto& [method, word] : rows) {
        EXPECT_EQ(reply(method), "(false,)") << method;
        EXPECT_EQ(handlerTexts().back(),
                  "E " + byThread("zone-manager") + "Failed to send " + word + " event for zone(hybrid)");
    }
    EXPECT_EQ(reply("ZoneAttach", "('hybrid', @as [], @as [], 0, 0)"), "(false,)");
    EXPECT_EQ(handlerTexts().back(),
              "E " + byThread("zone-manager") + "Failed to send attach event for zone(hybrid)");
}

TEST(ZoneDBusVector, CopiesTheStringsAndEndsWithNull)
{
    const LogCapture log;
    const GVariantPtr value(g_variant_ref_sink(g_variant_new_parsed("['one', 'two']")));
    std::vector<const char*> out;
    ZoneManagerDBusInterface::g_variant_get_vector(value.get(), out);
    EXPECT_THAT(log.texts(), ElementsAre("I Vector element one", "I Vector element two"));
    ASSERT_EQ(out.size(), 3U);
    EXPECT_STREQ(out[0], "one");
    EXPECT_STREQ(out[1], "two");
    EXPECT_EQ(out[2], nullptr);
    for (const char* text : out) {
        g_free(const_cast<char*>(text));
    }
}
