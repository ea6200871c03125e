// The clean-up before a start and after a stop: Container::destroyPreProcess.
#include "ContainerCore/Container.h"
#include "tests/ContainerCore/Victim.h"
#include "tests/support/unit/LogCapture.h"
#include "tests/support/unit/PrivateRoot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using ContainerCore::Container;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Lt;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using ZoneTest::LogCapture;
using ZoneTest::Victim;
using ZoneTest::writeFile;

namespace {

/// Signals that were asked for: process and number. They reach processes only, never groups, so that a broken
/// clean-up does not end this program.
std::vector<std::pair<pid_t, int>> signals;
bool signalsAreLost = false;
/// Sleeps that were asked for, in microseconds.
std::vector<useconds_t> sleeps;
bool sleepsAreSkipped = true;

} // namespace

extern "C" {

int lxc_container_put(lxc_container* /*container*/)
{
    return 0;
}

// Take the places of the C library's in this program.
int kill(pid_t pid, int signal) noexcept
{
    signals.emplace_back(pid, signal);
    if (pid < 1 || signalsAreLost) {
        return 0;
    }
    return static_cast<int>(syscall(SYS_kill, pid, signal));
}

int usleep(useconds_t microseconds)
{
    sleeps.push_back(microseconds);
    if (!sleepsAreSkipped) {
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    }
    return 0;
}
}

namespace {

/// The controllers of this process in the kernel's order, without those under which no process can be put
/// just so.
std::vector<std::string> controllers()
{
    std::vector<std::string> result;
    std::ifstream file("/proc/self/cgroup");
    for (std::string line; std::getline(file, line);) {
        const auto first = line.find(':') + 1;
        const std::string list = line.substr(first, line.find(':', first) - first);
        if (!list.empty() && list.find('=') == std::string::npos && list != "cpuset") {
            result.push_back(list);
        }
    }
    return result;
}

class ContainerCleanUp : public ZoneTest::InPrivateRoot
{
protected:
    void SetUp() override
    {
        InPrivateRoot::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        std::filesystem::create_directories("/var/run/lxc/pid");
        signals.clear();
        sleeps.clear();
        signalsAreLost = false;
        sleepsAreSkipped = true;
    }

    ~ContainerCleanUp() override
    {
        signalsAreLost = false;
        std::error_code ignored;
        std::filesystem::remove(pidFile, ignored);
        for (auto directory = madeDirectories.rbegin(); directory != madeDirectories.rend(); ++directory) {
            rmdir(directory->c_str());
        }
    }

    void cleanUp() { container.destroyPreProcess(name); }

    /// Makes the container's control group under a controller.
    std::string makeGroup(const std::string& controller)
    {
        std::string path = "/sys/fs/cgroup/" + controller;
        for (const std::string& part : {std::string("/lxc.payload"), "/" + name}) {
            path += part;
            if (mkdir(path.c_str(), 0755) == 0) {
                madeDirectories.push_back(path);
            }
        }
        EXPECT_TRUE(std::filesystem::is_directory(path)) << path;
        return path;
    }

    static void enter(const std::string& group, const Victim& process)
    {
        writeFile(group + "/cgroup.procs", process.pidText());
    }

    const std::string name = "clean-up-" + std::to_string(getpid());
    const std::string pidFile = "/var/run/lxc/pid/" + name + ".pid";
    LogCapture log;
    Container container;

private:
    std::vector<std::string> madeDirectories;
};

} // namespace

// Pid file

