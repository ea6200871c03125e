#include "Device/Machine.h"

#include "Daemon/Names.h"

#include "Device/InsideRoot.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Zonectl {

using ZoneCore::UniqueFd;

namespace {

using DirectoryPtr = std::unique_ptr<DIR, ZoneCore::FreeWith<closedir>>;

constexpr std::size_t LONGEST_LABEL = 4096;
constexpr mode_t PERMISSIONS = 07777;

[[nodiscard]] std::optional<struct stat> statusOf(const UniqueFd& file)
{
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

[[nodiscard]] std::optional<struct statvfs> fileSystemOf(const UniqueFd& file)
{
    struct statvfs system = {};
    if (!file || fstatvfs(file.get(), &system) != 0) {
        return std::nullopt;
    }
    return system;
}

/// For calls that do not take the descriptor of what was only found.
[[nodiscard]] std::string pathOf(const UniqueFd& file)
{
    return "/proc/self/fd/" + std::to_string(file.get());
}

/// The length of the label, or -1 and `errno`.
[[nodiscard]] ssize_t readLabel(const UniqueFd& file, char* buffer, std::size_t size)
{
    return getxattr(pathOf(file).c_str(), Names::LABEL_ATTRIBUTE, buffer, size);
}

} // namespace

UniqueFd Machine::open(const std::string& path, int flags) const
{
    // Looking waits for nobody at the other end of a FIFO, and takes no terminal.
    flags |= O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    return live() ? UniqueFd(::open(path.c_str(), flags)) : openInside(root, path, flags);
}

UniqueFd Machine::find(const std::string& path) const
{
    return open(path, O_PATH);
}

UniqueFd Machine::findEntry(const std::string& path) const
{
    return open(path, O_PATH | O_NOFOLLOW);
}

bool Machine::exists(const std::string& path) const
{
    return static_cast<bool>(find(path));
}

bool Machine::entryExists(const std::string& path) const
{
    return static_cast<bool>(findEntry(path));
}

bool Machine::hidden(const std::string& path) const
{
    return !find(path) && errno == EACCES;
}

bool Machine::closed(const std::string& path) const
{
    const UniqueFd file = find(path);
    const bool may = file && faccessat(AT_FDCWD, pathOf(file).c_str(), R_OK, AT_EACCESS) == 0;
    return !may && errno == EACCES;
}

bool Machine::isProgram(const std::string& path) const
{
    const auto found = statusOf(find(path));
    return found && S_ISREG(found->st_mode) && (found->st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

bool Machine::isDirectory(const std::string& path) const
{
    const auto found = statusOf(find(path));
    return found && S_ISDIR(found->st_mode);
}

std::optional<FileStatus> Machine::status(const std::string& path) const
{
    const auto found = statusOf(find(path));
    if (!found) {
        return std::nullopt;
    }
    return FileStatus{.isFifo = S_ISFIFO(found->st_mode),
                      .mode = found->st_mode & PERMISSIONS,
                      .owner = found->st_uid,
                      .modified = found->st_mtim.tv_sec,
                      .deviceMajor = major(found->st_dev),
                      .deviceMinor = minor(found->st_dev),
                      .inode = found->st_ino};
}

bool Machine::onReadOnlyMount(const std::string& path) const
{
    const auto system = fileSystemOf(find(path));
    return system && (system->f_flag & ST_RDONLY) != 0;
}

bool Machine::cannotHoldLabels(const std::string& path) const
{
    const UniqueFd file = find(path);
    return file && readLabel(file, nullptr, 0) < 0 && errno == ENOTSUP;
}

std::optional<FreeSpace> Machine::freeSpace(const std::string& path) const
{
    const auto system = fileSystemOf(find(path));
    // Those without any blocks, such as ramfs, do not count.
    if (!system || system->f_blocks == 0) {
        return std::nullopt;
    }
    FreeSpace space{.bytes = static_cast<std::uint64_t>(system->f_bavail) * system->f_frsize,
                    .files = std::nullopt};
    if (system->f_files > 0) {
        space.files = system->f_favail;
    }
    return space;
}

std::string Machine::linkTarget(const std::string& path) const
{
    const UniqueFd link = findEntry(path);
    std::array<char, PATH_MAX> target{};
    const ssize_t length = link ? readlinkat(link.get(), "", target.data(), target.size()) : -1;
    return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

std::optional<std::string> Machine::label(const std::string& path) const
{
    const UniqueFd file = find(path);
    std::array<char, LONGEST_LABEL> buffer = {};
    if (!file || readLabel(file, buffer.data(), buffer.size() - 1) < 1) {
        return std::nullopt;
    }
    return std::string(buffer.data()); // a label ends at its first zero byte, if it holds one
}

std::optional<std::string> Machine::read(const std::string& path) const
{
    // Opening something else may already do something: wake who writes to a FIFO, or start a device.
    const auto found = statusOf(find(path));
    const UniqueFd file = found && S_ISREG(found->st_mode) ? open(path, O_RDONLY) : UniqueFd();
    if (!file) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> buffer{};
    while (true) {
        const ssize_t length = ::read(file.get(), buffer.data(), buffer.size());
        if (length > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(length));
        } else if (length == 0) {
            return text;
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
}

std::vector<std::string> Machine::entries(const std::string& path) const
{
    UniqueFd opened = open(path, O_RDONLY | O_DIRECTORY);
    const DirectoryPtr directory(opened ? fdopendir(opened.get()) : nullptr);
    if (!directory) {
        return {};
    }
    static_cast<void>(opened.release()); // the stream closes it
    std::vector<std::string> names;
    // cppcheck-suppress readdirCalled; nobody else has this stream
    while (const dirent* entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool kernelHasSmack()
{
    // The kernel lists smackfs only when Smack is among its active security modules.
    return Machine("").read("/proc/filesystems").value_or("").find("smackfs") != std::string::npos;
}

} // namespace Zonectl
