// The built launcher with real busybox containers.

#include "tests/platform/test_process.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using PlatformTest::ProcessResult;
using PlatformTest::run;
using PlatformTest::runInChild;
using std::chrono::steady_clock;

constexpr char PID_DIRECTORY[] = "/var/run/lxc/pid";

ProcessResult launcher(const std::string& operation, const std::string& name,
                       const std::map<std::string, std::string>& environment = {})
{
    return run({ZONE_LAUNCHER_FILE, operation, name}, environment);
}

class ZoneLauncherTest : public testing::Test
{
protected:
    void SetUp() override
    {
        name = "zone-launcher-test-" + std::to_string(getpid());
        const auto created = run({"lxc-create", "-n", name, "-t", "busybox"});
        ASSERT_EQ(created.exitStatus, 0) << created.output;
        std::ifstream old(config());
        std::ostringstream lines;
        for (std::string line; std::getline(old, line);) {
            if (!line.starts_with("lxc.net") && !line.starts_with("lxc.apparmor")) {
                lines << line << "\n";
            }
        }
        old.close();
        lines << "lxc.net.0.type = empty\n"
              << "lxc.cgroup.dir.container = lxc.payload/" << name << "\n"
              << "lxc.cgroup.dir.monitor = lxc.monitor/" << name << "\n"
              << "lxc.cgroup.dir.monitor.pivot = lxc.pivot\n";
        std::ofstream(config()) << lines.str();
        fs::create_directories(PID_DIRECTORY);
    }

    void TearDown() override
    {
        if (state() != "STOPPED") {
            run({"lxc-stop", "-n", name, "-k"});
        }
        run({"lxc-destroy", "-n", name});
        fs::remove(pidFile());
        for (const auto& directory : cgroups()) {
            rmdir(directory.c_str());
        }
    }

    [[nodiscard]] std::string config() const { return "/var/lib/lxc/" + name + "/config"; }
    [[nodiscard]] std::string pidFile() const { return std::string(PID_DIRECTORY) + "/" + name + ".pid"; }

    void configure(const std::string& line) const { std::ofstream(config(), std::ios::app) << line << "\n"; }

    [[nodiscard]] std::string state() const
    {
        const std::string output = run({"lxc-info", "-n", name, "-s", "-H"}).output;
        return output.substr(0, output.find('\n'));
    }

    [[nodiscard]] std::string pidInFile() const
    {
        std::ifstream file(pidFile());
        std::string pid;
        file >> pid;
        return pid;
    }

    /// The container's control groups, of all hierarchies.
    [[nodiscard]] std::vector<std::string> cgroups() const
    {
        std::vector<std::string> found;
        for (const auto& hierarchy : fs::directory_iterator("/sys/fs/cgroup")) {
            for (const char* parent : {"lxc.payload", "lxc.monitor"}) {
                const fs::path directory = hierarchy.path() / parent / name;
                if (fs::exists(directory)) {
                    found.push_back(directory);
                }
            }
        }
        return found;
    }

    /// Ends the container the hard way: its monitor process first, which then cannot clear anything up.
    void killAll() const
    {
        std::vector<pid_t> pids;
        for (const auto& directory : cgroups()) {
            std::ifstream file(directory + "/cgroup.procs");
            for (pid_t pid = 0; file >> pid;) {
                pids.push_back(pid);
            }
        }
        const pid_t monitor = std::stoi(pidInFile());
        kill(monitor, SIGKILL);
        for (const pid_t pid : pids) {
            if (pid != monitor) {
                kill(pid, SIGKILL);
            }
        }
        const auto deadline = steady_clock::now() + std::chrono::seconds(10);
        while (kill(monitor, 0) == 0 && steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    std::string name;
};

} // namespace

TEST(ZoneLauncher, WrongArgumentsGiveTheUsage)
{
    const std::vector<std::vector<std::string>> wrong{
        {ZONE_LAUNCHER_FILE},
        {ZONE_LAUNCHER_FILE, "start"},
        {ZONE_LAUNCHER_FILE, "restart", "x"},
        {ZONE_LAUNCHER_FILE, "start", "x", "y"},
        {ZONE_LAUNCHER_FILE, "start", ""},
        {ZONE_LAUNCHER_FILE, "start", ".."},
        {ZONE_LAUNCHER_FILE, "stop", "../x"},
    };
    for (const auto& words : wrong) {
        const auto result = run(words);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.output, "usage: zone-launcher start|stop NAME\n");
    }
}

TEST(ZoneLauncher, AnUnknownContainerCannotBeStartedAndNeedsNoStop)
{
    const auto result = launcher("start", "zone-launcher-test-nobody");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.output.find("zone-launcher: zone-launcher-test-nobody could not be started\n"),
              std::string::npos);
    EXPECT_EQ(launcher("stop", "zone-launcher-test-nobody").exitStatus, 0);
}

