#pragma once

#include "Common/Handles.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Zonectl {

/// What the file system knows of a file.
struct FileStatus
{
    bool isFifo = false;
    unsigned int mode = 0; ///< the permission bits
    unsigned int owner = 0;
    std::int64_t modified = 0; ///< seconds since the epoch
    unsigned int deviceMajor = 0;
    unsigned int deviceMinor = 0;
    std::uint64_t inode = 0;

    /// Whether both are the same file, under whatever path.
    [[nodiscard]] bool sameFileAs(const FileStatus& other) const
    {
        return deviceMajor == other.deviceMajor && deviceMinor == other.deviceMinor && inode == other.inode;
    }
};

/// What is left of a file system.
struct FreeSpace
{
    std::uint64_t bytes = 0;
    std::optional<std::uint64_t> files; ///< nothing where they are not counted
};

/// A system's files: the running machine's, or those below another root, in which symbolic links lead to
/// where they would lead on that system, and never out of it. Only looks, never changes. All paths are
/// absolute paths of that system.
class Machine
{
public:
    /// An empty root stands for the running machine.
    explicit Machine(std::string rootDirectory) : root(std::move(rootDirectory)) {}

    /// Whether this is the machine that the program runs on.
    [[nodiscard]] bool live() const { return root.empty(); }

    /// The other root's directory; empty for the running machine.
    [[nodiscard]] const std::string& rootDirectory() const { return root; }

    /// Whether the path exists; a symbolic link counts only when it leads somewhere.
    [[nodiscard]] bool exists(const std::string& path) const;
    /// Whether there is anything of that name, a dangling link included.
    [[nodiscard]] bool entryExists(const std::string& path) const;
    /// Whether this user may not see if there is anything of that name.
    [[nodiscard]] bool hidden(const std::string& path) const;
    /// Whether this user may not read what is there, or may not see if there is anything.
    [[nodiscard]] bool closed(const std::string& path) const;
    /// Whether the path is a regular file that somebody may execute.
    [[nodiscard]] bool isProgram(const std::string& path) const;
    [[nodiscard]] bool isDirectory(const std::string& path) const;
    /// What is known of the file that the path leads to; nothing when there is none.
    [[nodiscard]] std::optional<FileStatus> status(const std::string& path) const;
    /// Whether the path lies on a read-only mount; false when that cannot be found out.
    [[nodiscard]] bool onReadOnlyMount(const std::string& path) const;
    /// Whether the path's file system can hold no label.
    [[nodiscard]] bool cannotHoldLabels(const std::string& path) const;
    [[nodiscard]] std::optional<FreeSpace> freeSpace(const std::string& path) const;
    /// What a symbolic link says; empty when it cannot be read.
    [[nodiscard]] std::string linkTarget(const std::string& path) const;
    /// The path's Smack label; nothing when it has none or it cannot be read.
    [[nodiscard]] std::optional<std::string> label(const std::string& path) const;
    /// The file's text, which may be empty; nothing when it cannot be read, or is no regular file.
    [[nodiscard]] std::optional<std::string> read(const std::string& path) const;
    /// The names in a directory, sorted by bytes; empty when it cannot be read.
    [[nodiscard]] std::vector<std::string> entries(const std::string& path) const;

private:
    [[nodiscard]] ZoneCore::UniqueFd open(const std::string& path, int flags) const;
    /// To be asked about, not read.
    [[nodiscard]] ZoneCore::UniqueFd find(const std::string& path) const;
    [[nodiscard]] ZoneCore::UniqueFd findEntry(const std::string& path) const;

    std::string root;
};

/// Whether the running kernel has Smack switched on.
[[nodiscard]] bool kernelHasSmack();

} // namespace Zonectl
