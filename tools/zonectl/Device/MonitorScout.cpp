#include "Device/MonitorScout.h"

#include "Daemon/Names.h"
#include "Device/Containers.h"
#include "Device/LxcLibrary.h"
#include "Device/Machine.h"
#include "Device/MonitorProbe.h"
#include "Device/ProcessTable.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <glib-unix.h>
#include <optional>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <utility>

namespace Zonectl {

namespace {

/// A message is never empty, so that it is told from the end.
constexpr char BEGIN = ':';

/// The names in one message, each with a zero byte behind it.
template <typename Names>
[[nodiscard]] bool sendNames(int channel, const Names& names)
{
    std::string message(1, BEGIN);
    for (const std::string& name : names) {
        message.append(name).push_back('\0');
    }
    return send(channel, message.data(), message.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(message.size());
}

/// The names of the next message, which is waited for; nothing at the end.
[[nodiscard]] std::optional<std::vector<std::string>> receiveNames(int channel)
{
    char first = 0;
    ssize_t length = 0;
    do {
        length = recv(channel, &first, 1, MSG_PEEK | MSG_TRUNC);
    } while (length < 0 && errno == EINTR);
    if (length <= 0) {
        return std::nullopt;
    }
    std::string message(static_cast<std::size_t>(length), '\0');
    if (recv(channel, message.data(), message.size(), 0) != length) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    for (std::size_t begin = 1; begin < message.size();) {
        names.emplace_back(message.c_str() + begin);
        begin += names.back().size() + 1;
    }
    return names;
}

/// A stopped process needs not be waited for to be known to be silent.
[[nodiscard]] std::set<std::string> silentAmong(const std::vector<std::string>& containers)
{
    const Machine machine("");
    const std::string lxcPath = configuredLxcPath(machine);
    const ProcessTable processes(machine);
    std::set<std::string> silent;
    std::vector<std::string> rest;
    for (const std::string& container : containers) {
        const ProcessInfo* monitor = processes.monitorOf(lxcPath, container);
        if (monitor != nullptr && monitor->stopped()) {
            silent.insert(container);
        } else {
            rest.push_back(container);
        }
    }
    for (const auto& [container, voice] : askMonitors(rest)) {
        if (voice == MonitorVoice::Silent) {
            silent.insert(container);
        }
    }
    return silent;
}

/// The child's whole life. Nothing of the parent's is run or flushed at its end.
[[noreturn]] void serve(int channel)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const LxcLibrary kept(Names::LXC_LIBRARY); // so that it is not loaded again for each question
    while (const auto containers = receiveNames(channel)) {
        if (!sendNames(channel, silentAmong(*containers))) {
            break;
        }
    }
    _exit(EXIT_SUCCESS);
}

} // namespace

MonitorScout::MonitorScout()
{
    std::array<int, 2> ends = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return;
    }
    channel.reset(ends[0]);
    const ZoneCore::UniqueFd other(ends[1]);
    child = fork();
    if (child == 0) {
        channel.reset(); // or it would not see the parent's end
        serve(other.get());
    }
    if (child < 0) {
        channel.reset();
        return;
    }
    watch = g_unix_fd_add(channel.get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
                          &MonitorScout::readableCallback, this);
}

MonitorScout::~MonitorScout()
{
    takers.clear();
    lose();
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

void MonitorScout::ask(const std::vector<std::string>& containers, Taker taker)
{
    takers.push_back(std::move(taker));
    if (channel.get() < 0 || !sendNames(channel.get(), containers)) {
        lose();
    }
}

gboolean MonitorScout::readableCallback(gint descriptor, GIOCondition /*condition*/, gpointer data)
{
    auto* scout = static_cast<MonitorScout*>(data);
    if (const auto silent = receiveNames(descriptor)) {
        scout->answer({silent->begin(), silent->end()});
        return G_SOURCE_CONTINUE;
    }
    scout->watch = 0;
    scout->lose();
    return G_SOURCE_REMOVE;
}

void MonitorScout::answer(const std::set<std::string>& silent)
{
    const Taker taker = std::move(takers.front());
    takers.pop_front();
    taker(silent);
}

/// There is nobody to ask any more, nor to answer what is open.
void MonitorScout::lose()
{
    if (watch != 0) {
        g_source_remove(std::exchange(watch, 0));
    }
    channel.reset();
    while (busy()) {
        answer({});
    }
}

} // namespace Zonectl
