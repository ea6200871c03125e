#include "Daemon/InitPidSocket.h"

#include "CommandLine/Failure.h"
#include "Common/Handles.h"
#include "Daemon/Names.h"
#include "Daemon/SocketPeer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr std::size_t LONGEST_ANSWER = 64;

[[nodiscard]] Failure noAnswer()
{
    return {EXIT_TIME_LIMIT, "the init-pid socket did not answer in time"};
}

/// What a failed call on the socket means.
[[nodiscard]] Failure socketFailure(int error)
{
    if (error == EAGAIN || error == EINPROGRESS) {
        return noAnswer();
    }
    if (error == ECONNREFUSED) {
        return {EXIT_UNREACHABLE, "nobody serves the init-pid socket (is the zone manager running?)"};
    }
    return {EXIT_FAILED, std::string("the init-pid socket cannot be asked: ") + std::strerror(error)};
}

/// Bounds every further call on the socket by what is left of the time.
void boundCalls(int fd, Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<microseconds>(end - Clock::now());
    if (left <= microseconds::zero()) {
        throw noAnswer();
    }
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timeval limit = {.tv_sec = static_cast<time_t>(whole.count()),
                           .tv_usec = static_cast<suseconds_t>((left - whole).count())};
    for (const int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        if (setsockopt(fd, SOL_SOCKET, option, &limit, sizeof(limit)) != 0) {
            throw socketFailure(errno);
        }
    }
}

/// The name is all of the path, zeros included, and the address is given in its full length.
[[nodiscard]] sockaddr_un serverAddress()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string_view name(Names::INIT_PID_SOCKET);
    std::copy(name.begin(), name.end(), address.sun_path + 1);
    return address;
}

[[nodiscard]] std::string readAnswer(int fd, Clock::time_point end)
{
    std::string answer;
    std::array<char, LONGEST_ANSWER> buffer = {};
    while (answer.size() < LONGEST_ANSWER) {
        boundCalls(fd, end);
        const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
        if (count == 0) {
            break;
        }
        if (count > 0) {
            answer.append(buffer.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            throw socketFailure(errno);
        }
    }
    return answer;
}

} // namespace

long askInitPid(const std::string& zone, std::chrono::milliseconds patience)
{
    const Clock::time_point end = Clock::now() + patience;
    const ZoneCore::UniqueFd server(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!server) {
        throw socketFailure(errno);
    }
    boundCalls(server.get(), end);
    const sockaddr_un address = serverAddress();
    if (connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw socketFailure(errno);
    }
    if (const std::string reason = whyNotTheDaemon(server); !reason.empty()) {
        throw Failure(EXIT_FAILED, "the init-pid socket is not asked: " + reason);
    }
    // The whole question in one call, and at once: until it comes the daemon relays nothing.
    if (send(server.get(), zone.data(), zone.size(), MSG_NOSIGNAL) < 0) {
        throw socketFailure(errno);
    }
    const std::string answer = readAnswer(server.get(), end);
    long number = 0;
    const char* last = answer.data() + answer.size();
    const auto [stop, error] = std::from_chars(answer.data(), last, number);
    if (error != std::errc() || stop != last) {
        throw Failure(EXIT_FAILED, "the init-pid socket answered '" + answer + "', which is no number");
    }
    return number;
}

} // namespace Zonectl
