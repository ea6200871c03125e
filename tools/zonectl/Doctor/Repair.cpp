#include "Doctor/Repair.h"

#include "Common/Handles.h"
#include "Daemon/Names.h"
#include "Device/Containers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <linux/limits.h>
#include <linux/openat2.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>

namespace Zonectl {

namespace {

using ZoneCore::UniqueFd;

constexpr mode_t DIRECTORY_MODE = 0755;
constexpr mode_t PROGRAM_MODE = 0755;
constexpr mode_t OTHERS_WRITE = S_IWGRP | S_IWOTH;
constexpr mode_t PERMISSIONS = 07777;
constexpr const char* NEW_SUFFIX = ".zonectl-new";

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/// Where a path ends: the directory that holds it, and its name there.
struct Place
{
    std::string directory;
    std::string name;
};

[[nodiscard]] Place placeOf(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    return {path.substr(0, slash), path.substr(slash + 1)};
}

/// The files of one system, reached by descriptors that cannot lead out of it.
class Files
{
public:
    explicit Files(const std::string& rootDirectory)
        : running(rootDirectory.empty()),
          root(open(running ? "/" : rootDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
    {
        if (!root) {
            fail(rootDirectory);
        }
    }

    [[nodiscard]] UniqueFd openPath(const std::string& path, int flags) const
    {
        open_how how = {};
        how.flags = static_cast<unsigned int>(flags) | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
        if (!running) {
            how.resolve |= RESOLVE_NO_SYMLINKS;
        }
        const std::string inside = path.empty() ? "/" : path;
        UniqueFd fd(static_cast<int>(syscall(SYS_openat2, root.get(), inside.c_str(), &how, sizeof(how))));
        if (!fd && errno == ELOOP && (!running || (flags & O_NOFOLLOW) != 0)) {
            throw std::runtime_error(path + " leads through a symbolic link, which is not followed");
        }
        if (!fd) {
            fail(path);
        }
        return fd;
    }

    [[nodiscard]] UniqueFd openDirectory(const std::string& path) const
    {
        return openPath(path, O_RDONLY | O_DIRECTORY);
    }

    /// Whether there is anything of that name, a dangling link included.
    [[nodiscard]] bool has(const std::string& path) const
    {
        const Place place = placeOf(path);
        const UniqueFd directory = openDirectory(place.directory);
        return faccessat(directory.get(), place.name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    }

    /// Where an open file of the running system really is. Below another root no link was followed.
    [[nodiscard]] std::string behindLinks(const UniqueFd& file, const std::string& path) const
    {
        return running ? std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.get())).string()
                       : path;
    }

private:
    bool running;
    UniqueFd root;
};

[[nodiscard]] std::string readAll(const UniqueFd& fd, const std::string& path)
{
    std::string text;
    std::array<char, 4096> buffer{};
    ssize_t length = 0;
    while ((length = read(fd.get(), buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
    if (length < 0) {
        fail(path);
    }
    return text;
}

void writeAll(const UniqueFd& fd, std::string_view text, const std::string& path)
{
    while (!text.empty()) {
        const ssize_t length = write(fd.get(), text.data(), text.size());
        if (length < 0) {
            fail(path);
        }
        text.remove_prefix(static_cast<std::size_t>(length));
    }
}

/// Copies the extended attributes, among which are Smack labels and access lists.
void copyAttributes(const UniqueFd& from, const UniqueFd& to, const std::string& path)
{
    std::vector<char> names(XATTR_LIST_MAX);
    const ssize_t length = flistxattr(from.get(), names.data(), names.size());
    if (length < 0 && errno != ENOTSUP) {
        fail(path);
    }
    std::vector<char> value(XATTR_SIZE_MAX);
    const std::string_view all(names.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    for (std::size_t begin = 0; begin < all.size(); begin = all.find('\0', begin) + 1) {
        const char* name = all.data() + begin;
        const ssize_t size = fgetxattr(from.get(), name, value.data(), value.size());
        if (size < 0 || fsetxattr(to.get(), name, value.data(), static_cast<std::size_t>(size), 0) != 0) {
            fail(path + ": " + name);
        }
    }
}

/// A file in the making, beside the place that it is for. What is not put there in the end vanishes.
class NewFile
{
public:
    explicit NewFile(const Files& files, const std::string& destination)
        : place(placeOf(destination)), directory(files.openDirectory(place.directory)),
          temporary(place.name + NEW_SUFFIX)
    {
        constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        unlinkat(directory.get(), temporary.c_str(), 0); // of a run that was interrupted
        file = UniqueFd(openat(directory.get(), temporary.c_str(), FLAGS, S_IRUSR | S_IWUSR));
        if (!file) {
            fail(temporary);
        }
    }
    ~NewFile()
    {
        if (!placed) {
            unlinkat(directory.get(), temporary.c_str(), 0);
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    /// Gives it a text, and the owner, the rights and the attributes of another file.
    void fillLike(const UniqueFd& model, std::string_view text) const
    {
        struct stat status = {};
        writeAll(file, text, temporary);
        if (fstat(model.get(), &status) != 0 || fchown(file.get(), status.st_uid, status.st_gid) != 0 ||
            fchmod(file.get(), status.st_mode & PERMISSIONS) != 0) {
            fail(temporary);
        }
        copyAttributes(model, file, temporary);
        if (fsync(file.get()) != 0) {
            fail(temporary);
        }
    }
    /// Puts it where it is for. With RENAME_NOREPLACE, what is there already stays, and this is no failure.
    void putInPlace(unsigned int flags)
    {
        placed =
            renameat2(directory.get(), temporary.c_str(), directory.get(), place.name.c_str(), flags) == 0;
        if (!placed && !(errno == EEXIST && flags == RENAME_NOREPLACE)) {
            fail(place.name);
        }
    }

private:
    Place place;
    UniqueFd directory;
    std::string temporary;
    UniqueFd file{};
    bool placed = false;
};

/// To open the path of a change.
[[nodiscard]] int flagsFor(const Repair& repair)
{
    return repair.refusesLink ? O_RDONLY | O_NOFOLLOW : O_RDONLY;
}

void makeDirectory(const Files& files, const Repair& repair)
{
    const std::string& path = repair.path;
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const Place place = placeOf(path.substr(0, end));
        const UniqueFd parent = files.openDirectory(place.directory);
        if (mkdirat(parent.get(), place.name.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
            fail(path);
        }
        if (end == std::string::npos) {
            break;
        }
    }
    struct stat status = {}; // what was there may be something else
    if (fstat(files.openPath(path, flagsFor(repair)).get(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        fail(path);
    }
}

void setLabel(const Files& files, const Repair& repair)
{
    const UniqueFd fd = files.openPath(repair.path, flagsFor(repair));
    if (fsetxattr(fd.get(), Names::LABEL_ATTRIBUTE, repair.value.data(), repair.value.size(), 0) != 0) {
        fail(repair.path);
    }
}

void changeMode(const Files& files, const std::string& path, mode_t without, mode_t with)
{
    const UniqueFd fd = files.openPath(path, O_RDONLY);
    struct stat status = {};
    if (fstat(fd.get(), &status) != 0 ||
        fchmod(fd.get(), ((status.st_mode & PERMISSIONS) & ~without) | with) != 0) {
        fail(path);
    }
}

void moveAside(const Files& files, const std::string& path)
{
    const Place place = placeOf(path);
    const UniqueFd directory = files.openDirectory(place.directory);
    if (renameat2(directory.get(), place.name.c_str(), directory.get(), (place.name + BACKUP_SUFFIX).c_str(),
                  RENAME_NOREPLACE) != 0) {
        fail(path + BACKUP_SUFFIX);
    }
}

/// Keeps the file as it is now, unless an earlier state is kept already. There is never a part of a backup.
void backUp(const Files& files, const std::string& path)
{
    if (files.has(path + BACKUP_SUFFIX)) {
        return;
    }
    NewFile backup(files, path + BACKUP_SUFFIX);
    const UniqueFd original = files.openPath(path, O_RDONLY);
    backup.fillLike(original, readAll(original, path));
    backup.putInPlace(RENAME_NOREPLACE);
}

/// All of the lines, or none.
void appendLines(const Files& files, const Repair& repair)
{
    backUp(files, repair.path);
    const UniqueFd file = files.openPath(repair.path, O_WRONLY | O_APPEND);
    struct stat before = {};
    if (fstat(file.get(), &before) != 0) {
        fail(repair.path);
    }
    try {
        writeAll(file, "\n" + repair.value, repair.path);
        if (fsync(file.get()) != 0) {
            fail(repair.path);
        }
    } catch (const std::system_error&) {
        if (ftruncate(file.get(), before.st_size) != 0) {
            fail(repair.path + ": a part of the lines stays at its end");
        }
        throw;
    }
}

/// The text with each line that sets the key replaced.
[[nodiscard]] std::string withKeyReplaced(const std::string& text, const std::string& key,
                                          const std::string& replacement)
{
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::vector<ConfigLine> parsed = parseConfig(line);
        result += (!parsed.empty() && parsed.front().first == key ? replacement : line) + "\n";
    }
    return result;
}

/// A symbolic link stays one: what it leads to is replaced.
void replaceKey(const Files& files, const Repair& repair)
{
    backUp(files, repair.path);
    const UniqueFd original = files.openPath(repair.path, O_RDONLY);
    NewFile replacement(files, files.behindLinks(original, repair.path));
    replacement.fillLike(original, withKeyReplaced(readAll(original, repair.path), repair.key, repair.value));
    replacement.putInPlace(0);
}

void change(const Files& files, const Repair& repair)
{
    switch (repair.kind) {
    case Repair::Kind::MakeDirectory:
        makeDirectory(files, repair);
        break;
    case Repair::Kind::SetLabel:
        setLabel(files, repair);
        break;
    case Repair::Kind::TakeOver:
        if (fchown(files.openPath(repair.path, O_RDONLY).get(), 0, 0) != 0) {
            fail(repair.path);
        }
        break;
    case Repair::Kind::CloseToOthers:
        changeMode(files, repair.path, OTHERS_WRITE, 0);
        break;
    case Repair::Kind::MakeExecutable:
        changeMode(files, repair.path, PERMISSIONS, PROGRAM_MODE);
        break;
    case Repair::Kind::MoveAside:
        moveAside(files, repair.path);
        break;
    case Repair::Kind::AppendLines:
        appendLines(files, repair);
        break;
    case Repair::Kind::ReplaceKey:
        replaceKey(files, repair);
        break;
    }
}

[[nodiscard]] std::string appendCommand(const std::string& path, const std::string& lines)
{
    // That there is a backup already is no failure.
    std::string text = "cp -np " + path + " " + path + BACKUP_SUFFIX + "; printf '\\n%s'";
    std::istringstream each(lines);
    for (std::string line; std::getline(each, line);) {
        text += " " + shellWord(line);
    }
    return text + " '' >>" + path;
}

/// A text that stands for itself in sed's patterns and replacements, in which "|" is the delimiter.
[[nodiscard]] std::string forSed(const std::string& text)
{
    std::string escaped;
    for (const char character : text) {
        if (std::string_view("\\.*[]^$|&").find(character) != std::string_view::npos) {
            escaped += '\\';
        }
        escaped += character;
    }
    return escaped;
}

[[nodiscard]] std::string command(const std::string& path, const Repair& repair)
{
    switch (repair.kind) {
    case Repair::Kind::MakeDirectory:
        return "mkdir -p " + path;
    case Repair::Kind::SetLabel:
        return std::string(repair.refusesLink ? "setfattr -h -n " : "setfattr -n ") + Names::LABEL_ATTRIBUTE +
               " -v " + shellWord(repair.value) + " " + path;
    case Repair::Kind::TakeOver:
        return "chown root:root " + path;
    case Repair::Kind::CloseToOthers:
        return "chmod go-w " + path;
    case Repair::Kind::MakeExecutable:
        return "chmod 755 " + path;
    case Repair::Kind::MoveAside:
        return "mv -nT " + path + " " + path + BACKUP_SUFFIX;
    case Repair::Kind::AppendLines:
        return appendCommand(path, repair.value);
    case Repair::Kind::ReplaceKey:
        return std::string("sed --follow-symlinks -i") + BACKUP_SUFFIX + " " +
               shellWord("s|^[[:blank:]]*" + forSed(repair.key) + "[[:blank:]]*=.*|" + forSed(repair.value) +
                         "|") +
               " " + path;
    }
    return {};
}

} // namespace

std::string shellWord(std::string_view text)
{
    constexpr std::string_view PLAIN =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:=@,%";
    if (!text.empty() && text.find_first_not_of(PLAIN) == std::string_view::npos) {
        return std::string(text);
    }
    std::string word = "'";
    for (const char character : text) {
        word += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return word + "'";
}

std::string shellCommand(const std::string& root, const std::vector<Repair>& repairs)
{
    std::string text;
    for (const Repair& repair : repairs) {
        text += (text.empty() ? "" : " && ") + command(shellWord(root + repair.path), repair);
    }
    return text;
}

std::string carryOut(const std::string& root, const Repair& repair)
{
    try {
        change(Files(root), repair);
    } catch (const std::exception& error) {
        return error.what();
    }
    return {};
}

} // namespace Zonectl
