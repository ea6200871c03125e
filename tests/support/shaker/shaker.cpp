// Preloaded into the daemon, holds a thread up for a while before or after some of the records that it
// writes, so that its threads meet in orders in which they otherwise meet once in thousands of runs.
// ZONE_SHAKE is the seed.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<std::uint64_t> seed{0};

/// The next number of a fixed sequence (splitmix64), whichever thread asks.
std::uint64_t nextNumber()
{
    constexpr std::uint64_t step = 0x9E3779B97F4A7C15U;
    std::uint64_t number = seed.fetch_add(step, std::memory_order_relaxed) + step;
    number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
    number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
    return number ^ (number >> 31U);
}

/// One time in eight, waits for up to 33 milliseconds.
void holdUp()
{
    const std::uint64_t number = nextNumber();
    if (number % 8 != 0) {
        return;
    }
    const timespec pause{0, static_cast<long>((number >> 8U) & 0x1FFFFFFU)};
    nanosleep(&pause, nullptr);
}

__attribute__((constructor)) void readSeed()
{
    const char* text = std::getenv("ZONE_SHAKE");
    seed = text == nullptr ? 0 : std::strtoull(text, nullptr, 10);
    // What the daemon starts is not shaken.
    unsetenv("LD_PRELOAD");
}

} // namespace

/// In the C library's place. Called inside signal handlers too.
extern "C" ssize_t write(int descriptor, const void* data, std::size_t size)
{
    const bool isRecord = descriptor == STDERR_FILENO;
    const int before = errno;
    if (isRecord) {
        holdUp();
    }
    errno = before;
    const ssize_t written = syscall(SYS_write, descriptor, data, size);
    const int after = errno;
    if (isRecord) {
        holdUp();
    }
    errno = after;
    return written;
}
