#include "Device/Machine.h"

#include "Daemon/Names.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Zonectl {

namespace {

constexpr std::size_t LONGEST_LABEL = 4096;
constexpr mode_t PERMISSIONS = 07777;

[[nodiscard]] std::optional<struct stat> statusOf(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

/// Whether the user may not have the access, as opposed to there being nothing.
[[nodiscard]] bool isDenied(const std::string& path, int mode)
{
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) != 0 && errno == EACCES;
}

} // namespace

bool Machine::exists(const std::string& path) const
{
    return statusOf(at(path)).has_value();
}

bool Machine::entryExists(const std::string& path) const
{
    struct stat found = {};
    return lstat(at(path).c_str(), &found) == 0;
}

bool Machine::hidden(const std::string& path) const
{
    return isDenied(at(path), F_OK);
}

bool Machine::closed(const std::string& path) const
{
    return isDenied(at(path), R_OK);
}

bool Machine::isProgram(const std::string& path) const
{
    const auto found = statusOf(at(path));
    return found && S_ISREG(found->st_mode) && (found->st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

bool Machine::isDirectory(const std::string& path) const
{
    const auto found = statusOf(at(path));
    return found && S_ISDIR(found->st_mode);
}

std::optional<FileStatus> Machine::status(const std::string& path) const
{
    const auto found = statusOf(at(path));
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
    struct statvfs system = {};
    return statvfs(at(path).c_str(), &system) == 0 && (system.f_flag & ST_RDONLY) != 0;
}

bool Machine::cannotHoldLabels(const std::string& path) const
{
    return getxattr(at(path).c_str(), Names::LABEL_ATTRIBUTE, nullptr, 0) < 0 && errno == ENOTSUP;
}

std::optional<FreeSpace> Machine::freeSpace(const std::string& path) const
{
    struct statvfs system = {};
    if (statvfs(at(path).c_str(), &system) != 0) {
        return std::nullopt;
    }
    FreeSpace space{.bytes = static_cast<std::uint64_t>(system.f_bavail) * system.f_frsize,
                    .files = std::nullopt};
    if (system.f_files > 0) {
        space.files = system.f_favail;
    }
    // Those without any blocks, such as ramfs, do not count.
    return system.f_blocks == 0 ? std::nullopt : std::optional(space);
}

std::string Machine::linkTarget(const std::string& path) const
{
    std::error_code error;
    return std::filesystem::read_symlink(at(path), error).string();
}

std::optional<std::string> Machine::label(const std::string& path) const
{
    std::array<char, LONGEST_LABEL> buffer = {};
    const ssize_t length =
        getxattr(at(path).c_str(), Names::LABEL_ATTRIBUTE, buffer.data(), buffer.size() - 1);
    if (length < 1) {
        return std::nullopt;
    }
    return std::string(buffer.data()); // a label ends at its first zero byte, if it holds one
}

std::optional<std::string> Machine::read(const std::string& path) const
{
    std::ifstream file(at(path), std::ios::binary);
    std::ostringstream text;
    // Copying nothing counts as a failure of the stream, so that an empty file is looked for first.
    if (file && file.peek() == std::ifstream::traits_type::eof() && !file.bad()) {
        return std::string();
    }
    if (!file || !(text << file.rdbuf())) {
        return std::nullopt;
    }
    return text.str();
}

std::vector<std::string> Machine::entries(const std::string& path) const
{
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(at(path), error), end; !error && entry != end;
         entry.increment(error)) {
        names.push_back(entry->path().filename().string());
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
