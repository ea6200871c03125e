#include "Device/ChildProcess.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;

/// A killed process is gone at once, unless the kernel holds it.
constexpr std::chrono::milliseconds LONGEST_END(100);
constexpr int END_STEP_MS = 2;

/// The process's whole life. Nothing of the parent's is run or flushed at its end.
[[noreturn]] void live(const std::function<void(int teller)>& work, int teller) noexcept
{
    // Whatever happens to the parent, this process does not wait for ever.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC); nowhere >= 0) {
        dup2(nowhere, STDOUT_FILENO); // liblxc may have something to say
        dup2(nowhere, STDERR_FILENO);
    }
    work(teller);
    _exit(EXIT_SUCCESS);
}

} // namespace

ChildProcess::ChildProcess(const std::function<void(int teller)>& work)
{
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return;
    }
    reader.reset(ends[0]);
    const ZoneCore::UniqueFd writer(ends[1]);
    pid = fork();
    if (pid == 0) {
        live(work, writer.get());
    }
    if (pid < 0) {
        reader.reset();
    }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : reader(std::move(other.reader)), pid(std::exchange(other.pid, -1))
{}

/// By its own number, which is nobody else's until it has been waited for.
void ChildProcess::end()
{
    if (pid <= 0) {
        return;
    }
    kill(pid, SIGKILL);
    const Clock::time_point patience = Clock::now() + LONGEST_END;
    while (waitpid(pid, nullptr, WNOHANG) == 0 && Clock::now() < patience) {
        poll(nullptr, 0, END_STEP_MS);
    }
    pid = -1;
}

} // namespace Zonectl
