#pragma once

#include <glib.h>

/// When SIGTERM may interrupt the daemon, and what a child inherits.
///
/// The SIGTERM handler quits event loops and so takes GLib's locks. It must not interrupt code that holds one
/// of them, nor the teardown in the middle of deleting what the handler walks through. Therefore SIGTERM is
/// held back on every thread and let in on the main thread only, at places where nothing is half-done:
/// between two steps of start-up or teardown, and while the main loop rests in poll. SIGPIPE is held back for
/// good: a subscriber that is gone is a failed write, not the end of the daemon.
namespace ZoneCore::ProcessSignals {

/// Holds SIGTERM and SIGPIPE back from now on. Called once on the main thread before any other thread is
/// started, since threads inherit it.
void hold();

/// Lets a SIGTERM in that arrived since the last time. Main thread only.
void deliverPending();

/// A GPollFunc for the main loop that lets SIGTERM in while it waits, and only then.
/// @param timeout milliseconds, -1 for ever
gint poll(GPollFD* fds, guint count, gint timeout);

/// Gives a forked child the signal state in which the daemon itself was started. Async-signal-safe.
void restoreInChild();

} // namespace ZoneCore::ProcessSignals