TEST_F(ContainerCleanUp, NothingLeftIsNormal)
{
    cleanUp();
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(signals, IsEmpty());
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(ContainerCleanUp, KillsTheProcessOfThePidFileWithoutWaiting)
{
    Victim process;
    writeFile(pidFile, process.pidText() + "\n");
    cleanUp();
    EXPECT_TRUE(process.wasKilled());
    EXPECT_THAT(signals, ElementsAre(Pair(process.pid(), SIGKILL)));
    EXPECT_THAT(sleeps, IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerCleanUp, KillsEveryProcessOfThePidFileInItsOrder)
{
    Victim first;
    Victim second;
    Victim third;
    writeFile(pidFile, third.pidText() + " " + first.pidText() + "\n\n" + second.pidText());
    cleanUp();
    EXPECT_THAT(signals, ElementsAre(Pair(third.pid(), SIGKILL), Pair(first.pid(), SIGKILL),
                                     Pair(second.pid(), SIGKILL)));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerCleanUp, AnEndedProcessIsAWarningAndHoldsNobodyUp)
{
    pid_t ended = 0;
    {
        Victim process;
        ended = process.pid();
    }
    signals.clear();
    Victim next;
    writeFile(pidFile, std::to_string(ended) + "\n" + next.pidText() + "\n");
    cleanUp();
    EXPECT_THAT(log.texts(),
                ElementsAre("W Failed to kill signal : " + std::to_string(ended) + " - \"No such process\""));
    EXPECT_TRUE(next.wasKilled());
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(ContainerCleanUp, NeverSignalsProcessGroups)
{
    const std::vector<std::pair<std::string, std::string>> contents = {
        {"0", "0"}, {"-1", "-1"}, {"-4711", "-4711"}, {"-0", "0"}};
    for (const auto& [text, number] : contents) {
        log.clear();
        writeFile(pidFile, text + "\n");
        cleanUp();
        EXPECT_THAT(log.texts(),
                    ElementsAre("W Failed to kill signal : " + number + " - \"Invalid argument\""))
            << text;
        EXPECT_THAT(signals, IsEmpty()) << text;
    }
}

// The C library reads a long, of which an int keeps the lower half or, where both are as wide, the largest
// value.
TEST_F(ContainerCleanUp, ANumberBeyondAnIntNamesNoProcess)
{
    writeFile(pidFile, "4294967295\n");
    cleanUp();
    EXPECT_THAT(log.texts(), ElementsAre(sizeof(long) > sizeof(int)
                                             ? "W Failed to kill signal : -1 - \"Invalid argument\""
                                             : "W Failed to kill signal : 2147483647 - \"No such process\""));
    EXPECT_THAT(signals, SizeIs(sizeof(long) > sizeof(int) ? 0 : 1));
}

TEST_F(ContainerCleanUp, GoesOnAfterANumberThatIsNoProcess)
{
    Victim process;
    writeFile(pidFile, "-1\n" + process.pidText() + "\n");
    cleanUp();
    EXPECT_THAT(log.texts(), ElementsAre("W Failed to kill signal : -1 - \"Invalid argument\""));
    EXPECT_TRUE(process.wasKilled());
}

TEST_F(ContainerCleanUp, AFileWithoutNumbersIsNothing)
{
    for (const char* text : {"", "\n", "some words\n", "pid 1\n", "-\n"}) {
        writeFile(pidFile, text);
        cleanUp();
    }
    EXPECT_THAT(signals, IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerCleanUp, ReadsUpToTheFirstWord)
{
    Victim before;
    Victim after;
    writeFile(pidFile, before.pidText() + " word " + after.pidText() + "\n");
    cleanUp();
    EXPECT_THAT(signals, ElementsAre(Pair(before.pid(), SIGKILL)));
    EXPECT_TRUE(after.isAlive());
}

TEST_F(ContainerCleanUp, LeavesThePidFileInPlace)
{
    writeFile(pidFile, "\n");
    cleanUp();
    EXPECT_TRUE(std::filesystem::exists(pidFile));
}

// The path of this name's pid file is cut in the buffer, and the rest names another's.
TEST_F(ContainerCleanUp, ANameThatIsTooLongConcernsNobodyElse)
{
    Victim process;
    const std::string shorter(255 - std::string("/var/run/lxc/pid/").size(), 'z');
    const std::string another = "/var/run/lxc/pid/" + shorter;
    writeFile(another, process.pidText());
    container.destroyPreProcess(shorter + "and-more");
    EXPECT_THAT(signals, IsEmpty());
    EXPECT_TRUE(process.isAlive());
    std::filesystem::remove(another);
}

// Control groups

TEST_F(ContainerCleanUp, RemovesTheEmptyGroupsOfEveryControllerWithoutWaiting)
{
    std::vector<std::string> groups;
    for (const std::string& controller : controllers()) {
        groups.push_back(makeGroup(controller));
    }
    ASSERT_FALSE(groups.empty()) << "needs control groups of version 1";
    cleanUp();
    for (const std::string& group : groups) {
        EXPECT_FALSE(std::filesystem::exists(group)) << group;
    }
    EXPECT_THAT(signals, IsEmpty());
    EXPECT_THAT(sleeps, IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerCleanUp, KillsTheProcessesOfAGroupAndRemovesIt)
{
    const std::string group = makeGroup(controllers().at(0));
    Victim first;
    Victim second;
    enter(group, first);
    enter(group, second);
    sleepsAreSkipped = false;
    cleanUp();
    EXPECT_FALSE(std::filesystem::exists(group));
    EXPECT_TRUE(first.wasKilled());
    EXPECT_TRUE(second.wasKilled());
    EXPECT_THAT(signals,
                testing::UnorderedElementsAre(Pair(first.pid(), SIGKILL), Pair(second.pid(), SIGKILL)));
    EXPECT_THAT(sleeps, AllOf(Not(IsEmpty()), SizeIs(Lt(60U)), Each(10001U)));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerCleanUp, WaitsSixtyStepsForAGroupThatDoesNotEmptyAndLeavesItThere)
{
    const std::string group = makeGroup(controllers().at(0));
    Victim process;
    enter(group, process);
    signalsAreLost = true;
    cleanUp();
    EXPECT_EQ(sleeps.size(), 60U);
    EXPECT_THAT(sleeps, Each(10001U));
    EXPECT_THAT(log.texts(), ElementsAre("F Failed to rmdir " + group));
    EXPECT_TRUE(std::filesystem::exists(group));
    EXPECT_TRUE(process.isAlive());

    log.clear();
    signalsAreLost = false;
    ASSERT_EQ(kill(process.pid(), SIGKILL), 0);
    EXPECT_TRUE(process.wasKilled());
    cleanUp();
    EXPECT_FALSE(std::filesystem::exists(group)) << "the next clean-up tries again";
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerCleanUp, KillsThroughTheFirstGroupThatExistsOnlyAndRemovesTheOthers)
{
    ASSERT_GE(controllers().size(), 4U);
    const std::string first = makeGroup(controllers()[1]);
    const std::string second = makeGroup(controllers()[2]);
    const std::string third = makeGroup(controllers()[3]);
    Victim inSecond;
    enter(second, inSecond);
    cleanUp();
    EXPECT_THAT(signals, IsEmpty());
    EXPECT_TRUE(inSecond.isAlive());
    EXPECT_THAT(log.texts(), ElementsAre("F Failed to rmdir " + second));
    EXPECT_FALSE(std::filesystem::exists(first));
    EXPECT_FALSE(std::filesystem::exists(third));

    ASSERT_EQ(kill(inSecond.pid(), SIGKILL), 0);
    EXPECT_TRUE(inSecond.wasKilled());
}

TEST_F(ContainerCleanUp, RemovesTheGroupsInTheOrderOfTheList)
{
    std::vector<std::string> expected;
    std::vector<std::string> children;
    for (const std::string& controller : controllers()) {
        const std::string group = makeGroup(controller);
        children.push_back(group + "/child");
        ASSERT_EQ(mkdir(children.back().c_str(), 0755), 0);
        expected.push_back("F Failed to rmdir " + group);
    }
    cleanUp();
    EXPECT_THAT(log.texts(), testing::ElementsAreArray(expected));
    for (const std::string& child : children) {
        EXPECT_EQ(rmdir(child.c_str()), 0);
    }
}

TEST_F(ContainerCleanUp, NamedHierarchiesAreNotItsBusiness)
{
    const std::string directory = "/sys/fs/cgroup/name=systemd/lxc.payload/" + name;
    std::filesystem::create_directories(directory);
    cleanUp();
    EXPECT_TRUE(std::filesystem::exists(directory));
    std::filesystem::remove_all("/sys/fs/cgroup/name=systemd");
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ContainerCleanUp, TheGroupsOfOtherContainersStay)
{
    const std::string other = "/sys/fs/cgroup/" + controllers().at(0) + "/lxc.payload/" + name + "-other";
    static_cast<void>(makeGroup(controllers().at(0)));
    ASSERT_EQ(mkdir(other.c_str(), 0755), 0);
    cleanUp();
    EXPECT_TRUE(std::filesystem::exists(other));
    EXPECT_EQ(rmdir(other.c_str()), 0);
}
