#include "Common/ProcessSignals.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>

namespace ZoneCore::ProcessSignals {

namespace {

/// The mask the daemon was started with. Written by hold() before any other thread exists, read by children.
sigset_t originalMask;
bool held = false;

sigset_t only(int signal)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    return set;
}

} // namespace

void hold()
{
    sigset_t signals = only(SIGTERM);
    sigaddset(&signals, SIGPIPE);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    if (!held) {
        originalMask = before;
        held = true;
    }
}

void deliverPending()
{
    if (!held) {
        return;
    }
    const sigset_t termination = only(SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &termination, nullptr);
    pthread_sigmask(SIG_BLOCK, &termination, nullptr);
}

gint poll(GPollFD* fds, guint count, gint timeout)
{
    static_assert(sizeof(GPollFD) == sizeof(pollfd));
    sigset_t whileWaiting;
    pthread_sigmask(SIG_SETMASK, nullptr, &whileWaiting);
    sigdelset(&whileWaiting, SIGTERM);
    const timespec limit{timeout / 1000, (timeout % 1000) * 1000000L};
    const int ready =
        ppoll(reinterpret_cast<pollfd*>(fds), count, timeout < 0 ? nullptr : &limit, &whileWaiting);
    if (ready >= 0) {
        deliverPending(); // the kernel does not deliver a signal when a descriptor is ready at once
    }
    return ready;
}

void restoreInChild()
{
    // An ignored signal would stay ignored in the program that the child becomes; and until it becomes one,
    // the daemon's handler would run in the child, among locks that threads held which are not there any
    // more.
    static_cast<void>(signal(SIGPIPE, SIG_DFL));
    static_cast<void>(signal(SIGTERM, SIG_DFL));
    if (held) {
        sigprocmask(SIG_SETMASK, &originalMask, nullptr);
    }
}

} // namespace ZoneCore::ProcessSignals
