#include "ContainerCore/Container.h"

#include "Common/Handles.h"
#include "Common/Log.h"
#include "Common/ProcessSignals.h"
#include "Common/SystemError.h"
#include "ZoneCore/ZoneContainerState.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace ContainerCore {

using ZoneCore::FilePtr;
using ZoneCore::SystemErrorText;

namespace {

constexpr const char* LAUNCHER = "/zone/config/zone-launcher";
constexpr const char* PID_FILE_DIRECTORY = "/var/run/lxc/pid";
constexpr const char* OWN_CGROUPS = "/proc/self/cgroup";
constexpr size_t PATH_LENGTH = 256; // of paths and of lines of the control-group list
constexpr useconds_t WAIT_STEP_US = 10001;
constexpr int PID_FILE_WAIT_STEPS = 0; // kill only
constexpr int CGROUP_WAIT_STEPS = 60;

using PathBuffer = std::array<char, PATH_LENGTH>;

/// Becomes the launcher, with nothing of the daemon's but standard input, output and error: a container that
/// outlives the daemon must hold neither its lock nor its FIFO, sockets or bus connection. Runs in a forked
/// child.
[[noreturn]] void becomeLauncher(const char* command, const char* zoneName)
{
    closefrom(STDERR_FILENO + 1);
    ZoneCore::ProcessSignals::restoreInChild();
    execl(LAUNCHER, LAUNCHER, command, zoneName, static_cast<char*>(nullptr));
    exit(0); // whether the container runs is what counts
}

/// Whether a formatted path fitted into its buffer: one that was cut names something else.
bool fits(int length)
{
    return length >= 0 && static_cast<size_t>(length) < PATH_LENGTH;
}

/// Reads the next process id.
std::optional<int> readPid(std::FILE* file)
{
    int pid = 0;
    // NOLINTNEXTLINE(cert-err34-c): what the kernel and liblxc write; everything else ends the list.
    if (std::fscanf(file, "%d", &pid) != 1) {
        return std::nullopt;
    }
    return pid;
}

FilePtr openPidList(const std::string& path)
{
    FilePtr file(std::fopen(path.c_str(), "re"));
    if (!file) {
        const SystemErrorText error;
        ZLOGE("Failed to open pid path - \"%s\" - \"%s\"", path.c_str(), error.c_str());
    }
    return file;
}

/// Sends SIGKILL. A number below 1 names no process but whole groups of them, the daemon's own among these.
int killProcess(int pid)
{
    if (pid < 1) {
        errno = EINVAL;
        return -1;
    }
    return kill(pid, SIGKILL);
}

/// The controller list of a line of the control-group list; none for named hierarchies and lines without one.
std::optional<PathBuffer> controllersOf(const PathBuffer& line)
{
    if (std::strchr(line.data(), '=') != nullptr) {
        return std::nullopt;
    }
    PathBuffer controllers{};
    // The field fits: the line is no longer than the buffer.
    // cppcheck-suppress invalidscanf
    if (std::sscanf(line.data(), "%*d:%[^:]:%*s", controllers.data()) != 1) {
        return std::nullopt;
    }
    return controllers;
}

} // namespace

Container::~Container()
{
    if (handle != nullptr) {
        ZLOGI("thread count of container...[%d]", handle->numthreads);
        static_cast<void>(lxc_container_put(handle));
        handle = nullptr;
    }
    ZLOGI("Container object is destroyed...");
}

bool Container::mayControl()
{
    return handle->may_control(handle);
}

pid_t Container::initPID()
{
    return handle->init_pid(handle);
}

ZoneCore::ZoneState Container::state()
{
    const char* word = handle->state(handle);
    if (word == nullptr) {
        ZLOGW("Failed to get state info of zone");
        return ZoneCore::NONE;
    }
    ZLOGI("The state of zone is received - \"%s\"", word);
    const auto containerState = std::make_shared<ZoneCore::ZoneContainerState>();
    return containerState->stateToEnum(word);
}

bool Container::isRunning()
{
    return handle->is_running(handle);
}

