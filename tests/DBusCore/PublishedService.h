#pragma once

#include "Common/Handles.h"
#include "DBusCore/Introspection.h"
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "tests/ZoneCore/ZoneFixtures.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What the tests of the bus service on a real bus share.
namespace ZoneTest {

constexpr auto BUS_LIMIT = std::chrono::seconds(10);
/// For an answer that must not come.
constexpr auto BUS_SHORT_WAIT = std::chrono::milliseconds(250);

/// Dispatches on a context until the condition holds.
/// @param context null for the default context
/// @return false when it did not come to hold in time
[[nodiscard]] bool iterateUntil(const std::function<bool()>& condition, GMainContext* context = nullptr);

/// A bus daemon of the test program's own, which the program takes for the system bus. One for the whole
/// program, because GLib shares one connection to the system bus.
class Bus
{
public:
    /// Ends the bus daemon.
    static void stop();
    /// A connection of a client's own.
    [[nodiscard]] static ZoneCore::GBusConnectionPtr connect();
};

/// How a call ended.
struct Answer
{
    std::string text;  ///< the reply as GVariant prints it
    std::string error; ///< the bus error's message
};

/// A published service, a manager whose monitor counts as running, and one zone of each kind. The daemon's
/// side and the client's share the test's thread.
class PublishedService : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// Whether a record of this text has been written.
    [[nodiscard]] bool wrote(const std::string& text) const;
    /// Whether a record with this beginning has been written.
    [[nodiscard]] bool wroteBeginning(const std::string& text) const;

    /// Calls a method of the service and waits for the answer.
    /// @param arguments a tuple in GVariant's text form
    Answer call(const char* method, const std::string& arguments,
                const char* interface = DBusCore::INTERFACE_NAME,
                std::chrono::milliseconds limit = BUS_LIMIT);
    /// Calls a method without waiting; the answer comes while the default context is iterated.
    void start(const char* method, const std::string& arguments, std::optional<Answer>& answer,
               const char* interface = DBusCore::INTERFACE_NAME, std::chrono::milliseconds limit = BUS_LIMIT);
    /// The reply to a call that succeeds. The log has the records of this call only.
    std::string reply(const char* method, const std::string& arguments = "('hybrid',)");
    /// A call whose reply the bus library does not deliver, because the method declares another shape.
    void expectUndelivered(const char* method, const std::string& arguments);

    /// How the client's call of a method is told, without the level.
    [[nodiscard]] std::string callLine(const std::string& method) const;
    /// The lines of a request, behind those of the dispatch.
    [[nodiscard]] std::vector<std::string> handlerTexts() const;

    LogCapture log;
    FakeLxcControl control;
    std::unique_ptr<RegistryFixture> registry;
    std::unique_ptr<ManagerFixture> manager;
    DBusCore::ZoneManagerDBusInterface service;
    ZoneCore::GBusConnectionPtr client;
    std::vector<std::string> published; ///< what the service wrote until it had the name
};

/// The record of a refused call.
[[nodiscard]] std::string permissionLine(const std::string& zone);

} // namespace ZoneTest
