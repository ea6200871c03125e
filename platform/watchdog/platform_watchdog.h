#pragma once

/// The platform's watchdog service, bound to systemd's notification protocol. Without NOTIFY_SOCKET in the
/// environment both calls do nothing and succeed.

extern "C" {

/// Puts the calling thread under the watchdog: from now on it has to notify at least every interval_seconds.
/// It counts as alive until its first interval has passed. A second call replaces the interval and begins
/// anew. Returns 0, or -1 when the interval is not positive.
int platform_watchdog_register(int interval_seconds) noexcept;

/// Says that the calling thread is alive, and sends the service manager a keep-alive when every other
/// registered thread is. Never waits. Returns 0, also when a stalled thread held the keep-alive back; -1 when
/// the calling thread is not registered or the service manager could not be reached.
int platform_watchdog_notify() noexcept;

/// Called on a notifying thread, once a stall: the stalled thread's name at its registration, its kernel id,
/// and for how many seconds it has been silent.
using platform_watchdog_stall_reporter = void (*)(const char* thread_name, int tid, int silent_seconds);

/// Sets who is told of stalled threads, null for nobody. Any thread; meant to be called once, before the
/// first registration.
void platform_watchdog_set_stall_reporter(platform_watchdog_stall_reporter reporter) noexcept;
}
