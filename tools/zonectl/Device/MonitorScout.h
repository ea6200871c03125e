#pragma once

#include "Common/Handles.h"

#include <deque>
#include <functional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Zonectl {

/// Asks LXC's monitor processes for a sign of life as `askMonitors` does, again and again, for a program that
/// has threads meanwhile and must not wait: by a process that was made before.
class MonitorScout
{
public:
    using Taker = std::function<void(const std::set<std::string>& silent)>;

    /// To be made while the process has one thread, and so before it connects to a bus.
    MonitorScout();
    /// Questions that are open are not answered any more.
    ~MonitorScout();
    MonitorScout(const MonitorScout&) = delete;
    MonitorScout& operator=(const MonitorScout&) = delete;

    /// Finds out which of these containers the daemon is not to be asked about, since their monitors are
    /// silent. The answers come in the order of the questions, on the main context that is the thread's
    /// default. Where nothing can be found out, none of them is silent; that may be told before this returns.
    void ask(const std::vector<std::string>& containers, Taker taker);
    /// Whether an answer is still to come.
    [[nodiscard]] bool busy() const { return !takers.empty(); }

private:
    static gboolean readableCallback(gint descriptor, GIOCondition condition, gpointer data);
    void answer(const std::set<std::string>& silent);
    void lose();

    ZoneCore::UniqueFd channel; ///< none when there is no process to ask
    pid_t child = -1;
    guint watch = 0;
    std::deque<Taker> takers;
};

} // namespace Zonectl
