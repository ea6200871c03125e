// Starts or stops one zone's container with the distribution's LXC tools, and returns when it runs or has
// stopped.

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
/// lxc-stop's exit status for a container that is not running.
constexpr int LXC_STOP_NOT_RUNNING = 2;

/// How long a started container may take to reach RUNNING.
constexpr seconds START_TIME{10};
/// How long a container may take to shut down before it is killed.
constexpr seconds CLEAN_STOP_TIME{10};
/// What a tool gets on top of the time it was told to wait, before it is taken for hung.
constexpr seconds TOOL_GRACE{10};
/// How long the container's monitor process may take to clear up after the stop, and old control groups to
/// empty.
constexpr seconds CLEAR_UP_TIME{3};
constexpr milliseconds POLL_STEP{10};

constexpr char PID_DIRECTORY[] = "/var/run/lxc/pid";
constexpr char CGROUP_DIRECTORY[] = "/sys/fs/cgroup";
constexpr std::array CGROUP_PARENTS{"lxc.payload", "lxc.monitor"};

/// The tools get nothing of the caller's environment: no library path that would put another liblxc in the
/// place of the distribution's, and no socket of the service manager for the container's init to find.
char toolPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
std::array<char*, 2> toolEnvironment{toolPath, nullptr};

__attribute__((format(printf, 1, 2))) void complain(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::fputs("zone-launcher: ", stderr));
    static_cast<void>(std::vfprintf(stderr, format, arguments));
    static_cast<void>(std::fputc('\n', stderr));
    va_end(arguments);
}

/// Waits for the end of a child until a deadline; a child that is still there then is killed. SIGCHLD is
/// blocked. Returns its exit status, -1 when it did not exit by itself.
int waitForTool(const char* tool, pid_t pid, Clock::time_point deadline)
{
    sigset_t childEnds;
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            complain("%s did not end in time, it is killed", tool);
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        const auto whole = std::chrono::duration_cast<seconds>(left);
        const timespec wait{.tv_sec = static_cast<std::time_t>(whole.count()),
                            .tv_nsec = static_cast<long>((left - whole).count())};
        sigtimedwait(&childEnds, nullptr, &wait);
    }
    if (WIFSIGNALED(status)) {
        complain("%s was ended by signal %d", tool, WTERMSIG(status));
        return -1;
    }
    return WEXITSTATUS(status);
}

/// Starts a tool, its output to a descriptor. Returns its process id, -1 when it could not be run.
pid_t startTool(std::vector<std::string>& words, int output)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (auto& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    // The caller may have blocked or ignored signals; the tool, and so the container, begins with the
    // defaults.
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != STDOUT_FILENO) {
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    }
    pid_t pid = -1;
    const int error =
        posix_spawn(&pid, arguments[0], &actions, &attributes, arguments.data(), toolEnvironment.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        complain("cannot run %s: %s", arguments[0], std::strerror(error));
        return -1;
    }
    return pid;
}

/// Runs a tool for at most a time. Returns its exit status, -1 when it could not be run or did not exit by
/// itself.
int runTool(std::vector<std::string> words, Clock::duration atMost, int output = STDOUT_FILENO)
{
    const pid_t pid = startTool(words, output);
    return pid < 0 ? -1 : waitForTool(words[0].c_str(), pid, Clock::now() + atMost);
}

bool reachesState(const std::string& name, const char* states, seconds atMost)
{
    return runTool({ZONE_LXC_WAIT, "-n", name, "-s", states, "-t", std::to_string(atMost.count())},
                   atMost + TOOL_GRACE) == 0;
}

/// The container's state at this moment, as LXC's word; empty when there is no such container. (lxc-wait
/// cannot tell: a time of 0 makes it wait without end.)
std::string currentState(const std::string& name)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        complain("cannot make a pipe: %s", std::strerror(errno));
        return {};
    }
    const int status = runTool({ZONE_LXC_INFO, "-n", name, "-s", "-H"}, TOOL_GRACE, ends[1]);
    close(ends[1]);
    // One word: it has lain in the pipe since the tool ended.
    std::array<char, 64> output{};
    const ssize_t length = read(ends[0], output.data(), output.size());
    close(ends[0]);
    if (status != 0 || length <= 0) {
        return {};
    }
    const std::string_view text(output.data(), static_cast<std::size_t>(length));
    return std::string(text.substr(0, text.find('\n')));
}

/// Calls a function until it says true or the time is over; returns its last answer.
template <typename Done>
bool pollUntil(Done done, Clock::duration atMost)
{
    const auto deadline = Clock::now() + atMost;
    while (!done()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(POLL_STEP);
    }
    return true;
}

