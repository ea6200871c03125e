#include "platform/log/platform_log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <endian.h>
#include <fcntl.h>
#include <optional>
#include <pthread.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char JOURNAL_SOCKET[] = "/run/systemd/journal/socket";
constexpr char SYSLOG_SOCKET[] = "/dev/log";
constexpr std::string_view COLOUR_RESET = "\x1b[0m";
constexpr std::string_view ORIGIN_FORMAT = "%s: %s(%d) > ";
constexpr std::size_t BUFFER_SIZE = std::size_t{16} * 1024;
/// Room at the buffer's end that text never takes: a colour reset and the newline.
constexpr std::size_t RESERVED_AT_END = COLOUR_RESET.size() + 1;
/// The kernel's default send buffer holds some two hundred records, less than a busy second; the journal's
/// own client asks for as much as this.
constexpr int SEND_BUFFER_SIZE = 8 * 1024 * 1024;
constexpr int SYSLOG_FACILITY_DAEMON = 3 << 3;

struct PriorityNames
{
    char letter;
    int syslogLevel;
    std::string_view word;
};

/// By platform_log_priority.
constexpr std::array<PriorityNames, 5> PRIORITIES{{
    {'D', 7, "debug"},
    {'I', 6, "info"},
    {'W', 4, "warning"},
    {'E', 3, "error"},
    {'F', 2, "fatal"},
}};

enum class Target : int
{
    Journal,
    Syslog,
    Console,
    Null
};

struct TargetName
{
    Target target;
    std::string_view word;
};

constexpr std::array<TargetName, 4> TARGETS{{
    {Target::Journal, "journal"},
    {Target::Syslog, "syslog"},
    {Target::Console, "console"},
    {Target::Null, "null"},
}};

/// Where records go. Chosen once, then never changed.
struct Binding
{
    Target target = Target::Console;
    int level = PLATFORM_LOG_DEBUG;
    /// The socket of journal and syslog, -1 for none. Lives as long as the process.
    int descriptor = -1;
    /// Console only: standard error is a pipe or a socket, so writing to it can raise SIGPIPE.
    bool mayRaiseSigpipe = false;
};

// The whole binding in one lock-free word, so that a signal handler and other threads see all of it or
// nothing.
constexpr std::uint64_t UNBOUND = 0;
constexpr std::uint64_t BOUND_BIT = 1;
std::atomic<std::uint64_t> boundWord{UNBOUND};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

/// Records that were lost since the last report of such a loss.
std::atomic<unsigned> lostRecords{0};

std::uint64_t pack(const Binding& binding) noexcept
{
    return BOUND_BIT | static_cast<std::uint64_t>(binding.mayRaiseSigpipe) << 1 |
           static_cast<std::uint64_t>(binding.target) << 8 | static_cast<std::uint64_t>(binding.level) << 16 |
           static_cast<std::uint64_t>(static_cast<std::uint32_t>(binding.descriptor)) << 32;
}

Binding unpack(std::uint64_t word) noexcept
{
    return {.target = static_cast<Target>(word >> 8 & 0xff),
            .level = static_cast<int>(word >> 16 & 0xff),
            .descriptor = static_cast<int>(static_cast<std::uint32_t>(word >> 32)),
            .mayRaiseSigpipe = (word >> 1 & 1) != 0};
}

/// The ids of the process and the calling thread, asked for once a thread; 0 while unknown.
struct CallerIds
{
    pid_t process = 0;
    pid_t thread = 0;
};
constinit thread_local CallerIds callerIds;

CallerIds currentIds() noexcept
{
    if (callerIds.thread == 0) {
        callerIds = {.process = getpid(), .thread = gettid()};
    }
    return callerIds;
}

// Registered before main, because registering takes a lock. The forking thread is the only one in the child.
__attribute__((constructor)) void forgetIdsAfterFork()
{
    // Fails for want of memory at program start only; the ids of a forked child would then be its parent's.
    static_cast<void>(pthread_atfork(nullptr, nullptr, [] { callerIds = {}; }));
}

