#pragma once

#include "Daemon/DaemonCalls.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Zonectl {

class BusClient;

/// Calls to the daemon that are waited for side by side. A handler gets nothing when no answer came in time;
/// any other failure of a call is kept until `check`. Calls that are still under way end with the object,
/// without their handlers. One thread only, on its default main context.
class BusCalls
{
public:
    using IntegerHandler = std::function<void(std::optional<int> value)>;
    using NamesHandler = std::function<void(const std::optional<std::vector<std::string>>& names)>;

    explicit BusCalls(const BusClient& client);

    /// Begins a method that takes a zone and answers with a number, as "ZoneGetState".
    void askInteger(const char* method, const std::string& zone, std::chrono::milliseconds patience,
                    const IntegerHandler& handler);
    /// Begins "GetZoneList".
    void askNames(std::chrono::milliseconds patience, const NamesHandler& handler);

    /// Waits for all answers; each call's own patience bounds that.
    void finish() const;
    /// Throws the first failure of a call, if there was one.
    void check() const;

private:
    /// What both outcomes of a call have in common: `unanswered` is for no answer in time.
    [[nodiscard]] DaemonCalls::FailureTaker failureTaker(std::function<void()> unanswered);

    DaemonCalls calls;
    std::optional<Failure> failure;
    int underWay = 0;
};

} // namespace Zonectl
