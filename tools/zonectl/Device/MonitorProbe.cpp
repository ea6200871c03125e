#include "Device/MonitorProbe.h"

#include "Common/Handles.h"
#include "Daemon/Names.h"
#include "Device/LxcLibrary.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// How long a process may take until it comes to its question, on a machine with much to do.
constexpr milliseconds LONGEST_PREPARATION(1000);
/// A killed process is gone at once, unless the kernel holds it.
constexpr milliseconds LONGEST_END(100);
constexpr int END_STEP_MS = 2;

/// What the process tells, each by one byte.
constexpr char ASKING = '?';
constexpr char ANSWERED = '!';

/// The child's whole life. Nothing of the parent's is run or flushed at its end.
[[noreturn]] void ask(const LxcLibrary& library, const std::string& container, int teller)
{
    // Whatever happens to the parent, this process does not wait for ever.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC); nowhere >= 0) {
        dup2(nowhere, STDOUT_FILENO); // liblxc may have something to say
        dup2(nowhere, STDERR_FILENO);
    }
    const auto tell = [teller](char byte) {
        if (write(teller, &byte, 1) != 1) {
            _exit(EXIT_FAILURE);
        }
    };
    if (library.askState(container, [&tell] { tell(ASKING); })) {
        tell(ANSWERED);
    }
    _exit(EXIT_SUCCESS);
}

/// One process that asks; it ends with the object.
class Probe
{
public:
    Probe(const LxcLibrary& library, std::string askedContainer) : container(std::move(askedContainer))
    {
        std::array<int, 2> ends = {-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            return;
        }
        reader.reset(ends[0]);
        const ZoneCore::UniqueFd writer(ends[1]);
        child = fork();
        if (child == 0) {
            ask(library, container, writer.get());
        }
        if (child < 0) {
            reader.reset();
        }
    }
    ~Probe() { end(); }
    Probe(Probe&& other) noexcept
        : container(std::move(other.container)), reader(std::move(other.reader)),
          child(std::exchange(other.child, -1)), asking(other.asking), heard(other.heard)
    {}
    Probe& operator=(Probe&&) = delete;
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    [[nodiscard]] const std::string& name() const { return container; }
    [[nodiscard]] MonitorVoice voice() const { return heard; }
    /// The end of the pipe to wait at; -1 when nothing more is to come.
    [[nodiscard]] int descriptor() const { return reader.get(); }
    /// When there is no more waiting for it.
    [[nodiscard]] Clock::time_point limit() const
    {
        return asking ? *asking + MONITOR_PATIENCE : begun + LONGEST_PREPARATION;
    }

    /// Reads one byte that is there, or the end.
    void read()
    {
        char byte = 0;
        const ssize_t count = ::read(reader.get(), &byte, 1);
        if (count < 0 && errno == EINTR) {
            return;
        }
        if (count == 1 && byte == ASKING) {
            asking = Clock::now();
            return;
        }
        if (count == 1 && byte == ANSWERED) {
            heard = MonitorVoice::Answers;
        }
        reader.reset();
    }

    /// Also before its question: whatever holds liblxc up there may hold the daemon up as well.
    void giveUp()
    {
        heard = MonitorVoice::Silent;
        reader.reset();
    }

private:
    /// By its own number, which is nobody else's until it has been waited for.
    void end()
    {
        if (child <= 0) {
            return;
        }
        kill(child, SIGKILL);
        const Clock::time_point patience = Clock::now() + LONGEST_END;
        while (waitpid(child, nullptr, WNOHANG) == 0 && Clock::now() < patience) {
            poll(nullptr, 0, END_STEP_MS);
        }
        child = -1;
    }

    std::string container;
    ZoneCore::UniqueFd reader;
    pid_t child = -1;
    Clock::time_point begun = Clock::now();
    std::optional<Clock::time_point> asking;
    MonitorVoice heard = MonitorVoice::Unknown;
};

/// Waits for the next byte of any probe and gives up those whose time is over. False when all are done.
[[nodiscard]] bool listen(std::vector<Probe>& probes)
{
    std::vector<pollfd> waiting;
    Clock::time_point next = Clock::time_point::max();
    for (Probe& probe : probes) {
        if (probe.descriptor() >= 0 && probe.limit() <= Clock::now()) {
            probe.giveUp();
        }
        if (probe.descriptor() >= 0) {
            next = std::min(next, probe.limit());
        }
        waiting.push_back({.fd = probe.descriptor(), .events = POLLIN, .revents = 0});
    }
    if (next == Clock::time_point::max()) {
        return false;
    }
    const auto left = std::max(std::chrono::ceil<milliseconds>(next - Clock::now()), milliseconds::zero());
    poll(waiting.data(), waiting.size(), static_cast<int>(left.count()));
    for (std::size_t i = 0; i < probes.size(); ++i) {
        if (waiting[i].revents != 0) {
            probes[i].read();
        }
    }
    return true;
}

} // namespace

std::map<std::string, MonitorVoice> askMonitors(const std::vector<std::string>& containers)
{
    const LxcLibrary library(Names::LXC_LIBRARY);
    if (!library.usable()) {
        return {};
    }
    std::vector<Probe> probes;
    probes.reserve(containers.size());
    for (const std::string& container : containers) {
        probes.emplace_back(library, container);
    }
    while (listen(probes)) {
    }
    std::map<std::string, MonitorVoice> voices;
    for (const Probe& probe : probes) {
        voices[probe.name()] = probe.voice();
    }
    return voices;
}

} // namespace Zonectl
