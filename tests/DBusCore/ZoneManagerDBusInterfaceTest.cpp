#include "DBusCore/ZoneManagerDBusInterface.h"
#include "DBusCore/Introspection.h"
#include "tests/DBusCore/PublishedService.h"
#include "tests/support/unit/Eventually.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

using namespace DBusCore;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using ZoneCore::FreeWith;
using ZoneCore::GBusConnectionPtr;
using ZoneCore::GVariantPtr;
using ZoneTest::Answer;
using ZoneTest::Bus;
using ZoneTest::iterateUntil;
using ZoneTest::LogCapture;
using ZoneTest::ownTexts;
using ZoneTest::permissionLine;

namespace {

using ZoneManagerDBusInterfaceTest = ZoneTest::PublishedService;

constexpr auto CALL = G_DBUS_MESSAGE_TYPE_METHOD_CALL;

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
            nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, static_cast<int>(ZoneTest::BUS_SHORT_WAIT.count()),
            nullptr,
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

TEST(ZoneDBusIntrospection, HasNothingButTabsBetweenItsElements)
{
    const std::string xml = INTROSPECTION_XML;
    EXPECT_EQ(xml.find_first_of("\n\""), std::string::npos);
    for (auto end = xml.find('>'); end + 1 < xml.size(); end = xml.find('>', end + 1)) {
        const auto next = xml.find('<', end);
        EXPECT_EQ(xml.find_first_not_of('\t', end + 1), next) << xml.substr(end, next - end);
    }
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
        _exit(asked && iterateUntil([this] { return wroteBeginning("E Failed to register object- "); }) ? 0
                                                                                                        : 1);
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

TEST_F(ZoneManagerDBusInterfaceTest, AnswersNoCallThatWaitsWhileTheServiceGoes)
{
    // The bus's own thread counts, and may still do so when the filter has been removed.
    static std::atomic<int> arrived;
    arrived = 0;
    GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    const GBusConnectionPtr owned(shared);
    const guint filter = g_dbus_connection_add_filter(
        shared,
        [](GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer) {
            if (incoming != FALSE && g_dbus_message_get_message_type(message) == CALL) {
                ++arrived;
            }
            return message;
        },
        nullptr, nullptr);
    std::optional<Answer> first;
    std::optional<Answer> second;
    start("ZoneStart", "('hybrid',)", first);
    start("ZoneStart", "('hybrid',)", second);
    // The first is on its way to the dispatch once the second has come.
    ASSERT_TRUE(ZoneTest::eventually([&] { return arrived == 2; }));
    service.disconnectDBus();
    EXPECT_TRUE(iterateUntil([&] { return first.has_value() && second.has_value(); }));
    EXPECT_EQ(first->text, "");
    EXPECT_THAT(first->error, HasSubstr("UnknownMethod"));
    EXPECT_THAT(second->error, HasSubstr("UnknownMethod"));
    EXPECT_THAT(ownTexts(log), IsEmpty());
    g_dbus_connection_remove_filter(shared, filter);
}

TEST_F(ZoneManagerDBusInterfaceTest, ServesOnTheContextOfTheThreadThatConnected)
{
    service.disconnectDBus();
    const ZoneCore::GMainContextPtr context(g_main_context_new());
    g_main_context_push_thread_default(context.get());
    ZoneManagerDBusInterface other;
    EXPECT_TRUE(other.connectDBus());
    EXPECT_TRUE(iterateUntil([this] { return wrote("I Name(\"org.ornix.zoneframework\") is acquired"); },
                             context.get()));
    std::optional<Answer> answer;
    start("ZoneGetPid", "('hybrid',)", answer);
    EXPECT_TRUE(iterateUntil([&] { return answer.has_value(); }, context.get()));
    EXPECT_EQ(answer->text, "(0,)");
    other.disconnectDBus();
    while (g_main_context_iteration(context.get(), FALSE) != FALSE) {
    }
    g_main_context_pop_thread_default(context.get());
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
    EXPECT_EQ(seen, "('\xEF\xBF\xBD', 'STOPPED')");
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
                ElementsAre("I " + callLine("GetVersion"), "I method name type of \"GetVersion\" is 0"));
}

TEST_F(ZoneManagerDBusInterfaceTest, RefusesProtectionZones)
{
    for (const char* method : {"ZoneStart", "ZoneStop", "ZoneFreeze", "ZoneUnfreeze", "ZoneUnlock"}) {
        EXPECT_EQ(reply(method, "('protection',)"), "(false,)") << method;
        EXPECT_THAT(handlerTexts(), ElementsAre(permissionLine("protection"), "E " + callLine(method)));
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
                                            permissionLine("nobody"), "E " + callLine("ZoneStart")));
    EXPECT_EQ(reply("ZoneGetState", "('nobody',)"), "(-1,)");
    EXPECT_EQ(reply("GetVersion", "('',)"), "('none',)");
}

TEST_F(ZoneManagerDBusInterfaceTest, RefusesInAShapeThatTheBusLibraryDoesNotDeliver)
{
    expectUndelivered("ZoneAttachWait", "('nobody',)"); // "i" where "u" is declared
    EXPECT_THAT(handlerTexts(), ElementsAre("I There is no \"nobody\" object",
                                            "E Can not find zone object (zone name : nobody)",
                                            permissionLine("nobody"), "E " + callLine("ZoneAttachWait")));
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
