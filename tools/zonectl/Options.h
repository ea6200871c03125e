#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Zonectl {

/// When to colour: `Automatic` only on a terminal, and never with NO_COLOR set.
enum class ColorMode
{
    Automatic,
    Always,
    Never,
};

/// A command line, taken apart. Options may stand before or behind the command.
struct Options
{
    bool help = false;
    bool version = false;
    bool json = false;
    bool wait = false;
    bool clean = false;
    bool yes = false;
    ColorMode color = ColorMode::Automatic;
    std::optional<std::chrono::seconds> timeout; ///< as given with --timeout
    std::string root;                            ///< empty for the running machine
    std::string file;                            ///< empty when none was given
    std::string command;                         ///< empty when none was given
    std::vector<std::string> arguments;          ///< what follows the command

    /// The bound on a call and on --wait.
    [[nodiscard]] std::chrono::seconds patience() const { return timeout.value_or(std::chrono::seconds(30)); }
};

/// Takes a command line apart; `arguments` come without the program's name.
/// Throws Failure(EXIT_USAGE) for unknown options, bad values and texts that are not UTF-8.
[[nodiscard]] Options parseOptions(const std::vector<std::string>& arguments);

} // namespace Zonectl
