#include "main/Termination.h"

#include "Common/Log.h"
#include "ZoneCore/ZoneManager.h"

#include <cerrno>
#include <cstring>

void handle_termination_signal(int sig)
{
    const int interrupted = errno;
    ZLOGF("[Main Thread] received \"%s\" signal : %d", strsignal(sig), sig);
    ZoneCore::ZoneManager::singleton()->terminateMainloop();
    errno = interrupted;
}
