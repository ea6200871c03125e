#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Platform {

/// Who has to notify how often, and who did. May be used on every thread.
class WatchdogRegistry
{
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    /// A thread that was silent for longer than its interval.
    struct Stall
    {
        std::string threadName;
        pid_t tid = 0;
        std::chrono::seconds silent{};
    };

    /// What a notification found.
    struct Outcome
    {
        /// The notifying thread is registered.
        bool registered = false;
        /// Every registered thread has notified within its interval.
        bool allAlive = false;
        /// The stalls found now and not told before.
        std::vector<Stall> newStalls;
    };

    /// Takes the clock that all intervals are measured with.
    explicit WatchdogRegistry(Now now);

    /// Registers a thread, or replaces its registration. An id that the kernel gave to a new thread replaces
    /// the dead one's; a thread that ended stays registered until then, so its end is noticed as a stall.
    void add(pid_t tid, std::string threadName, std::chrono::seconds interval);

    /// Notes that a thread is alive and looks at all of them. A thread that comes back after its interval is
    /// told as a stall too, unless it was told before.
    [[nodiscard]] Outcome notify(pid_t tid);

private:
    struct Entry
    {
        std::string threadName;
        std::chrono::seconds interval{};
        Clock::time_point lastSeen;
        bool told = false;
    };

    /// Whether the thread has stalled; a stall that nobody was told of is added to the list. Needs the mutex.
    static bool checkStall(pid_t tid, Entry& entry, Clock::time_point now, std::vector<Stall>& newStalls);

    const Now now_;
    std::mutex mutex_;
    std::map<pid_t, Entry> entries_; // guarded by mutex_
};

} // namespace Platform
