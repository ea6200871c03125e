#pragma once

#include <string>

namespace ZoneCore {

/// Smack labels of paths, the runtime directories, and who may subscribe. Holds no data: made on demand, held
/// by a shared pointer for the length of a call. May be used on any thread. Failures are a result and a log
/// line.
class ZoneSecurityPolicy
{
public:
    /// @return the path's label, or an empty string
    [[nodiscard]] std::string getContainerSmackLabel(const std::string& path);

    /// Labels the path unless its present label is the wanted one or a leading part of it. A path that
    /// carries no label at all is never labelled.
    /// @return whether the path ends up with the label
    [[nodiscard]] bool setContainerSmackLabel(const std::string& path, const std::string& label);

    /// Makes the last component of a path unless the path is writable already.
    [[nodiscard]] bool ensureContainerPath(const std::string& path, int mode);

    /// Makes and labels the runtime directory.
    [[nodiscard]] bool ensureContainerRunPath();

    /// Makes the runtime directory and the pid-file directory in it.
    [[nodiscard]] bool ensureContainerPIDFilePath();

    /// Whether the process at the other end of a Unix socket runs under the daemon's effective user id.
    [[nodiscard]] bool checkProcessPrivilege(int fd);
};

} // namespace ZoneCore
