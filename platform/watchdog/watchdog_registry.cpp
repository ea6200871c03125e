#include "platform/watchdog/watchdog_registry.h"

#include <utility>

namespace Platform {

WatchdogRegistry::WatchdogRegistry(Now now) : now_(std::move(now)) {}

void WatchdogRegistry::add(pid_t tid, std::string threadName, std::chrono::seconds interval)
{
    const std::lock_guard lock(mutex_);
    entries_[tid] = {.threadName = std::move(threadName), .interval = interval, .lastSeen = now_()};
}

WatchdogRegistry::Outcome WatchdogRegistry::notify(pid_t tid)
{
    const std::lock_guard lock(mutex_);
    Outcome outcome;
    const auto self = entries_.find(tid);
    if (self == entries_.end()) {
        return outcome;
    }
    outcome.registered = true;
    const auto now = now_();
    checkStall(tid, self->second, now, outcome.newStalls);
    self->second.lastSeen = now;
    self->second.told = false;

    outcome.allAlive = true;
    for (auto& [otherTid, entry] : entries_) {
        if (checkStall(otherTid, entry, now, outcome.newStalls)) {
            outcome.allAlive = false;
        }
    }
    return outcome;
}

bool WatchdogRegistry::checkStall(pid_t tid, Entry& entry, Clock::time_point now,
                                  std::vector<Stall>& newStalls)
{
    const auto silent = now - entry.lastSeen;
    if (silent <= entry.interval) {
        return false;
    }
    if (!entry.told) {
        entry.told = true;
        newStalls.push_back(Stall{.threadName = entry.threadName,
                                  .tid = tid,
                                  .silent = std::chrono::duration_cast<std::chrono::seconds>(silent)});
    }
    return true;
}

} // namespace Platform
