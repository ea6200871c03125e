#include "Device/QuietCorner.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace Zonectl {

QuietCorner::QuietCorner()
    : mounts(open("/proc/thread-self/ns/mnt", O_RDONLY | O_CLOEXEC)),
      directory(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)), errors(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0))
{
    if (const ZoneCore::UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC)); nowhere && errors) {
        dup2(nowhere.get(), STDERR_FILENO);
    }
    if (!mounts || !directory || unshare(CLONE_NEWNS) != 0) {
        mounts.reset();
        return;
    }
    // What is mounted here must not be seen outside.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        mount("zonectl", "/run", "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=755");
    }
}

QuietCorner::~QuietCorner()
{
    if (mounts && setns(mounts.get(), CLONE_NEWNS) == 0) {
        [[maybe_unused]] const int back = fchdir(directory.get()); // where it was before, which was there
    }
    if (errors) {
        dup2(errors.get(), STDERR_FILENO);
    }
}

} // namespace Zonectl
