#pragma once

#include "BusClient.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Zonectl {

/// Calls to the daemon that wait for their replies side by side. A handler gets nothing when no answer came
/// in time; any other failure of a call is kept until `check`. Calls that are still under way end with the
/// object, without their handlers. One thread only, on its default main context.
class BusCalls
{
public:
    using IntegerHandler = std::function<void(std::optional<int> value)>;
    using NamesHandler = std::function<void(const std::optional<std::vector<std::string>>& names)>;

    explicit BusCalls(const BusClient& busClient);
    ~BusCalls();
    BusCalls(const BusCalls&) = delete;
    BusCalls& operator=(const BusCalls&) = delete;

    /// Begins "ZoneGetState" or "ZoneGetInitPid".
    void askInteger(const char* method, const std::string& zone, std::chrono::milliseconds patience,
                    IntegerHandler handler);
    /// Begins "GetZoneList".
    void askNames(std::chrono::milliseconds patience, NamesHandler handler);

    /// Waits for all answers; each call's own patience bounds that.
    void finish();
    /// Throws the first failure of a call, if there was one.
    void check() const;

private:
    /// Gets the reply; null when there was none in time.
    using ReplyHandler = std::function<void(GVariant* reply)>;
    struct Call;

    void begin(const char* method, GVariant* parameters, const char* replyType,
               std::chrono::milliseconds patience, ReplyHandler handler);
    static void replyCallback(GObject* source, GAsyncResult* result, gpointer data);

    const BusClient& client;
    std::unique_ptr<GCancellable, ZoneCore::FreeWith<g_object_unref>> cancellable;
    std::optional<Failure> failure;
    int underWay = 0;
};

/// The names of a "GetZoneList" reply.
[[nodiscard]] std::vector<std::string> namesOf(GVariant* reply);

} // namespace Zonectl
