#pragma once

#include <stdexcept>
#include <string>

namespace Zonectl {

/// What the process returns to its caller; the values are part of the command line's contract.
enum ExitStatus
{
    EXIT_OK = 0,
    EXIT_FAILED = 1,      ///< refused by the daemon, failed, or problems were found
    EXIT_USAGE = 2,       ///< the command line makes no sense
    EXIT_UNREACHABLE = 3, ///< no bus, no daemon on it, or no answer from it
    EXIT_TIME_LIMIT = 4,  ///< what is waited for did not come in time
};

/// Ends a command: one line for standard error and the exit status. Thrown by commands, caught by `main`.
class Failure : public std::runtime_error
{
public:
    Failure(ExitStatus exitStatus, const std::string& message)
        : std::runtime_error(message), failureStatus(exitStatus)
    {}
    [[nodiscard]] ExitStatus status() const { return failureStatus; }

private:
    ExitStatus failureStatus;
};

} // namespace Zonectl
