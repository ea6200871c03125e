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
