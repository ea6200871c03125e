#pragma once

#include "tests/support/unit/Eventually.h"

#include <chrono>
#include <csignal>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ZoneTest {

/// A process for the clean-up to end. It waits for signals, and is gone with the object at the latest.
class Victim
{
public:
    Victim() : child(fork())
    {
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                pause();
            }
        }
    }
    ~Victim()
    {
        if (!reaped) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    Victim(const Victim&) = delete;
    Victim& operator=(const Victim&) = delete;

    [[nodiscard]] pid_t pid() const { return child; }
    [[nodiscard]] std::string pidText() const { return std::to_string(child); }

    /// Whether SIGKILL has ended it, waiting a while for that.
    [[nodiscard]] bool wasKilled()
    {
        return eventually([this] { return hasEnded(); }) && WIFSIGNALED(status) &&
               WTERMSIG(status) == SIGKILL;
    }

    /// Whether it is there, and stays there for longer than SIGKILL would take.
    [[nodiscard]] bool isAlive()
    {
        return !eventually([this] { return hasEnded(); }, std::chrono::milliseconds(30));
    }

private:
    bool hasEnded()
    {
        reaped = reaped || waitpid(child, &status, WNOHANG) == child;
        return reaped;
    }

    pid_t child;
    bool reaped = false;
    int status = 0;
};

} // namespace ZoneTest
