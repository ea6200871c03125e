#pragma once

#include "CommandLine/Failure.h"
#include "Common/Handles.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Zonectl {

/// Why a call has no answer.
struct CallFailure
{
    Failure failure; ///< as BusClient throws it
    bool timedOut;   ///< the daemon may be busy; else asking again is of no use
};

/// The daemon's methods as calls that do not wait: the answer, or why there is none, comes on the main
/// context that is the thread's default. What has not come when the object ends comes no more.
class DaemonCalls
{
public:
    using NamesTaker = std::function<void(const std::vector<std::string>& names)>;
    using NumberTaker = std::function<void(int number)>; ///< -1 when the daemon refuses to speak of the zone
    using FailureTaker = std::function<void(const CallFailure& failure)>;

    explicit DaemonCalls(GDBusConnection* connection);
    ~DaemonCalls();
    DaemonCalls(const DaemonCalls&) = delete;
    DaemonCalls& operator=(const DaemonCalls&) = delete;

    /// "GetZoneList".
    void askNames(std::chrono::milliseconds limit, NamesTaker taker, FailureTaker onFailure);
    /// A method that takes a zone and answers with a number, as "ZoneGetState".
    void askNumber(const char* method, const std::string& zone, std::chrono::milliseconds limit,
                   NumberTaker taker, FailureTaker onFailure);

private:
    struct Call;
    using ReplyTaker = std::function<void(GVariant* reply)>;

    static void repliedCallback(GObject* source, GAsyncResult* result, gpointer data);
    void call(const char* method, GVariant* parameters, const char* replyType,
              std::chrono::milliseconds limit, ReplyTaker taker, FailureTaker onFailure);

    ZoneCore::GBusConnectionPtr bus;
    std::shared_ptr<GCancellable> alive; ///< gone, and so the calls, when the object is gone
};

} // namespace Zonectl
