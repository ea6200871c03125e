#include "Device/MonitorProbe.h"

#include "Daemon/Names.h"
#include "Device/ChildProcess.h"
#include "Device/LxcLibrary.h"
#include "Device/QuietCorner.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// How long a process may take until it comes to its question, on a machine with much to do.
constexpr milliseconds LONGEST_PREPARATION(1000);

/// What the process tells, each by one byte.
constexpr char ASKING = '?';
constexpr char ANSWERED = '!';

/// What the process does.
void ask(const LxcLibrary& library, const std::string& container, int teller)
{
    const auto tell = [teller](char byte) {
        if (write(teller, &byte, 1) != 1) {
            _exit(EXIT_FAILURE);
        }
    };
    // To open a container is to wait for its lock. The daemon has done so long ago, and the question itself
    // takes none; so it is opened where nobody holds its lock.
    coverRunDirectory();
    if (library.askState(container, [&tell] { tell(ASKING); })) {
        tell(ANSWERED);
    }
}

/// One process that asks; it ends with the object.
class Probe
{
public:
    Probe(const LxcLibrary& library, std::string askedContainer)
        : container(std::move(askedContainer)),
          process([&library, name = container](int teller) { ask(library, name, teller); })
    {}

    [[nodiscard]] const std::string& name() const { return container; }
    [[nodiscard]] MonitorVoice voice() const { return heard; }
    /// The end of the pipe to wait at; -1 when nothing more is to come.
    [[nodiscard]] int descriptor() const { return process.descriptor(); }
    /// When there is no more waiting for it.
    [[nodiscard]] Clock::time_point limit() const
    {
        return asking ? *asking + MONITOR_PATIENCE : begun + LONGEST_PREPARATION;
    }

    /// Reads one byte that is there, or the end.
    void read()
    {
        char byte = 0;
        const ssize_t count = ::read(descriptor(), &byte, 1);
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
        process.stopListening();
    }

    /// Also before its question: whatever holds liblxc up there may hold the daemon up as well.
    void giveUp()
    {
        heard = MonitorVoice::Silent;
        process.stopListening();
    }

private:
    std::string container;
    ChildProcess process;
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
