#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// A change to a system's files that this program can make itself. Each has a shell command that does the
/// same, except that the usual tools drop extended attributes where this program keeps them. A change that
/// fails leaves no half of it behind.
struct Repair
{
    enum class Kind
    {
        MakeDirectory, ///< and those above it
        SetLabel,      ///< `value` is the Smack label
        TakeOver,      ///< makes root the owner
        CloseToOthers, ///< takes the right to write from all but the owner
        MakeExecutable,
        MoveAside,   ///< out of the way, to the same name with BACKUP_SUFFIX
        AppendLines, ///< `value` holds them, each ended by a new-line; the file before is kept as its backup
        ReplaceKey,  ///< each line that sets the key `key` becomes `value`; with a backup too
    };

    Kind kind;
    std::string path; ///< in that system
    std::string value{};
    std::string key{};
    bool refusesLink = false; ///< somebody else may have made the path a symbolic link: it is not followed
};

/// What the state before a change to a file is kept as: its name with this behind it. The first one stays.
inline constexpr const char* BACKUP_SUFFIX = ".before-zonectl";

/// A text as one word of the shell.
[[nodiscard]] std::string shellWord(std::string_view text);

/// The shell command that makes the changes in order, to the system below `root` (empty: the running one).
[[nodiscard]] std::string shellCommand(const std::string& root, const std::vector<Repair>& repairs);

/// Makes one change to the system below `root`. Below another root nothing outside of it is ever changed: a
/// path that leads through a symbolic link is refused there.
/// @return what went wrong, empty when nothing did
[[nodiscard]] std::string carryOut(const std::string& root, const Repair& repair);

} // namespace Zonectl
