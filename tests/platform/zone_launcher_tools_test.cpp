// The built launcher with scripts in the places of the LXC tools: what it runs, and what it says when one of
// them fails.

#include "tests/platform/test_process.h"
#include "tests/support/unit/Emulation.h"
#include "tests/support/unit/PrivateRoot.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using PlatformTest::ProcessResult;
using PlatformTest::run;
using PlatformTest::runInChild;
using ZoneTest::readFile;
using ZoneTest::writeFile;

constexpr const char* CALLS = "/tmp/launcher-tool-calls";
constexpr const char* PID_DIRECTORY = "/var/run/lxc/pid";
constexpr const char* PID_FILE = "/var/run/lxc/pid/zone.pid";
constexpr std::array TOOLS{"start", "stop", "wait", "info"};

class ZoneLauncherTools : public ZoneTest::InPrivateRoot
{
protected:
    void SetUp() override
    {
        InPrivateRoot::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        for (const char* tool : TOOLS) {
            fs::rename(path(tool), path(tool) + ".genuine");
            install(tool, "exit 0");
        }
        install("info", "echo STOPPED");
        fs::create_directories(PID_DIRECTORY);
        fs::remove(PID_FILE);
    }

    void TearDown() override
    {
        for (const char* tool : TOOLS) {
            if (fs::exists(path(tool) + ".genuine")) {
                fs::rename(path(tool) + ".genuine", path(tool));
            }
        }
        fs::remove(CALLS);
    }

    static std::string path(const std::string& tool) { return "/usr/bin/lxc-" + tool; }

    /// Puts a script into a tool's place; its call is written down.
    static void install(const std::string& tool, const std::string& commands)
    {
        fs::remove(path(tool));
        writeFile(path(tool), "#!/bin/sh\necho " + tool + " \"$@\" >>" + CALLS + "\n" + commands + "\n");
        fs::permissions(path(tool), fs::perms::owner_all);
    }

    static ProcessResult launcher(const std::string& operation)
    {
        return run({ZONE_LAUNCHER_FILE, operation, "zone"});
    }
};

} // namespace

// Start

TEST_F(ZoneLauncherTools, AStartAsksStartsWaitsAndAsksAgain)
{
    install("start", "touch /tmp/launcher-started");
    install("info", "[ -e /tmp/launcher-started ] && echo RUNNING || echo STOPPED");
    const auto result = launcher("start");
    fs::remove("/tmp/launcher-started");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(readFile(CALLS), "info -n zone -s -H\n"
                               "start -n zone -d -p /var/run/lxc/pid/zone.pid\n"
                               "wait -n zone -s RUNNING|FROZEN|STOPPED -t 10\n"
                               "info -n zone -s -H\n");
}

TEST_F(ZoneLauncherTools, WithoutThePidDirectoryNoPidFileIsAskedFor)
{
    fs::remove_all(PID_DIRECTORY);
    install("info", "echo RUNNING");
    EXPECT_EQ(launcher("start").exitStatus, 0);
    EXPECT_THAT(readFile(CALLS), testing::HasSubstr("start -n zone -d\n"));
}

TEST_F(ZoneLauncherTools, AFailedStartIsNotWaitedFor)
{
    install("start", "exit 1");
    const auto result = launcher("start");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output, "zone-launcher: zone could not be started\n");
    EXPECT_EQ(readFile(CALLS), "info -n zone -s -H\nstart -n zone -d -p /var/run/lxc/pid/zone.pid\n");
}

TEST_F(ZoneLauncherTools, AContainerThatDoesNotComeUpIsAFailure)
{
    install("wait", "exit 1");
    const auto result = launcher("start");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output, "zone-launcher: zone does not run after its start\n");
}

TEST_F(ZoneLauncherTools, AToolThatIsKilledIsAFailure)
{
    install("start", "kill -9 $$");
    const auto result = launcher("start");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output, "zone-launcher: " + path("start") +
                                 " was ended by signal 9\nzone-launcher: zone could not be started\n");
}

TEST_F(ZoneLauncherTools, AToolThatIsMissingIsAFailure)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(
        "qemu-user forks for a vfork, and the error of posix_spawn stays in the child");
    fs::remove(path("start"));
    const auto result = launcher("start");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output, "zone-launcher: cannot run " + path("start") +
                                 ": No such file or directory\nzone-launcher: zone could not be started\n");
}

