#pragma once

#include "Common/Handles.h"
#include "Failure.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Zonectl {

/// The daemon's methods as calls that do not wait: the answer, or why there is none, comes on the main
/// context that is the thread's default. What has not come when the object ends comes no more.
class DaemonCalls
{
public:
    using NamesTaker = std::function<void(const std::vector<std::string>& names)>;
    using StateTaker = std::function<void(int state)>; ///< -1 when the daemon refuses to speak about the zone
    using FailureTaker = std::function<void(const Failure& failure)>; ///< as BusClient throws it

    /// The limit holds for each call.
    DaemonCalls(GDBusConnection* connection, std::chrono::milliseconds limit);
    ~DaemonCalls();
    DaemonCalls(const DaemonCalls&) = delete;
    DaemonCalls& operator=(const DaemonCalls&) = delete;

    void askNames(NamesTaker taker, FailureTaker onFailure);
    void askState(const std::string& zone, StateTaker taker, FailureTaker onFailure);

private:
    struct Call;
    using ReplyTaker = std::function<void(GVariant* reply)>;

    static void repliedCallback(GObject* source, GAsyncResult* result, gpointer data);
    void call(const char* method, GVariant* parameters, const char* replyType, ReplyTaker taker,
              FailureTaker onFailure);

    ZoneCore::GBusConnectionPtr bus;
    int timeoutMilliseconds;
    std::shared_ptr<GCancellable> alive; ///< gone, and so the calls, when the object is gone
};

} // namespace Zonectl