/// Text put together in a fixed buffer on the stack. What does not fit is cut.
class RecordBuffer
{
public:
    __attribute__((format(printf, 2, 3))) void append(const char* format, ...) noexcept
    {
        va_list arguments;
        va_start(arguments, format);
        appendList(format, arguments);
        va_end(arguments);
    }

    void appendList(const char* format, va_list arguments) noexcept
    {
        const std::size_t room = BUFFER_SIZE - RESERVED_AT_END - used_;
        // One byte more than the room: the terminating zero may lie in the reserve.
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): begun by the caller
        const int length = vsnprintf(data_ + used_, room + 1, format, arguments);
        if (length < 0) {
            return;
        }
        cut_ = static_cast<std::size_t>(length) > room;
        used_ += std::min(static_cast<std::size_t>(length), room);
    }

    /// Closes a record: one that was cut gets the colour reset that it lost.
    void close() noexcept
    {
        if (!cut_) {
            return;
        }
        dropPartialCharacter();
        std::memcpy(data_ + used_, COLOUR_RESET.data(), COLOUR_RESET.size());
        used_ += COLOUR_RESET.size();
    }

    void appendNewline() noexcept { data_[used_++] = '\n'; }

    /// Leaves eight bytes for a number that is known later; returns where they are.
    std::size_t reserveNumber() noexcept
    {
        const std::size_t position = used_;
        used_ += sizeof(std::uint64_t);
        return position;
    }

    void setNumber(std::size_t position, std::uint64_t value) noexcept
    {
        const std::uint64_t littleEndian = htole64(value);
        std::memcpy(data_ + position, &littleEndian, sizeof(littleEndian));
    }

    [[nodiscard]] const char* data() const noexcept { return data_; }
    [[nodiscard]] std::size_t size() const noexcept { return used_; }

    /// Replaces each newline from a position on: a text from outside must not look like a record of its own.
    void joinLines(std::size_t from) noexcept { std::replace(data_ + from, data_ + used_, '\n', ' '); }

private:
    /// The cut may have gone through a UTF-8 character; journalctl shows a text with half of one as binary
    /// data.
    void dropPartialCharacter() noexcept
    {
        std::size_t start = used_;
        while (start > 0 && used_ - start < 4 &&
               (static_cast<unsigned char>(data_[start - 1]) & 0xc0) == 0x80) {
            --start;
        }
        if (start > 0 && static_cast<unsigned char>(data_[start - 1]) >= 0xc0) {
            used_ = start - 1;
        }
    }

    // Not initialised: only what was written is read.
    // cppcheck-suppress uninitMemberVarPrivate
    char data_[BUFFER_SIZE];
    std::size_t used_ = 0;
    bool cut_ = false;
};

/// Where in the program a record comes from; null pointers when the format does not say.
struct Origin
{
    const char* file = nullptr;
    const char* function = nullptr;
    int line = 0;
};

Origin originOf(const char* format, va_list arguments) noexcept
{
    if (std::strncmp(format, ORIGIN_FORMAT.data(), ORIGIN_FORMAT.size()) != 0) {
        return {};
    }
    va_list copy;
    va_copy(copy, arguments);
    Origin origin;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): a copy of one begun by the caller
    origin.file = va_arg(copy, const char*);
    origin.function = va_arg(copy, const char*);
    origin.line = va_arg(copy, int);
    va_end(copy);
    return origin;
}

