#include "Daemon/SocketPeer.h"

#include <sys/socket.h>
#include <unistd.h>

namespace Zonectl {

uid_t listeningUser(const ZoneCore::UniqueFd& connected)
{
    ucred listener = {.pid = 0, .uid = static_cast<uid_t>(-1), .gid = 0}; // nobody has that one
    socklen_t size = sizeof(listener);
    static_cast<void>(getsockopt(connected.get(), SOL_SOCKET, SO_PEERCRED, &listener, &size));
    return listener.uid;
}

std::string whyNotTheDaemon(const ZoneCore::UniqueFd& connected)
{
    const uid_t user = listeningUser(connected);
    if (user == 0 || user == geteuid()) {
        return {};
    }
    return "a program of the user with the number " + std::to_string(user) +
           " listens there, which is not the zone manager";
}

} // namespace Zonectl
