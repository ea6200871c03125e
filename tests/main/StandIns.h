#pragma once

#include "platform/watchdog/platform_watchdog.h"

#include <functional>
#include <set>
#include <string>

namespace ZoneTest {

/// Stands in for all that the daemon's main function calls. Each call writes a debug record with its name and
/// its arguments, so that calls and main's own records, which are never at that level, have one order.
///
/// While no object lives, the C library's and GLib's functions do what they always do. One at a time.
class StandIns
{
public:
    StandIns();
    /// Forgets the manager and the registry that main has left behind.
    ~StandIns();
    StandIns(const StandIns&) = delete;
    StandIns& operator=(const StandIns&) = delete;

    static constexpr int LOCK_FD = 42;
    /// What each _exit ends the process with: a test program that it ends has not passed.
    static constexpr int STATUS_OF_EXIT = 64;

    /// The calls that fail, by name: "chdir". A gate or an object that fails to go stays.
    std::set<std::string> failing;
    /// Happens while the main loop runs.
    std::function<void()> mainLoop;
    /// What was set last.
    platform_watchdog_stall_reporter stallReporter = nullptr;
};

} // namespace ZoneTest

/// The daemon's main function.
extern "C" int zone_manager_main();
