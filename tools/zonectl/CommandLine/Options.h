#pragma once

#include "Output/Output.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Zonectl {

/// A command line, taken apart. Options may stand before or behind the command.
struct Options
{
    bool help = false;
    bool version = false;
    bool json = false;
    bool wait = false;
    bool raw = false;      ///< watch: as a subscriber of the publisher's socket
    bool tmpfiles = false; ///< labels: as lines of tmpfiles.d
    bool fix = false;
    bool clean = false;
    bool yes = false;
    ColorMode color = ColorMode::Automatic;
    std::optional<std::chrono::seconds> timeout;   ///< as given with --timeout
    std::optional<std::chrono::seconds> waitLimit; ///< as given with --wait
    std::string root;                              ///< empty for the running machine
    std::string file;                              ///< empty when none was given, as `record`
    std::string record;
    std::string command;                ///< empty when none was given
    std::vector<std::string> arguments; ///< what follows the command
    bool separated = false; ///< "--" stood before the arguments, and one of them begins with a dash

    /// The bound on a call.
    [[nodiscard]] std::chrono::seconds patience() const { return timeout.value_or(std::chrono::seconds(30)); }
    /// The bound on what --wait waits for.
    [[nodiscard]] std::chrono::seconds waitPatience() const { return waitLimit.value_or(patience()); }
};

/// Takes a command line apart; `arguments` come without the program's name.
/// Throws Failure(EXIT_USAGE) for unknown options, bad values and texts that are not UTF-8.
[[nodiscard]] Options parseOptions(const std::vector<std::string>& arguments);

} // namespace Zonectl
