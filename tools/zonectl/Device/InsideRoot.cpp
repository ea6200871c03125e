#include "Device/InsideRoot.h"

#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <optional>
#include <sstream>
#include <vector>

namespace Zonectl {

namespace {

using ZoneCore::UniqueFd;

constexpr int MOST_LINKS = 40; // as the kernel

/// Puts a path's steps before those that are ahead already; the next one is the last of them.
void addSteps(std::vector<std::string>& ahead, const std::string& path)
{
    const std::size_t later = ahead.size();
    std::istringstream text(path);
    for (std::string step; std::getline(text, step, '/');) {
        if (!step.empty() && step != ".") {
            ahead.insert(ahead.begin() + static_cast<std::ptrdiff_t>(later), step);
        }
    }
}

[[nodiscard]] std::string joined(const std::vector<std::string>& steps)
{
    std::string path = ".";
    for (const std::string& step : steps) {
        path += "/" + step;
    }
    return path;
}

/// What the path's last step says, if that is a link. None of the others is one.
[[nodiscard]] std::optional<std::string> targetOf(const UniqueFd& root, const std::string& path)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlinkat(root.get(), path.c_str(), target.data(), target.size());
    if (length < 0) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(length));
}

/// The path without links; nothing when there are too many. The last step counts as none unless `followLast`.
[[nodiscard]] std::optional<std::string> resolved(const UniqueFd& root, const std::string& path,
                                                  bool followLast)
{
    std::vector<std::string> gone;
    std::vector<std::string> ahead;
    addSteps(ahead, path);
    int links = 0;
    while (!ahead.empty()) {
        const std::string step = std::move(ahead.back());
        ahead.pop_back();
        if (step == "..") {
            gone.resize(gone.empty() ? 0 : gone.size() - 1);
            continue;
        }
        gone.push_back(step);
        const bool follow = followLast || !ahead.empty();
        const auto target = follow ? targetOf(root, joined(gone)) : std::nullopt;
        if (!target) {
            continue;
        }
        if (++links > MOST_LINKS) {
            return std::nullopt;
        }
        gone.resize(target->starts_with('/') ? 0 : gone.size() - 1);
        addSteps(ahead, *target);
    }
    return joined(gone);
}

} // namespace

UniqueFd openInside(const std::string& root, const std::string& path, int flags)
{
    const UniqueFd directory(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory || path.empty()) {
        errno = directory ? ENOENT : errno;
        return UniqueFd();
    }
    const auto inside = resolved(directory, path, (flags & O_NOFOLLOW) == 0);
    if (!inside) {
        errno = ELOOP;
        return UniqueFd();
    }
    return UniqueFd(openat(directory.get(), inside->c_str(), flags | O_NOFOLLOW));
}

} // namespace Zonectl
