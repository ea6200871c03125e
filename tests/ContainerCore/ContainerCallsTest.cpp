// What Container asks of the kernel and of liblxc, and in which order. The functions are this program's own:
// they are answered by a FakeMachine while there is one, and their calls stand in the log among the records.
#include "ContainerCore/Container.h"

#include "tests/ContainerCore/FakeContainer.h"
#include "tests/ContainerCore/FakeMachine.h"
#include "tests/ContainerCore/LaunchGuard.h"
#include "tests/support/unit/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

using ContainerCore::Container;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsSupersetOf;
using ZoneTest::FakeContainer;
using ZoneTest::FakeMachine;
using ZoneTest::genuine;
using ZoneTest::LogCapture;
using ZoneTest::noteCall;

namespace {

constexpr const char* PID_FILE = "/var/run/lxc/pid/zone.pid";
constexpr const char* CGROUPS = "/proc/self/cgroup";

} // namespace

extern "C" {

int lxc_container_put(lxc_container* /*container*/)
{
    noteCall("lxc_container_put");
    return 1;
}

int access(const char* path, int mode) noexcept
{
    auto* machine = FakeMachine::current;
    return machine != nullptr ? machine->answerAccess(path, mode) : genuine(&access, "access")(path, mode);
}

std::FILE* fopen(const char* path, const char* mode)
{
    auto* machine = FakeMachine::current;
    return machine != nullptr ? machine->answerFopen(path, mode) : genuine(&fopen, "fopen")(path, mode);
}

int fclose(std::FILE* file)
{
    if (FakeMachine::current != nullptr) {
        FakeMachine::current->noteFclose(file);
    }
    return genuine(&fclose, "fclose")(file);
}

int kill(pid_t pid, int signal) noexcept
{
    auto* machine = FakeMachine::current;
    return machine != nullptr ? machine->answerKill(pid, signal) : genuine(&kill, "kill")(pid, signal);
}

int usleep(useconds_t microseconds)
{
    auto* machine = FakeMachine::current;
    return machine != nullptr ? machine->answerUsleep(microseconds)
                              : genuine(&usleep, "usleep")(microseconds);
}

int rmdir(const char* path) noexcept
{
    auto* machine = FakeMachine::current;
    return machine != nullptr ? machine->answerRmdir(path) : genuine(&rmdir, "rmdir")(path);
}

pid_t fork() noexcept
{
    auto* machine = FakeMachine::current;
    return machine != nullptr ? machine->answerFork() : genuine(&fork, "fork")();
}

pid_t waitpid(pid_t pid, int* status, int options)
{
    auto* machine = FakeMachine::current;
    return machine != nullptr ? machine->answerWaitpid(pid, status, options)
                              : genuine(&waitpid, "waitpid")(pid, status, options);
}
}

namespace {

/// A container named "zone" on a machine without anything.
class ContainerCalls : public testing::Test
{
protected:
    ContainerCalls()
    {
        machine.files[CGROUPS] = {"\n"};
        lxc.is_running = [](lxc_container* self) {
            noteCall("is_running");
            return FakeContainer::of(self).running;
        };
        container->setHandle(&lxc);
    }

    static std::string payload(const std::string& controllers, const std::string& name = "zone")
    {
        return "/sys/fs/cgroup/" + controllers + "/lxc.payload/" + name;
    }
    static std::string processes(const std::string& controllers)
    {
        return payload(controllers) + "/cgroup.procs";
    }

    /// The calls of a clean-up that finds nothing.
    static std::vector<std::string> emptyCleanUp()
    {
        return {"D access(/var/run/lxc/pid/zone.pid, 0)", "D fopen(/proc/self/cgroup, re)",
                "D fclose(/proc/self/cgroup)"};
    }

