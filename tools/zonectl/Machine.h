#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Zonectl {

/// A system's files: the running machine's, or those below another root. Only looks, never changes.
/// All paths are absolute paths of that system.
class Machine
{
public:
    /// An empty root stands for the running machine.
    explicit Machine(std::string rootDirectory) : root(std::move(rootDirectory)) {}

    /// Whether this is the machine that the program runs on.
    [[nodiscard]] bool live() const { return root.empty(); }

    /// Whether the path exists; a symbolic link counts only when it leads somewhere.
    [[nodiscard]] bool exists(const std::string& path) const;
    /// Whether there is anything of that name, a dangling link included.
    [[nodiscard]] bool entryExists(const std::string& path) const;
    /// Whether the path is a regular file that somebody may execute.
    [[nodiscard]] bool isProgram(const std::string& path) const;
    [[nodiscard]] bool isDirectory(const std::string& path) const;
    /// Whether the path lies on a read-only mount; false when that cannot be found out.
    [[nodiscard]] bool onReadOnlyMount(const std::string& path) const;
    /// The path's Smack label; nothing when it has none or it cannot be read.
    [[nodiscard]] std::optional<std::string> label(const std::string& path) const;
    /// The file's text; nothing when it cannot be read.
    [[nodiscard]] std::optional<std::string> read(const std::string& path) const;
    /// The names in a directory, sorted by bytes; empty when it cannot be read.
    [[nodiscard]] std::vector<std::string> entries(const std::string& path) const;

private:
    [[nodiscard]] std::string at(const std::string& path) const { return root + path; }

    std::string root;
};

/// Whether the running kernel has Smack switched on.
[[nodiscard]] bool kernelHasSmack();

} // namespace Zonectl
