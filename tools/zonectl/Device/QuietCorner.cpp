#include "Device/QuietCorner.h"

#include "Device/ChildProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace Zonectl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Stands behind the text, so that a text that was cut off is known.
constexpr char COMPLETE = '.';

void tell(int teller, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(teller, text.data(), text.size());
        if (count < 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

/// Reads to the end of what the process tells; false when that did not come in time.
[[nodiscard]] bool listen(int descriptor, Clock::time_point end, std::string& text)
{
    std::array<char, 4096> buffer{};
    while (true) {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        pollfd waiting = {.fd = descriptor, .events = POLLIN, .revents = 0};
        const int ready = poll(&waiting, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        const ssize_t count = ready > 0 ? read(descriptor, buffer.data(), buffer.size()) : -1;
        if (count <= 0) {
            return count == 0;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

} // namespace

void coverRunDirectory()
{
    // What is mounted here must not be seen outside.
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        mount("zonectl", "/run", "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=755");
    }
}

std::optional<std::string> lookQuietly(const std::function<std::string()>& look, milliseconds patience)
{
    const Clock::time_point end = Clock::now() + patience;
    const ChildProcess observer([&look](int teller) {
        coverRunDirectory();
        tell(teller, look() + COMPLETE);
    });
    std::string text;
    if (observer.descriptor() < 0 || !listen(observer.descriptor(), end, text) || !text.ends_with(COMPLETE)) {
        return std::nullopt;
    }
    text.pop_back();
    return text;
}

} // namespace Zonectl
