#pragma once

#include "Failure.h"
#include "Options.h"
#include "Output.h"

#include <string>
#include <string_view>

namespace Zonectl {

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
    bool takesWait;
    bool takesRoot;
    Handler handler;
    bool takesFile = false;
    bool takesClean = false; ///< and --yes with it
};

/// Runs what the command line asks for and returns the exit status. Throws Failure.
[[nodiscard]] ExitStatus runCommand(const Options& options);

/// The help text: of one command, or of the whole program for an empty or unknown name.
[[nodiscard]] std::string helpText(std::string_view command);

[[nodiscard]] ExitStatus listCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus stateCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus initPidCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus versionCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus startCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus stopCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus unfreezeCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus watchCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus doctorCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus labelsCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus explainCommand(const Options& options, const Style& style);
[[nodiscard]] ExitStatus leftoversCommand(const Options& options, const Style& style);

} // namespace Zonectl