bool Container::freeze()
{
    return handle->freeze(handle);
}

bool Container::unfreeze()
{
    return handle->unfreeze(handle);
}

int Container::wait_for_pid_status(pid_t pid)
{
    for (;;) {
        int status{};
        const pid_t ended = waitpid(pid, &status, 0);
        if (ended == -1) {
            if (errno == EINTR) {
                continue;
            }
            const SystemErrorText error;
            ZLOGE("Failed to waitpid : %d - \"%s\"", pid, error.c_str());
            return -1;
        }
        if (ended == pid) {
            return status;
        }
    }
}

bool Container::start()
{
    const std::string name = handle->name;
    destroyPreProcess(name);

    const pid_t child = fork();
    if (child < 0) {
        ZLOGE("Failed to fork %s", name.c_str());
        return false;
    }
    if (child == 0) {
        becomeLauncher("start", name.c_str());
    }
    if (wait_for_pid_status(child) < 0) {
        ZLOGE("Failed wait_for_pid - pid : %d", child);
        return false;
    }
    return isRunning();
}

bool Container::stop()
{
    const std::string name = handle->name;
    const pid_t child = fork();
    if (child < 0) {
        const SystemErrorText error;
        ZLOGE("Failed to fork %s - \"%s\"", name.c_str(), error.c_str());
        return false;
    }
    if (child == 0) {
        becomeLauncher("stop", name.c_str());
    }
    if (wait_for_pid_status(child) < 0) {
        ZLOGE("Failed wait_for_pid - pid : %d", child);
        return false;
    }
    if (isRunning()) {
        return false;
    }
    destroyPreProcess(name);
    return true;
}

void Container::killProcessList(std::list<int>& pids)
{
    for (const int pid : pids) {
        if (killProcess(pid) < 0) {
            const SystemErrorText error;
            ZLOGW("Failed to kill signal : %d - \"%s\"", pid, error.c_str());
        }
    }
}

void Container::killPreProcess(const std::string& path, int waitSteps)
{
    std::list<int> pids;
    {
        const FilePtr file = openPidList(path);
        if (!file) {
            return;
        }
        while (const auto pid = readPid(file.get())) {
            pids.push_back(*pid);
        }
    }
    killProcessList(pids);
    if (pids.empty()) {
        return;
    }
    for (int step = 0; step < waitSteps; ++step) {
        usleep(WAIT_STEP_US);
        const FilePtr file = openPidList(path);
        if (!file || !readPid(file.get())) {
            break;
        }
    }
}

void Container::destroyPreProcess(const std::string& name)
{
    PathBuffer path{};
    if (fits(std::snprintf(path.data(), path.size(), "%s/%s.pid", PID_FILE_DIRECTORY, name.c_str())) &&
        access(path.data(), F_OK) == 0) {
        killPreProcess(path.data(), PID_FILE_WAIT_STEPS);
    }

    const FilePtr cgroups(std::fopen(OWN_CGROUPS, "re"));
    if (!cgroups) {
        ZLOGE("Failed to open \"%s\"", OWN_CGROUPS);
        return;
    }
    bool processesKilled = false;
    PathBuffer line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), cgroups.get()) != nullptr) {
        const auto controllers = controllersOf(line);
        if (!controllers) {
            continue;
        }
        PathBuffer directory{};
        if (!fits(std::snprintf(directory.data(), directory.size(), "/sys/fs/cgroup/%s/lxc.payload/%s",
                                controllers->data(), name.c_str())) ||
            access(directory.data(), F_OK) != 0) {
            continue;
        }
        if (!processesKilled) {
            processesKilled = true;
            if (fits(std::snprintf(path.data(), path.size(), "/sys/fs/cgroup/%s/lxc.payload/%s/cgroup.procs",
                                   controllers->data(), name.c_str()))) {
                killPreProcess(path.data(), CGROUP_WAIT_STEPS);
            }
        }
        if (rmdir(directory.data()) < 0) {
            ZLOGF("Failed to rmdir %s", directory.data());
        }
    }
}

} // namespace ContainerCore