// It gets ten seconds.
TEST_F(ZoneLauncherTools, AToolThatHangsIsKilled)
{
    install("info", "exec sleep 600");
    install("start", "exit 1");
    const auto result = launcher("start");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output, "zone-launcher: " + path("info") +
                                 " did not end in time, it is killed\n"
                                 "zone-launcher: zone could not be started\n");
}

TEST_F(ZoneLauncherTools, WithoutDescriptorsTheStateIsUnknown)
{
    ZONE_TEST_NEEDS_REAL_MACHINE("the emulator needs descriptors of its own");
    const auto result = runInChild({}, [] {
        closefrom(STDERR_FILENO + 1);
        const rlimit four{4, 4}; // the loader needs one more, a pipe two
        setrlimit(RLIMIT_NOFILE, &four);
        execl(ZONE_LAUNCHER_FILE, ZONE_LAUNCHER_FILE, "start", "zone", nullptr);
        return 127;
    });
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output,
                testing::StartsWith("zone-launcher: cannot make a pipe: Too many open files\n"));
}

TEST_F(ZoneLauncherTools, GroupsThatDoNotEmptyAreToldAndTheStartTriedAllTheSame)
{
    const std::string group = "/sys/fs/cgroup/pids/lxc.payload/zone";
    fs::create_directories(group);
    const auto result = runInChild({}, [&] {
        writeFile(group + "/cgroup.procs", std::to_string(getpid()));
        execl(ZONE_LAUNCHER_FILE, ZONE_LAUNCHER_FILE, "start", "zone", nullptr);
        return 127;
    });
    EXPECT_THAT(
        result.output,
        testing::StartsWith("zone-launcher: zone has control groups with processes from an earlier run\n"));
    EXPECT_THAT(readFile(CALLS), testing::HasSubstr("start -n zone"));
    EXPECT_EQ(rmdir(group.c_str()), 0);
}

TEST_F(ZoneLauncherTools, AStartOfWhatRunsLeavesItsGroupsAlone)
{
    const std::string group = "/sys/fs/cgroup/pids/lxc.payload/zone";
    fs::create_directories(group + "/child");
    install("info", "echo RUNNING");
    EXPECT_EQ(launcher("start").exitStatus, 0);
    EXPECT_TRUE(fs::exists(group + "/child"));
    install("info", "echo STOPPED");
    static_cast<void>(launcher("start"));
    EXPECT_FALSE(fs::exists(group));
}

// Stop

TEST_F(ZoneLauncherTools, AStopStopsAndWaits)
{
    const auto result = launcher("stop");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(readFile(CALLS), "stop -n zone -t 10\nwait -n zone -s STOPPED -t 3\n");
}

TEST_F(ZoneLauncherTools, OnlyTheStatusOfAContainerThatDoesNotRunIsNoFailure)
{
    install("stop", "exit 2");
    EXPECT_EQ(launcher("stop").exitStatus, 0);
    for (const char* status : {"1", "3"}) {
        install("stop", "exit " + std::string(status));
        const auto result = launcher("stop");
        EXPECT_EQ(result.exitStatus, 1) << status;
        EXPECT_EQ(result.output, "zone-launcher: zone could not be stopped\n");
    }
}

TEST_F(ZoneLauncherTools, AContainerThatGoesOnIsAFailure)
{
    install("wait", "exit 1");
    const auto result = launcher("stop");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output, "zone-launcher: zone still runs after its stop\n");
}

TEST_F(ZoneLauncherTools, APidFileOfALivingProcessIsToldButNoFailure)
{
    writeFile(PID_FILE, std::to_string(getpid()) + "\n");
    const auto result = launcher("stop");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "zone-launcher: zone has stopped, but a process that " + std::string(PID_FILE) +
                                 " names goes on\n");
    EXPECT_TRUE(fs::exists(PID_FILE));
}

TEST_F(ZoneLauncherTools, APidFileOfNobodyIsRemoved)
{
    for (const char* text : {"", "word\n", "0\n", "-1\n", "2147483647\n"}) {
        writeFile(PID_FILE, text);
        const auto result = launcher("stop");
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.output, "");
        EXPECT_FALSE(fs::exists(PID_FILE)) << text;
    }
}