/// Writes to standard error in one call. What it does not take is lost, as with any program's standard error.
int writeToStandardError(const char* data, std::size_t size, bool mayRaiseSigpipe) noexcept
{
    if (!mayRaiseSigpipe) {
        return write(STDERR_FILENO, data, size) < 0 ? -1 : 0;
    }
    // A reader that went away must not end the process: the signal is held back and taken off again. One that
    // was already pending stays.
    sigset_t sigpipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    sigemptyset(&pending);
    if (sigismember(&before, SIGPIPE) == 1) {
        sigpending(&pending);
    }
    const ssize_t written = write(STDERR_FILENO, data, size);
    if (written < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        const timespec noWait{};
        sigtimedwait(&sigpipe, nullptr, &noWait);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return written < 0 ? -1 : 0;
}

bool standardErrorMayRaiseSigpipe() noexcept
{
    struct stat status = {};
    return fstat(STDERR_FILENO, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

/// A datagram socket that is never waited on, above the standard descriptors even when one of those is
/// closed.
int openDatagramSocket() noexcept
{
    const int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (made < 0) {
        return -1;
    }
    int descriptor = made;
    if (made <= STDERR_FILENO) {
        descriptor = fcntl(made, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        close(made);
    }
    // Without it the socket works as well, only a burst of records fills it sooner.
    static_cast<void>(
        setsockopt(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER_SIZE, sizeof(SEND_BUFFER_SIZE)));
    return descriptor;
}

/// Where a variable's word stands in a table; nothing for an unknown word.
template <typename Table>
std::optional<std::size_t> indexOfWord(const Table& table, const char* word) noexcept
{
    for (std::size_t index = 0; index < table.size(); ++index) {
        if (table[index].word == word) {
            return index;
        }
    }
    return std::nullopt;
}

void reportUnknownValue(const char* variable, const char* value, bool mayRaiseSigpipe) noexcept
{
    RecordBuffer text;
    text.append("zone-manager: unknown value of %s: \"%.128s\", the default holds", variable, value);
    text.joinLines(0);
    text.appendNewline();
    static_cast<void>(writeToStandardError(text.data(), text.size(), mayRaiseSigpipe));
}

Target defaultTarget() noexcept
{
    return access(JOURNAL_SOCKET, F_OK) == 0 ? Target::Journal : Target::Console;
}

/// The binding. Several callers may make one at the same time; the first to publish wins, the others drop
/// theirs.
Binding boundTo() noexcept
{
    std::uint64_t word = boundWord.load(std::memory_order_acquire);
    if (word != UNBOUND) {
        return unpack(word);
    }
    const char* const targetWord = std::getenv("ZONE_LOG_TARGET");
    const char* const levelWord = std::getenv("ZONE_LOG_LEVEL");
    const auto target = targetWord != nullptr ? indexOfWord(TARGETS, targetWord) : std::nullopt;
    const auto level = levelWord != nullptr ? indexOfWord(PRIORITIES, levelWord) : std::nullopt;
    Binding binding{.target = target ? TARGETS[*target].target : defaultTarget(),
                    .level = level ? static_cast<int>(*level) : PLATFORM_LOG_DEBUG,
                    .mayRaiseSigpipe = standardErrorMayRaiseSigpipe()};
    if (binding.target == Target::Journal || binding.target == Target::Syslog) {
        binding.descriptor = openDatagramSocket();
    }
    if (!boundWord.compare_exchange_strong(word, pack(binding), std::memory_order_acq_rel)) {
        if (binding.descriptor >= 0) {
            close(binding.descriptor);
        }
        return unpack(word);
    }
    if (targetWord != nullptr && !target) {
        reportUnknownValue("ZONE_LOG_TARGET", targetWord, binding.mayRaiseSigpipe);
    }
    if (levelWord != nullptr && !level) {
        reportUnknownValue("ZONE_LOG_LEVEL", levelWord, binding.mayRaiseSigpipe);
    }
    return binding;
}

/// Sends one datagram without waiting. By address each time: a receiver that was restarted gets the next
/// record.
template <std::size_t N>
int sendTo(int descriptor, const char (&path)[N], const RecordBuffer& record) noexcept
{
    sockaddr_un address = {};
    static_assert(N <= sizeof(address.sun_path));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, N);
    const ssize_t sent = sendto(descriptor, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address),
                                static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + N));
    return sent < 0 ? -1 : 0;
}

int writeToConsole(const Binding& binding, int priority, const char* tag, const char* format,
                   va_list arguments) noexcept
{
    const CallerIds ids = currentIds();
    RecordBuffer text;
    text.append("%c/%.64s(%d:%d): ", PRIORITIES[static_cast<std::size_t>(priority)].letter, tag, ids.process,
                ids.thread);
    const std::size_t start = text.size();
    text.appendList(format, arguments);
    text.close();
    text.joinLines(start);
    text.appendNewline();
    return writeToStandardError(text.data(), text.size(), binding.mayRaiseSigpipe);
}

int writeToSyslog(const Binding& binding, int priority, const char* tag, const char* format,
                  va_list arguments) noexcept
{
    RecordBuffer text;
    text.append("<%d>%.64s: ",
                SYSLOG_FACILITY_DAEMON | PRIORITIES[static_cast<std::size_t>(priority)].syslogLevel, tag);
    text.appendList(format, arguments);
    text.close();
    return sendTo(binding.descriptor, SYSLOG_SOCKET, text);
}

int writeToJournal(const Binding& binding, int priority, const char* tag, const char* format,
                   va_list arguments) noexcept
{
    RecordBuffer text;
    text.append("PRIORITY=%d\nSYSLOG_IDENTIFIER=%.64s\nTID=%d\n",
                PRIORITIES[static_cast<std::size_t>(priority)].syslogLevel, tag, currentIds().thread);
    if (const Origin origin = originOf(format, arguments);
        origin.file != nullptr && origin.function != nullptr) {
        text.append("CODE_FILE=%.256s\nCODE_LINE=%d\nCODE_FUNC=%.256s\n", origin.file, origin.line,
                    origin.function);
    }
    // The form with the length in front: the text may hold newlines.
    text.append("MESSAGE\n");
    const std::size_t lengthPosition = text.reserveNumber();
    const std::size_t start = text.size();
    text.appendList(format, arguments);
    text.close();
    text.setNumber(lengthPosition, text.size() - start);
    text.appendNewline();
    return sendTo(binding.descriptor, JOURNAL_SOCKET, text);
}

int writeRecord(const Binding& binding, int priority, const char* tag, const char* format,
                va_list arguments) noexcept
{
    switch (binding.target) {
    case Target::Journal:
        return writeToJournal(binding, priority, tag, format, arguments);
    case Target::Syslog:
        return writeToSyslog(binding, priority, tag, format, arguments);
    case Target::Console:
        return writeToConsole(binding, priority, tag, format, arguments);
    case Target::Null:
        break;
    }
    return 0;
}

__attribute__((format(printf, 3, 4))) int writeReport(const Binding& binding, const char* tag,
                                                      const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    const int result = writeRecord(binding, PLATFORM_LOG_WARNING, tag, format, arguments);
    va_end(arguments);
    return result;
}

/// Counts a lost record, or, after one that went through, reports how many were lost before it.
void accountFor(const Binding& binding, const char* tag, bool lost) noexcept
{
    if (lost) {
        lostRecords.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (lostRecords.load(std::memory_order_relaxed) == 0) {
        return;
    }
    const unsigned count = lostRecords.exchange(0, std::memory_order_relaxed);
    if (count != 0 && writeReport(binding, tag, "%u log records were lost", count) < 0) {
        lostRecords.fetch_add(count, std::memory_order_relaxed);
    }
}

} // namespace

int platform_log_write(platform_log_buffer /*buffer*/, platform_log_priority priority, const char* tag,
                       const char* format, ...) noexcept
{
    const int savedErrno = errno;
    const Binding binding = boundTo();
    const int level = std::clamp<int>(priority, PLATFORM_LOG_DEBUG, PLATFORM_LOG_FATAL);
    int result = 0;
    if (level >= binding.level && binding.target != Target::Null) {
        va_list arguments;
        va_start(arguments, format);
        result = writeRecord(binding, level, tag, format, arguments);
        va_end(arguments);
        if (binding.target != Target::Console) {
            accountFor(binding, tag, result < 0);
        }
    }
    errno = savedErrno;
    return result;
}
