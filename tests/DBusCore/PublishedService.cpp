#include "tests/DBusCore/PublishedService.h"

#include <gmock/gmock.h>

#include <algorithm>

using DBusCore::BUS_NAME;
using DBusCore::INTERFACE_NAME;
using DBusCore::OBJECT_PATH;
using testing::Contains;
using testing::HasSubstr;
using ZoneCore::FreeWith;
using ZoneCore::GBusConnectionPtr;
using ZoneCore::GErrorPtr;
using ZoneCore::GVariantPtr;
using ZoneCore::OutError;

namespace ZoneTest {

namespace {

GTestDBus* bus = nullptr;
std::string address;

class BusEnvironment : public testing::Environment
{
public:
    void SetUp() override
    {
        requirePrivateRoot();
        bus = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus);
        address = g_test_dbus_get_bus_address(bus);
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
    }
    void TearDown() override
    {
        Bus::stop();
        g_object_unref(bus);
    }
};

[[maybe_unused]] testing::Environment* const ENVIRONMENT =
    testing::AddGlobalTestEnvironment(new BusEnvironment);

} // namespace

bool iterateUntil(const std::function<bool()>& condition, GMainContext* context)
{
    // Wakes a wait in which nothing happens.
    const std::unique_ptr<GSource, FreeWith<g_source_unref>> timer(g_timeout_source_new(10));
    g_source_set_callback(
        timer.get(), [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(timer.get(), context);
    const auto end = std::chrono::steady_clock::now() + BUS_LIMIT;
    bool holds = condition();
    while (!holds && std::chrono::steady_clock::now() < end) {
        g_main_context_iteration(context, TRUE);
        holds = condition();
    }
    g_source_destroy(timer.get());
    return holds;
}

void Bus::stop()
{
    g_test_dbus_stop(bus);
}

GBusConnectionPtr Bus::connect()
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

void PublishedService::SetUp()
{
    control.define("hybrid", ZUP::ZONE_TYPE_HYBRID);
    control.define("isolation", ZUP::ZONE_TYPE_ISOLATION);
    control.define("protection", ZUP::ZONE_TYPE_PROTECTION);
    registry =
        std::make_unique<RegistryFixture>(std::vector<std::string>{"hybrid", "isolation", "protection"});
    manager = std::make_unique<ManagerFixture>();
    manager->setMonitor(runningMonitor());
    client = Bus::connect();
    log.clear();
    ASSERT_TRUE(service.connectDBus());
    ASSERT_TRUE(iterateUntil([this] { return wrote("I Name(\"org.ornix.zoneframework\") is acquired"); }));
    published = ownTexts(log);
    log.clear();
}

void PublishedService::TearDown()
{
    service.disconnectDBus();
    client.reset();
    // What the bus still has to say about the name must not reach the next test.
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    manager.reset();
    registry.reset();
}

bool PublishedService::wrote(const std::string& text) const
{
    const auto texts = ownTexts(log);
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool PublishedService::wroteBeginning(const std::string& text) const
{
    const auto texts = ownTexts(log);
    return std::any_of(texts.begin(), texts.end(),
                       [&](const std::string& record) { return record.starts_with(text); });
}

Answer PublishedService::call(const char* method, const std::string& arguments, const char* interface,
                              std::chrono::milliseconds limit)
{
    std::optional<Answer> answer;
    start(method, arguments, answer, interface, limit);
    EXPECT_TRUE(iterateUntil([&] { return answer.has_value(); })) << method;
    return answer.value_or(Answer{});
}

void PublishedService::start(const char* method, const std::string& arguments, std::optional<Answer>& answer,
                             const char* interface, std::chrono::milliseconds limit)
{
    GErrorPtr error;
    GVariant* parameters = g_variant_parse(nullptr, arguments.c_str(), nullptr, nullptr, OutError(error));
    ASSERT_EQ(error, nullptr) << arguments << ": " << error->message;
    g_dbus_connection_call(
        client.get(), BUS_NAME, OBJECT_PATH, interface, method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
        static_cast<int>(limit.count()), nullptr,
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

std::string PublishedService::reply(const char* method, const std::string& arguments)
{
    log.clear();
    const Answer answer = call(method, arguments);
    EXPECT_EQ(answer.error, "");
    return answer.text;
}

void PublishedService::expectUndelivered(const char* method, const std::string& arguments)
{
    log.clear();
    const Answer answer = call(method, arguments, INTERFACE_NAME, BUS_SHORT_WAIT);
    EXPECT_EQ(answer.text, "");
    EXPECT_THAT(answer.error, HasSubstr("Timeout"));
    EXPECT_THAT(log.otherLines(), Contains(HasSubstr("Type of return value is incorrect")));
}

std::string PublishedService::callLine(const std::string& method) const
{
    return std::string("sender : ") + g_dbus_connection_get_unique_name(client.get()) +
           " / object path : /org/ornix/zoneframework / interface name : org.ornix.zoneframework.interface / "
           "method name : " +
           method;
}

std::vector<std::string> PublishedService::handlerTexts() const
{
    auto texts = ownTexts(log);
    if (texts.size() < 2) {
        ADD_FAILURE() << "no dispatch has been told";
        return {};
    }
    EXPECT_THAT(texts[0], testing::StartsWith("I sender : "));
    EXPECT_THAT(texts[1], testing::StartsWith("I method name type of "));
    texts.erase(texts.begin(), texts.begin() + 2);
    return texts;
}

std::string permissionLine(const std::string& zone)
{
    return "E [DBus] There is no access permission to protection zone(\"" + zone +
           "\") - Operation is not permitted";
}

} // namespace ZoneTest