std::string pidFile(const std::string& name)
{
    return std::string(PID_DIRECTORY) + "/" + name + ".pid";
}

/// Removes a tree of control groups from its leaves up. One with processes in it, and those above it, stay.
void removeCgroupTree(const fs::path& directory)
{
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(directory, ignored)) {
        if (entry.is_directory(ignored) && !entry.is_symlink(ignored)) {
            removeCgroupTree(entry.path());
        }
    }
    rmdir(directory.c_str());
}

/// Removes the container's control groups in every hierarchy; true when none is left.
bool removeCgroups(const std::string& name)
{
    std::error_code ignored;
    bool allGone = true;
    for (const auto& hierarchy : fs::directory_iterator(CGROUP_DIRECTORY, ignored)) {
        for (const char* parent : CGROUP_PARENTS) {
            const fs::path directory = hierarchy.path() / parent / name;
            if (fs::is_directory(directory, ignored)) {
                removeCgroupTree(directory);
                allGone = allGone && !fs::exists(directory, ignored);
            }
        }
    }
    return allGone;
}

int start(const std::string& name)
{
    // LXC refuses to start a container while a control group of it exists, even an empty one in a single
    // hierarchy; a monitor process that was killed leaves them in all.
    if (currentState(name) == "STOPPED" && !pollUntil([&] { return removeCgroups(name); }, CLEAR_UP_TIME)) {
        complain("%s has control groups with processes from an earlier run", name.c_str());
    }
    std::vector<std::string> command{ZONE_LXC_START, "-n", name, "-d"};
    // The daemon makes the directory and looks there for what an earlier run left. Without the daemon nobody
    // does.
    if (std::error_code ignored; fs::is_directory(PID_DIRECTORY, ignored)) {
        command.insert(command.end(), {"-p", pidFile(name)});
    }
    if (runTool(std::move(command), START_TIME + TOOL_GRACE) != 0) {
        complain("%s could not be started", name.c_str());
        return EXIT_FAILED;
    }
    // A container that has ended again is not waited for until the time is over.
    if (!reachesState(name, "RUNNING|FROZEN|STOPPED", START_TIME) || currentState(name) != "RUNNING") {
        complain("%s does not run after its start", name.c_str());
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

/// Whether the pid file is gone or, when its process is, has been removed here: a pid left in it would name
/// some other process one day, and the daemon kills what the file names.
bool pidFileIsGone(const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        return true;
    }
    pid_t pid = 0;
    if (file >> pid && pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH)) {
        return false;
    }
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

int stop(const std::string& name)
{
    const int status = runTool({ZONE_LXC_STOP, "-n", name, "-t", std::to_string(CLEAN_STOP_TIME.count())},
                               CLEAN_STOP_TIME + TOOL_GRACE);
    if (status != 0 && status != LXC_STOP_NOT_RUNNING) {
        complain("%s could not be stopped", name.c_str());
        return EXIT_FAILED;
    }
    if (!reachesState(name, "STOPPED", CLEAR_UP_TIME)) {
        complain("%s still runs after its stop", name.c_str());
        return EXIT_FAILED;
    }
    // The monitor process says STOPPED before it has cleared up, and its last act is to remove the pid file.
    const std::string path = pidFile(name);
    if (!pollUntil([&] { return pidFileIsGone(path); }, CLEAR_UP_TIME)) {
        complain("%s has stopped, but a process that %s names goes on", name.c_str(), path.c_str());
    }
    return EXIT_OK;
}

/// A container's name is one component of its paths.
bool isContainerName(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

/// What the tools and the waiting need of this process, whatever the caller left to it.
void prepareProcess()
{
    umask(022); // the daemon runs with 0
    // Ignored, the tools' exit statuses would be lost.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
    sigset_t childEnds;
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnds, nullptr);
}

} // namespace

int main(int argc, char** argv)
try {
    const std::string_view operation = argc == 3 ? argv[1] : "";
    if ((operation != "start" && operation != "stop") || !isContainerName(argv[2])) {
        static_cast<void>(std::fputs("usage: zone-launcher start|stop NAME\n", stderr));
        return EXIT_USAGE;
    }
    prepareProcess();
    const std::string name = argv[2];
    return operation == "start" ? start(name) : stop(name);
} catch (const std::exception& error) { // no memory left, or a directory that cannot be read to its end
    complain("%s", error.what());
    return EXIT_FAILED;
}
