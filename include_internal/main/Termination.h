#pragma once

/// The SIGTERM handler: quits every event loop and tears nothing down. It runs on the main thread only,
/// between two steps of start-up or teardown or while the main loop waits.
void handle_termination_signal(int sig);
