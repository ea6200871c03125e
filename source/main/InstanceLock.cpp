#include "main/InstanceLock.h"

#include "Common/Handles.h"
#include "Common/Log.h"
#include "Common/SystemError.h"
#include "ZoneCore/RuntimePaths.h"
#include "ZoneCore/ZoneSecurityPolicy.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using ZoneCore::LABEL_PRIVATE;
using ZoneCore::SystemErrorText;
using ZoneCore::ZoneSecurityPolicy;
namespace RuntimePaths = ZoneCore::RuntimePaths;

namespace {

constexpr mode_t LOCK_FILE_MODE = 0660;

bool ensureLockDirectory(ZoneSecurityPolicy& policy)
{
    if (!policy.ensureContainerRunPath()) {
        ZLOGE("Failed to ensure Container Run Path(%s)", RuntimePaths::RUN);
        return false;
    }
    if (access(RuntimePaths::LOCK, W_OK) == 0) {
        return true;
    }
    {
        const SystemErrorText error;
        ZLOGD("The contianer lock path(%s) does not exist - \"%s\"", RuntimePaths::LOCK, error.c_str());
    }
    if (mkdir(RuntimePaths::LOCK, RuntimePaths::MODE) == 0) {
        return true;
    }
    if (errno == EEXIST) {
        ZLOGI("The container lock path(%s) does exist", RuntimePaths::LOCK);
        return true;
    }
    const SystemErrorText error;
    ZLOGE("Failed to create the container lock path(%s) - \"%s\"", RuntimePaths::LOCK, error.c_str());
    return false;
}

} // namespace

int get_zone_manager_lock(std::string& path)
{
    ZLOGI("Get zone manager lock - %s", path.c_str());
    if (path.empty()) {
        ZLOGE("Invalid arguments");
        return -1;
    }
    const auto policy = std::make_shared<ZoneSecurityPolicy>();
    if (!ensureLockDirectory(*policy)) {
        ZLOGE("Failed to create the basepath of zone-manager lock - %s", RuntimePaths::LOCK);
        return -1;
    }
    ZoneCore::UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT, LOCK_FILE_MODE));
    if (!fd) {
        const SystemErrorText error;
        ZLOGE("Failed to open \"%s\"...(ref count : %ld) - \"%s\"", path.c_str(), policy.use_count(),
              error.c_str());
        return -1;
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) < 0) {
        const int reason = errno;
        const SystemErrorText error(reason);
        if (reason == EAGAIN) {
            ZLOGE("Another instance of Zone Manager is running - \"%s\"", error.c_str());
        }
        ZLOGE("Failed to get exclusive & non-blocking lock(ref count : %ld) - \"%s\"", policy.use_count(),
              error.c_str());
        return -1;
    }
    ZLOGI("reference count of security interface - %ld", policy.use_count());
    return fd.release();
}

void release_zone_manager_lock(const char* path, int* fd)
{
    ZLOGI("Release zone manager lock - %s", path);
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
    if (*path != '\0' && remove(path) == -1) {
        const SystemErrorText error;
        ZLOGE("Failed to call remove() syscall - %s - \"%s\"", path, error.c_str());
    }
}

void init_template_path()
{
    const auto policy = std::make_shared<ZoneSecurityPolicy>();
    if (!policy->ensureContainerPath(RuntimePaths::TEMPLATE, RuntimePaths::MODE)) {
        const SystemErrorText error;
        ZLOGE("Failed to create path (/opt/zone/template) - \"%s\"", error.c_str());
        return;
    }
    if (!policy->ensureContainerPath(RuntimePaths::SECURE_DATA, RuntimePaths::MODE)) {
        const SystemErrorText error;
        ZLOGE("Failed to create path (%s) - \"%s\"", RuntimePaths::SECURE_DATA, error.c_str());
        return;
    }
    if (!policy->setContainerSmackLabel(RuntimePaths::SECURE_DATA, LABEL_PRIVATE)) {
        ZLOGE("Failed to set container access label (%s) to the (%s)", LABEL_PRIVATE,
              RuntimePaths::SECURE_DATA);
    }
}
