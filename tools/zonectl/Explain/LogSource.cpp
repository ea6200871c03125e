#include "Explain/LogSource.h"

#include "CommandLine/Failure.h"
#include "Common/Handles.h"
#include "Daemon/Names.h"
#include "Device/Holders.h"
#include "Device/Machine.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;
using ZoneCore::UniqueFd;

constexpr const char* USE_A_FILE = " (a log kept elsewhere is read with --file FILE)";
/// A record has 16 KiB at most, and the journal's JSON writes each byte of it as a number.
constexpr std::size_t LONGEST_LINE = std::size_t{1024} * 1024;

/// The milliseconds until then, as poll takes them; throws when there are none left.
[[nodiscard]] int millisecondsUntil(Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) {
        throw Failure(EXIT_TIME_LIMIT, "the input did not come to its end within the time limit (--timeout)");
    }
    return static_cast<int>(left);
}

/// Reads what is there, and waits for it until then; 0 at the end.
[[nodiscard]] std::size_t readSome(int fd, std::array<char, 65536>& buffer, Clock::time_point end)
{
    for (;;) {
        pollfd waiting = {.fd = fd, .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, millisecondsUntil(end)) <= 0) {
            continue;
        }
        const ssize_t count = read(fd, buffer.data(), buffer.size());
        if (count >= 0) {
            return static_cast<std::size_t>(count);
        }
        if (errno != EINTR && errno != EAGAIN) {
            throw Failure(EXIT_FAILED, std::string("the input cannot be read: ") + std::strerror(errno));
        }
    }
}

/// A line longer than any record is dropped piece by piece, as a damaged one, so that it takes no memory.
void readLines(int fd, Clock::time_point end, const LineTaker& take)
{
    std::array<char, 65536> buffer{};
    std::string pending;
    while (const std::size_t count = readSome(fd, buffer, end)) {
        std::string_view text(buffer.data(), count);
        for (auto place = text.find('\n'); place != std::string_view::npos; place = text.find('\n')) {
            pending.append(text.substr(0, place));
            take(pending);
            pending.clear();
            text.remove_prefix(place + 1);
        }
        pending.append(text);
        if (pending.size() > LONGEST_LINE) {
            take(pending);
            pending.clear();
        }
    }
    if (!pending.empty()) {
        take(pending);
    }
}

/// A daemon that runs and is not in the journal writes elsewhere.
[[nodiscard]] std::string hintAtOtherLogs()
{
    const auto holder = lockHolder(Machine{""}, Names::INSTANCE_LOCK);
    if (!holder) {
        return USE_A_FILE;
    }
    return "; " + holder->description() +
           " runs and so logs elsewhere, where ZONE_LOG_TARGET in its environment says: read that with "
           "--file FILE";
}

/// `journalctl`, which ends with this object at the latest.
class Journal
{
public:
    Journal()
    {
        // All fields in full: without it those that are long come as null.
        std::array<std::string, 8> words = {"journalctl", "-t",    "ZONE_MANAGER", "-o",
                                            "json",       "--all", "-b",           "--no-pager"};
        std::array<char*, words.size() + 1> arguments{};
        for (std::size_t index = 0; index < words.size(); ++index) {
            arguments[index] = words[index].data();
        }
        int out = -1;
        int errors = -1;
        ZoneCore::GErrorPtr error;
        constexpr auto FLAGS = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
        if (g_spawn_async_with_pipes(nullptr, arguments.data(), nullptr, FLAGS, nullptr, nullptr, &pid,
                                     nullptr, &out, &errors, ZoneCore::OutError(error)) == FALSE) {
            throw Failure(EXIT_FAILED,
                          std::string("the journal cannot be read: ") + error->message + USE_A_FILE);
        }
        output.reset(out);
        complaints.reset(errors);
    }
    ~Journal()
    {
        if (pid > 0) {
            static_cast<void>(kill(pid, SIGKILL)); // it has nothing more to say, or its time is over
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    [[nodiscard]] int outputFd() const { return output.get(); }
    [[nodiscard]] int complaintsFd() const { return complaints.get(); }

private:
    GPid pid = 0;
    UniqueFd output;
    UniqueFd complaints;
};

} // namespace

void readLogFile(const std::string& path, std::chrono::seconds limit, const LineTaker& take)
{
    const auto end = Clock::now() + limit;
    if (path == "-") {
        return readLines(STDIN_FILENO, end, take);
    }
    // Opening a FIFO must not wait for its writer.
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        throw Failure(EXIT_FAILED, path + ": " + std::strerror(errno));
    }
    readLines(file.get(), end, take);
}

void readJournal(std::chrono::seconds limit, const LineTaker& take)
{
    const auto end = Clock::now() + limit;
    Journal journal;
    bool anything = false;
    readLines(journal.outputFd(), end, [&](std::string_view line) {
        anything = true;
        take(line);
    });
    std::string complaint;
    readLines(journal.complaintsFd(), end, [&](std::string_view line) {
        if (complaint.empty()) {
            complaint = line;
        }
    });
    if (!anything) {
        throw Failure(EXIT_FAILED, "the journal has nothing of the zone manager" +
                                       (complaint.empty() ? "" : ": " + complaint) + hintAtOtherLogs());
    }
}

} // namespace Zonectl