    LogCapture log;
    FakeMachine machine;
    FakeContainer lxc{"zone"};
    std::unique_ptr<Container> container = std::make_unique<Container>();
};

using ContainerCleanUpCalls = ContainerCalls;
using ContainerLaunchCalls = ContainerCalls;

std::vector<std::string> joined(std::vector<std::string> first, const std::vector<std::string>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

} // namespace

// Clean-up

TEST_F(ContainerCleanUpCalls, TakeTheirStepsInOrder)
{
    machine.files[PID_FILE] = {"1 12\n"};
    machine.files[CGROUPS] = {
        "12:name=systemd:/\n11:cpu,cpuacct:/\n10:memory:/a:b\n9:pids:/x\n0::/\n7:freezer:/\n"};
    machine.directories = {payload("name=systemd"), payload("memory"), payload("pids"), payload(""),
                           payload("freezer")};
    machine.files[processes("memory")] = {"21\n22\n", "22\n", "\n"};
    machine.files[processes("pids")] = {"31\n"};
    container->destroyPreProcess("zone");
    EXPECT_THAT(log.texts(), ElementsAre("D access(/var/run/lxc/pid/zone.pid, 0)",
                                         "D fopen(/var/run/lxc/pid/zone.pid, re)", //
                                         "D fclose(/var/run/lxc/pid/zone.pid)",    //
                                         "D kill(1, 9)", "D kill(12, 9)",          //
                                         "D fopen(/proc/self/cgroup, re)",
                                         "D access(/sys/fs/cgroup/cpu,cpuacct/lxc.payload/zone, 0)",
                                         "D access(/sys/fs/cgroup/memory/lxc.payload/zone, 0)",
                                         "D fopen(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs, re)",
                                         "D fclose(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs)", //
                                         "D kill(21, 9)", "D kill(22, 9)",                                //
                                         "D usleep(10001)",
                                         "D fopen(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs, re)",
                                         "D fclose(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs)", //
                                         "D usleep(10001)",
                                         "D fopen(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs, re)",
                                         "D fclose(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs)",
                                         "D rmdir(/sys/fs/cgroup/memory/lxc.payload/zone)",
                                         "D access(/sys/fs/cgroup/pids/lxc.payload/zone, 0)",
                                         "D rmdir(/sys/fs/cgroup/pids/lxc.payload/zone)",
                                         "D access(/sys/fs/cgroup/freezer/lxc.payload/zone, 0)",
                                         "D rmdir(/sys/fs/cgroup/freezer/lxc.payload/zone)", //
                                         "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, NothingLeftMeansNothingDone)
{
    container->destroyPreProcess("zone");
    EXPECT_THAT(log.texts(), ElementsAreArray(emptyCleanUp()));
}

TEST_F(ContainerCleanUpCalls, AFailedStepIsToldAtOnceAndTheNextOneTaken)
{
    machine.files[PID_FILE] = {"11 0 12\n"};
    machine.files[CGROUPS] = {"10:memory:/\n9:pids:/\n"};
    machine.directories = {payload("memory"), payload("pids")};
    machine.files[processes("memory")] = {std::nullopt};
    machine.ended = {11};
    machine.busy = {payload("memory")};
    container->destroyPreProcess("zone");
    EXPECT_THAT(
        log.texts(),
        ElementsAre("D access(/var/run/lxc/pid/zone.pid, 0)",
                    "D fopen(/var/run/lxc/pid/zone.pid, re)", //
                    "D fclose(/var/run/lxc/pid/zone.pid)",    //
                    "D kill(11, 9)", "W Failed to kill signal : 11 - \"No such process\"",
                    "W Failed to kill signal : 0 - \"Invalid argument\"", //
                    "D kill(12, 9)",                                      //
                    "D fopen(/proc/self/cgroup, re)", "D access(/sys/fs/cgroup/memory/lxc.payload/zone, 0)",
                    "D fopen(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs, re)",
                    "E Failed to open pid path - \"/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs\""
                    " - \"Too many open files\"",
                    "D rmdir(/sys/fs/cgroup/memory/lxc.payload/zone)",
                    "F Failed to rmdir /sys/fs/cgroup/memory/lxc.payload/zone",
                    "D access(/sys/fs/cgroup/pids/lxc.payload/zone, 0)",
                    "D rmdir(/sys/fs/cgroup/pids/lxc.payload/zone)", //
                    "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, APidFileThatCannotBeReadHoldsNothingUp)
{
    machine.files[PID_FILE] = {std::nullopt};
    container->destroyPreProcess("zone");
    EXPECT_THAT(
        log.texts(),
        ElementsAre("D access(/var/run/lxc/pid/zone.pid, 0)", "D fopen(/var/run/lxc/pid/zone.pid, re)",
                    "E Failed to open pid path - \"/var/run/lxc/pid/zone.pid\" - \"Too many open files\"",
                    "D fopen(/proc/self/cgroup, re)", "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, WithoutTheOwnGroupsOnlyThePidFileCounts)
{
    machine.files = {{PID_FILE, {"11\n"}}};
    machine.directories = {payload("memory")};
    container->destroyPreProcess("zone");
    EXPECT_THAT(log.texts(),
                ElementsAre("D access(/var/run/lxc/pid/zone.pid, 0)",
                            "D fopen(/var/run/lxc/pid/zone.pid, re)", "D fclose(/var/run/lxc/pid/zone.pid)",
                            "D kill(11, 9)", "D fopen(/proc/self/cgroup, re)",
                            "E Failed to open \"/proc/self/cgroup\""));
}

TEST_F(ContainerCleanUpCalls, AnEmptyGroupIsNotWaitedFor)
{
    machine.files[CGROUPS] = {"10:memory:/\n"};
    machine.directories = {payload("memory")};
    machine.files[processes("memory")] = {"\n"};
    container->destroyPreProcess("zone");
    EXPECT_THAT(log.texts(),
                ElementsAre("D access(/var/run/lxc/pid/zone.pid, 0)", "D fopen(/proc/self/cgroup, re)",
                            "D access(/sys/fs/cgroup/memory/lxc.payload/zone, 0)",
                            "D fopen(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs, re)",
                            "D fclose(/sys/fs/cgroup/memory/lxc.payload/zone/cgroup.procs)",
                            "D rmdir(/sys/fs/cgroup/memory/lxc.payload/zone)",
                            "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, AGroupThatDoesNotEmptyIsWaitedForSixtySteps)
{
    machine.files[CGROUPS] = {"10:memory:/\n"};
    machine.directories = {payload("memory")};
    machine.files[processes("memory")] = {"21\n"};
    const std::string open = "D fopen(" + processes("memory") + ", re)";
    const std::string close = "D fclose(" + processes("memory") + ")";
    std::vector<std::string> expected = {"D access(/var/run/lxc/pid/zone.pid, 0)",
                                         "D fopen(/proc/self/cgroup, re)",
                                         "D access(/sys/fs/cgroup/memory/lxc.payload/zone, 0)",
                                         open,
                                         close,
                                         "D kill(21, 9)"};
    for (int step = 0; step < 60; ++step) {
        expected = joined(expected, {"D usleep(10001)", open, close});
    }
    container->destroyPreProcess("zone");
    EXPECT_THAT(log.texts(),
                ElementsAreArray(joined(expected, {"D rmdir(/sys/fs/cgroup/memory/lxc.payload/zone)",
                                                   "D fclose(/proc/self/cgroup)"})));
}

TEST_F(ContainerCleanUpCalls, TheWaitEndsWhenTheGroupIsGone)
{
    machine.files[CGROUPS] = {"10:memory:/\n"};
    machine.directories = {payload("memory")};
    machine.files[processes("memory")] = {"21\n", "21\n", std::nullopt};
    const std::string open = "D fopen(" + processes("memory") + ", re)";
    const std::string close = "D fclose(" + processes("memory") + ")";
    container->destroyPreProcess("zone");
    EXPECT_THAT(
        log.texts(),
        ElementsAre("D access(/var/run/lxc/pid/zone.pid, 0)", "D fopen(/proc/self/cgroup, re)",
                    "D access(/sys/fs/cgroup/memory/lxc.payload/zone, 0)", open, close, "D kill(21, 9)",
                    "D usleep(10001)", open, close, "D usleep(10001)", open,
                    "E Failed to open pid path - \"" + processes("memory") + "\" - \"Too many open files\"",
                    "D rmdir(/sys/fs/cgroup/memory/lxc.payload/zone)", "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, SkipLinesWithoutControllers)
{
    // The last but one is longer than the buffer, so that its rest counts as a line of its own.
    machine.files[CGROUPS] = {"0::/\n\nword\n:memory:/\n5:pids,name=x:/\n6:" + std::string(300, 'x') +
                              ":/\n4:memory:/\n"};
    container->destroyPreProcess("zone");
    EXPECT_THAT(log.texts(),
                ElementsAre("D access(/var/run/lxc/pid/zone.pid, 0)", "D fopen(/proc/self/cgroup, re)",
                            "D access(/sys/fs/cgroup/memory/lxc.payload/zone, 0)",
                            "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, APathFillsTheBufferButIsNeverCut)
{
    constexpr std::size_t LONGEST = 255;
    const std::string pidPath = "/var/run/lxc/pid/.pid";
    const std::string fits(LONGEST - pidPath.size(), 'z');
    container->destroyPreProcess(fits);
    EXPECT_THAT(log.texts(), Contains("D access(/var/run/lxc/pid/" + fits + ".pid, 0)"));
    log.clear();
    container->destroyPreProcess(fits + "z");
    EXPECT_THAT(log.texts(), ElementsAre("D fopen(/proc/self/cgroup, re)", "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, ADirectoryFillsTheBufferButIsNeverCut)
{
    constexpr std::size_t LONGEST = 255;
    const std::string name(200, 'z');
    const std::string fits(LONGEST - payload("", name).size(), 'm');
    machine.directories = {payload(fits, name), payload(fits + "m", name)};
    machine.files[CGROUPS] = {"5:" + fits + "m:/\n4:" + fits + ":/\n"};
    container->destroyPreProcess(name);
    // Its list of processes is too long: they stay.
    EXPECT_THAT(log.texts(),
                ElementsAre("D access(/var/run/lxc/pid/" + name + ".pid, 0)",
                            "D fopen(/proc/self/cgroup, re)", "D access(" + payload(fits, name) + ", 0)",
                            "D rmdir(" + payload(fits, name) + ")", "D fclose(/proc/self/cgroup)"));
}

TEST_F(ContainerCleanUpCalls, AProcessListFillsTheBufferButIsNeverCut)
{
    constexpr std::size_t LONGEST = 255;
    const std::string name(200, 'z');
    const std::string fits(LONGEST - (payload("", name) + "/cgroup.procs").size(), 'm');
    for (const std::string& controllers : {fits, fits + "m"}) {
        log.clear();
        const std::string directory = payload(controllers, name);
        machine.directories = {directory};
        machine.files[CGROUPS] = {"4:" + controllers + ":/\n"};
        machine.files[directory + "/cgroup.procs"] = {"\n"};
        container->destroyPreProcess(name);
        const std::vector<std::string> read = {"D fopen(" + directory + "/cgroup.procs, re)",
                                               "D fclose(" + directory + "/cgroup.procs)"};
        EXPECT_EQ(testing::Value(log.texts(), IsSupersetOf(read)), controllers == fits);
        EXPECT_THAT(log.texts(), Contains("D rmdir(" + directory + ")"));
    }
}

// Waiting for a child

TEST_F(ContainerCalls, AWaitGoesOnAfterAnInterruptionAndAfterAnothersEnd)
{
    machine.waits = {{-1, EINTR, 1}, {99, 0, 2}, {0, 0, 3}, {-1, EINTR, 4}, {4711, 0, 0x0500}};
    EXPECT_EQ(Container::wait_for_pid_status(4711), 0x0500);
    EXPECT_THAT(log.texts(), testing::AllOf(testing::SizeIs(5), testing::Each("D waitpid(4711, 0)")));
}

TEST_F(ContainerCalls, AFailedWaitIsNotTriedAgain)
{
    machine.waits = {{-1, EINVAL, 0}, {4711, 0, 0}};
    EXPECT_EQ(Container::wait_for_pid_status(4711), -1);
    EXPECT_THAT(log.texts(),
                ElementsAre("D waitpid(4711, 0)", "E Failed to waitpid : 4711 - \"Invalid argument\""));
}

// Start and stop

TEST_F(ContainerLaunchCalls, StartClearsUpThenLaunchesThenLooks)
{
    for (const bool running : {true, false}) {
        log.clear();
        machine.waits = {{4711, 0, 0x0100}};
        lxc.running = running;
        EXPECT_EQ(container->start(), running);
        EXPECT_THAT(log.texts(), ElementsAreArray(joined(
                                     emptyCleanUp(), {"D fork()", "D waitpid(4711, 0)", "D is_running"})));
    }
}

TEST_F(ContainerLaunchCalls, AStartWithoutAChildFails)
{
    machine.child = -1;
    lxc.running = true;
    EXPECT_FALSE(container->start());
    EXPECT_THAT(log.texts(), ElementsAreArray(joined(emptyCleanUp(), {"D fork()", "E Failed to fork zone"})));
}

TEST_F(ContainerLaunchCalls, AStartThatCannotBeWaitedForFails)
{
    machine.waits = {{-1, ECHILD, 0}};
    lxc.running = true;
    EXPECT_FALSE(container->start());
    EXPECT_THAT(log.texts(), ElementsAreArray(joined(emptyCleanUp(),
                                                     {"D fork()", "D waitpid(4711, 0)",
                                                      "E Failed to waitpid : 4711 - \"No child processes\"",
                                                      "E Failed wait_for_pid - pid : 4711"})));
}

TEST_F(ContainerLaunchCalls, StopLaunchesThenLooksThenClearsUp)
{
    machine.waits = {{4711, 0, 0x0100}};
    EXPECT_TRUE(container->stop());
    EXPECT_THAT(log.texts(),
                ElementsAreArray(joined({"D fork()", "D waitpid(4711, 0)", "D is_running"}, emptyCleanUp())));
}

TEST_F(ContainerLaunchCalls, AStopThatDidNotWorkClearsNothingUp)
{
    lxc.running = true;
    EXPECT_FALSE(container->stop());
    EXPECT_THAT(log.texts(), ElementsAre("D fork()", "D waitpid(4711, 0)", "D is_running"));
}

TEST_F(ContainerLaunchCalls, AStopWithoutAChildFails)
{
    machine.child = -1;
    EXPECT_FALSE(container->stop());
    EXPECT_THAT(log.texts(),
                ElementsAre("D fork()", "E Failed to fork zone - \"Resource temporarily unavailable\""));
}

TEST_F(ContainerLaunchCalls, AStopThatCannotBeWaitedForFails)
{
    machine.waits = {{-1, ECHILD, 0}};
    EXPECT_FALSE(container->stop());
    EXPECT_THAT(log.texts(), ElementsAre("D fork()", "D waitpid(4711, 0)",
                                         "E Failed to waitpid : 4711 - \"No child processes\"",
                                         "E Failed wait_for_pid - pid : 4711"));
}

// The handle

TEST_F(ContainerCalls, TheReferenceGoesBackBetweenTheTwoLinesOfTheDestructor)
{
    container.reset();
    EXPECT_THAT(log.texts(), ElementsAre("I thread count of container...[3]", "D lxc_container_put",
                                         "I Container object is destroyed..."));
}

TEST_F(ContainerCalls, AHandleThatWasNeverSetIsNotGivenBack)
{
    container->setHandle(nullptr);
    container.reset();
    EXPECT_THAT(log.texts(), ElementsAre("I Container object is destroyed..."));
}
