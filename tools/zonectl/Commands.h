#pragma once

#include "CommandLine/Failure.h"
#include "CommandLine/Options.h"
#include "Output/Output.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Zonectl {

/// What a command takes besides the options that all take; a set of bits.
enum Takes : unsigned int
{
    TAKES_NOTHING = 0,
    TAKES_WAIT = 1U << 0U,
    TAKES_ROOT = 1U << 1U,
    TAKES_FILE = 1U << 2U,
    TAKES_RECORD = 1U << 3U,
    TAKES_RAW = 1U << 4U,
    TAKES_TMPFILES = 1U << 5U,
    TAKES_FIX = 1U << 6U,
    TAKES_CLEAN = 1U << 7U,
    TAKES_YES = 1U << 8U,
};

/// What a command's arguments are, for those who complete a command line.
enum class Arguments
{
    None,
    Zones,        ///< names of zones
    ZoneAndState, ///< the name of a zone, then the word of a state
    Files,
    CommandLine, ///< the beginning of another one
};

/// As many arguments as anybody likes.
inline constexpr std::size_t ANY_NUMBER = SIZE_MAX;

/// One command of the command line.
struct Command
{
    /// Carries the command out and returns the exit status; ends by Failure when it cannot.
    using Handler = ExitStatus (*)(const Options& options, const Style& style);

    std::string_view name;
    std::string_view usage; ///< what may follow the name
    std::string_view help;  ///< one line
    std::size_t fewest;     ///< arguments
    std::size_t most;
    Arguments arguments;
    unsigned int takes; ///< bits of `Takes`
    Handler handler;
};

/// All commands, in the order of the help text.
[[nodiscard]] std::span<const Command> allCommands();

/// One option of the command line, for the help text and for completion.
struct OptionHelp
{
    std::string_view name;                 ///< with its dashes
    std::string_view value;                ///< what follows the name in the help text; empty for a switch
    std::string_view help;                 ///< lines that fit behind the names
    unsigned int takenBy;                  ///< the bit of `Takes`; TAKES_NOTHING when every command takes it
    bool (*given)(const Options& options); ///< whether the command line has it; not asked for TAKES_NOTHING
};

/// All options, in the order of the help text.
[[nodiscard]] std::span<const OptionHelp> allOptions();

/// Runs what the command line asks for and returns the exit status. Throws Failure.
[[nodiscard]] ExitStatus runCommand(const Options& options);

/// The help text: of one command, or of the whole program for an empty or unknown name.
[[nodiscard]] std::string helpText(std::string_view command);

/// All zones, or those that are named.
[[nodiscard]] ExitStatus listCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus pidCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus versionCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus startCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus stopCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus unfreezeCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus waitCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus attachCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus watchCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus topCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus replayCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus diffCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus doctorCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus labelsCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus explainCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus leftoversCommand(const Options& options, const Style& style);
/// Prints what the last of the words may be, one candidate a line, with its help behind a tab. The words are
/// those of a command line without the program's name; the shells' completions call this.
[[nodiscard]] ExitStatus completeCommand(const Options& options, const Style& style);

} // namespace Zonectl
