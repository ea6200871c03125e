#include "Daemon/BusCalls.h"

#include "Daemon/BusClient.h"

#include <utility>

namespace Zonectl {

BusCalls::BusCalls(const BusClient& client) : calls(client.connection()) {}

DaemonCalls::FailureTaker BusCalls::failureTaker(std::function<void()> unanswered)
{
    return [this, unanswered = std::move(unanswered)](const CallFailure& reason) {
        --underWay;
        if (reason.timedOut) {
            unanswered();
        } else if (!failure) {
            failure = reason.failure;
        }
    };
}

void BusCalls::askInteger(const char* method, const std::string& zone, std::chrono::milliseconds patience,
                          const IntegerHandler& handler)
{
    ++underWay;
    calls.askNumber(
        method, zone, patience,
        [this, handler](int value) {
            --underWay;
            handler(value);
        },
        failureTaker([handler] { handler(std::nullopt); }));
}

void BusCalls::askNames(std::chrono::milliseconds patience, const NamesHandler& handler)
{
    ++underWay;
    calls.askNames(
        patience,
        [this, handler](const std::vector<std::string>& names) {
            --underWay;
            handler(names);
        },
        failureTaker([handler] { handler(std::nullopt); }));
}

void BusCalls::finish() const
{
    while (underWay > 0) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

void BusCalls::check() const
{
    if (failure) {
        throw Failure(*failure);
    }
}

} // namespace Zonectl