TEST_F(ZoneLauncherTest, StartsAndStopsAContainer)
{
    const auto started = launcher("start", name);
    EXPECT_EQ(started.exitStatus, 0) << started.output;
    EXPECT_EQ(state(), "RUNNING");
    EXPECT_TRUE(fs::exists("/proc/" + pidInFile()));
    EXPECT_FALSE(cgroups().empty());

    const auto began = steady_clock::now();
    const auto stopped = launcher("stop", name);
    EXPECT_EQ(stopped.exitStatus, 0) << stopped.output;
    EXPECT_EQ(state(), "STOPPED");
    EXPECT_FALSE(fs::exists(pidFile()));
    EXPECT_TRUE(cgroups().empty());
    // It ended because it was asked to: nobody waited for the hard way.
    EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(8));
}

TEST_F(ZoneLauncherTest, StartingWhatRunsAndStoppingWhatDoesNotSucceed)
{
    EXPECT_EQ(launcher("stop", name).exitStatus, 0);
    EXPECT_EQ(launcher("start", name).exitStatus, 0);
    const std::string pid = pidInFile();
    EXPECT_EQ(launcher("start", name).exitStatus, 0);
    EXPECT_EQ(pidInFile(), pid);
    EXPECT_EQ(state(), "RUNNING");
}

TEST_F(ZoneLauncherTest, AContainerThatDoesNotShutDownIsKilled)
{
    ASSERT_EQ(launcher("start", name).exitStatus, 0);
    ASSERT_EQ(run({"lxc-freeze", "-n", name}).exitStatus, 0); // a frozen container does not answer
    EXPECT_EQ(launcher("stop", name).exitStatus, 0);
    EXPECT_EQ(state(), "STOPPED");
    EXPECT_FALSE(fs::exists(pidFile()));
}

TEST_F(ZoneLauncherTest, AFrozenContainerDoesNotCountAsStarted)
{
    ASSERT_EQ(launcher("start", name).exitStatus, 0);
    ASSERT_EQ(run({"lxc-freeze", "-n", name}).exitStatus, 0);
    const auto result = launcher("start", name);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.output.find("does not run after its start"), std::string::npos) << result.output;
}

TEST_F(ZoneLauncherTest, AContainerThatEndsAtOnceIsAFailureThatIsNotWaitedFor)
{
    configure("lxc.init.cmd = /bin/false");
    const auto began = steady_clock::now();
    EXPECT_EQ(launcher("start", name).exitStatus, 1);
    EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(8));
}

TEST_F(ZoneLauncherTest, StartsAgainAfterItsMonitorProcessWasKilled)
{
    ASSERT_EQ(launcher("start", name).exitStatus, 0);
    killAll();
    ASSERT_FALSE(cgroups().empty());
    const auto result = launcher("start", name);
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_EQ(state(), "RUNNING");
}

TEST_F(ZoneLauncherTest, AStopRemovesAPidFileWhoseProcessIsGone)
{
    ASSERT_EQ(launcher("start", name).exitStatus, 0);
    killAll();
    ASSERT_TRUE(fs::exists(pidFile()));
    EXPECT_EQ(launcher("stop", name).exitStatus, 0);
    EXPECT_FALSE(fs::exists(pidFile()));
}

TEST_F(ZoneLauncherTest, WorksWithoutTheDaemonsPidDirectory)
{
    fs::remove_all(PID_DIRECTORY);
    const auto result = launcher("start", name);
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_FALSE(fs::exists(pidFile()));
    EXPECT_EQ(launcher("stop", name).exitStatus, 0);
}

TEST_F(ZoneLauncherTest, TheContainerGetsNeitherTheCallersUmaskNorItsEnvironment)
{
    // A library path with a file that is no library: a tool that looked there would not run.
    const std::string trap = "/tmp/" + name;
    fs::create_directories(trap);
    std::ofstream(trap + "/liblxc.so.1") << "no library";
    const auto result = launcher(
        "start", name, {{"LD_LIBRARY_PATH", trap}, {"NOTIFY_SOCKET", "@manager"}, {"PATH", "/nowhere"}});
    fs::remove_all(trap);
    ASSERT_EQ(result.exitStatus, 0) << result.output;

    const std::string pid = run({"lxc-info", "-n", name, "-p", "-H"}).output;
    const std::string process = "/proc/" + pid.substr(0, pid.find('\n'));
    std::ifstream status(process + "/status");
    std::string mask;
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Umask:")) {
            mask = line.substr(line.find_last_of("\t ") + 1);
        }
    }
    EXPECT_EQ(mask, "0022");
    std::ifstream environment(process + "/environ");
    const std::string all((std::istreambuf_iterator<char>(environment)), {});
    EXPECT_EQ(all.find("NOTIFY_SOCKET"), std::string::npos);
    EXPECT_EQ(all.find("LD_LIBRARY_PATH"), std::string::npos);
}

TEST_F(ZoneLauncherTest, ACallersSignalSettingsDoNotReachTheContainerNorDisturbTheWait)
{
    const auto result = runInChild({}, [this] {
        static_cast<void>(std::signal(SIGCHLD, SIG_IGN));
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        execl(ZONE_LAUNCHER_FILE, ZONE_LAUNCHER_FILE, "start", name.c_str(), nullptr);
        return 127;
    });
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_EQ(state(), "RUNNING");
    std::ifstream status("/proc/" + pidInFile() + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigIgn:")) {
            const auto ignored = std::stoull(line.substr(line.find_last_of("\t ") + 1), nullptr, 16);
            EXPECT_EQ(ignored >> (SIGPIPE - 1) & 1, 0U);
        }
    }
}
