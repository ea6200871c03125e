// Linked into every program of the `asan` preset.
#include <sanitizer/lsan_interface.h>

#include <unistd.h>

namespace {

const pid_t programPid = getpid();

} // namespace

extern "C" {

/// A forked child that ends without having become another program looks at a copy of its parent's memory,
/// with the other threads' stacks gone: nothing that it would call a leak is one.
int __lsan_is_turned_off()
{
    return getpid() != programPid;
}

/// The sanitizer finds the per-thread variables of a library that was opened at run time by a header that the
/// C library no longer puts before them. With what it takes for one, the leak check at the end reads wild
/// addresses when a thread that has been in such a library is still on its way out; so it shall not look for
/// those variables at all.
const char* __asan_default_options()
{
    return "intercept_tls_get_addr=0";
}

/// What the daemon gives up on purpose, and what libraries keep until the process ends.
const char* __lsan_default_suppressions()
{
    return "leak:ZoneCore::Thread::createEventQueue\n"      // a zone's queue ends with the process
           "leak:ZoneCore::ZoneManager::connectToBus\n"     // so does the bus service
           "leak:ZoneCore::Thread::sendWatchDogEvent\n"     // nobody frees the payload
           "leak:ZoneCore::Thread::createZoneEvent\n"       // an event left in a queue goes with it,
           "leak:ZoneCore::Zone::requestRestart\n"          // and what it carries
           "leak:ZoneCore::ZoneMonitor::sendRestartEvent\n" //
           "leak:liblxc.so.1\n"
           "leak:libgio-2.0.so.0\n";
}
}
