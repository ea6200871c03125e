#include "Watch/RecordingFile.h"

#include "CommandLine/Failure.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <utility>

namespace Zonectl {

RecordingFile::RecordingFile(std::string path) : name(std::move(path))
{
    constexpr mode_t MODE = 0644;
    // Neither a FIFO without a reader nor a file with something in it is waited for or touched.
    file.reset(open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, MODE));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0) {
        throw Failure(EXIT_FAILED, name + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) {
        throw Failure(EXIT_FAILED, name + ": not a regular file");
    }
    if (S_ISREG(status.st_mode) && flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        throw Failure(EXIT_FAILED, name + ": another recording is being written to it");
    }
    if (fstat(file.get(), &status) != 0 || status.st_size != 0) {
        throw Failure(EXIT_FAILED, name + ": the file is not empty, and is never overwritten");
    }
}

bool RecordingFile::append(std::string_view line)
{
    std::string text(line);
    text += '\n';
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t count = write(file.get(), rest.data(), rest.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            reason = name + ": the recording could not be written: " + std::strerror(errno);
            return false;
        }
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

} // namespace Zonectl
