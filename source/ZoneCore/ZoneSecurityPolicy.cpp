#include "ZoneCore/ZoneSecurityPolicy.h"

#include "Common/Log.h"
#include "Common/SystemError.h"
#include "ZoneCore/RuntimePaths.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace ZoneCore {

namespace {

constexpr const char* SMACK_ATTRIBUTE = "security.SMACK64";

constexpr size_t LABEL_BUFFER_SIZE = 4096;

/// A label as it was read. An attribute that does not fit into the buffer is no label; one that fills it is
/// cut there, by a terminator behind it.
struct LabelRead
{
    std::array<char, LABEL_BUFFER_SIZE + 1> text{};
    ssize_t length{}; ///< of the attribute; below 1: there is none, errno says why
};

LabelRead readLabel(const std::string& path)
{
    LabelRead label;
    errno = 0; // an empty attribute is no error of the call
    label.length = getxattr(path.c_str(), SMACK_ATTRIBUTE, label.text.data(), LABEL_BUFFER_SIZE);
    return label;
}

} // namespace

std::string ZoneSecurityPolicy::getContainerSmackLabel(const std::string& path)
{
    const LabelRead label = readLabel(path);
    if (label.length < 1) {
        const SystemErrorText error;
        ZLOGE("Failed to get smack label of \"%s\" - \"%s\"", path.c_str(), error.c_str());
        return "";
    }
    return label.text.data();
}

bool ZoneSecurityPolicy::setContainerSmackLabel(const std::string& path, const std::string& label)
{
    const LabelRead current = readLabel(path);
    if (current.length < 1) {
        const SystemErrorText error;
        ZLOGE("Failed to get smack label of \"%s\"(\"%s\") - \"%s\"", path.c_str(), label.c_str(),
              error.c_str());
        return false;
    }
    ZLOGI("\"%s\" smack label is \"%s\"(%d)", path.c_str(), current.text.data(),
          static_cast<int>(current.length));
    // Over the length of the current label only: a leading part of the wanted label is as good as the whole.
    if (std::strncmp(current.text.data(), label.c_str(), static_cast<size_t>(current.length)) == 0) {
        ZLOGI("\"%s\" smack label is already set as \"%s\"", path.c_str(), label.c_str());
        return true;
    }
    if (setxattr(path.c_str(), SMACK_ATTRIBUTE, label.c_str(), label.size(), 0) < 0) {
        const SystemErrorText error;
        ZLOGE("Failed to set smack label of \"%s\" to \"%s\" - \"%s\"", path.c_str(), label.c_str(),
              error.c_str());
        return false;
    }
    const std::string changed = getContainerSmackLabel(path);
    ZLOGI("\"%s\" smack label is changed to \"%s\" successfully", path.c_str(), changed.c_str());
    return true;
}

bool ZoneSecurityPolicy::ensureContainerPath(const std::string& path, int mode)
{
    if (access(path.c_str(), W_OK) == 0) {
        return true;
    }
    {
        const SystemErrorText error;
        ZLOGD("The contianer path(%s) does not exist - \"%s\"", path.c_str(), error.c_str());
    }
    if (mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0) {
        return true;
    }
    if (errno == EEXIST) {
        ZLOGI("The container path(%s) does exist", path.c_str());
        return true;
    }
    const SystemErrorText error;
    ZLOGE("Failed to create the container path(%s) - \"%s\"", path.c_str(), error.c_str());
    return false;
}

bool ZoneSecurityPolicy::ensureContainerRunPath()
{
    if (access(RuntimePaths::RUN, W_OK) < 0) {
        {
            const SystemErrorText error;
            ZLOGD("The contianer run path(%s) does not exist - \"%s\"", RuntimePaths::RUN, error.c_str());
        }
        if (mkdir(RuntimePaths::RUN, RuntimePaths::MODE) < 0) {
            if (errno != EEXIST) {
                const SystemErrorText error;
                ZLOGE("Failed to create the container run path(%s) - \"%s\"", RuntimePaths::RUN,
                      error.c_str());
                return false;
            }
            ZLOGI("The container run path(%s) does exist", RuntimePaths::RUN);
        }
    }
    if (!setContainerSmackLabel(RuntimePaths::RUN, LABEL_PRIVATE)) {
        ZLOGE("Failed to set container access label(%s) to the basepath of container running(%s)",
              LABEL_PRIVATE, RuntimePaths::RUN);
        return false;
    }
    return true;
}

bool ZoneSecurityPolicy::ensureContainerPIDFilePath()
{
    if (!ensureContainerRunPath()) {
        ZLOGE("Failed to ensure Container Run Path(%s)", RuntimePaths::RUN);
        return false;
    }
    if (access(RuntimePaths::PID, W_OK) == 0) {
        return true;
    }
    {
        const SystemErrorText error;
        ZLOGD("The contianer pidfile path(%s) does not exist - \"%s\"", RuntimePaths::PID, error.c_str());
    }
    if (mkdir(RuntimePaths::PID, RuntimePaths::MODE) == 0) {
        return true;
    }
    if (errno == EEXIST) {
        ZLOGI("The container pidfile path(%s) does exist", RuntimePaths::PID);
        return true;
    }
    const SystemErrorText error;
    ZLOGE("Failed to create the container pidfile path(%s) - \"%s\"", RuntimePaths::PID, error.c_str());
    return false;
}

bool ZoneSecurityPolicy::checkProcessPrivilege(int fd)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) < 0) {
        ZLOGE("Failed to get credentials on socket [fd : %d]", fd);
        return false;
    }
    const uid_t own = geteuid();
    if (peer.uid != own) {
        ZLOGE("Process Permission is not matched [%d <-> %d], [fd : %d]", static_cast<int>(peer.uid),
              static_cast<int>(own), fd);
        return false;
    }
    ZLOGI("Process Permission is allowed [%d <-> %d], [fd : %d]", static_cast<int>(peer.uid),
          static_cast<int>(own), fd);
    return true;
}

} // namespace ZoneCore
