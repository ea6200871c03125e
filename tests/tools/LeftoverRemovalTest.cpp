#include "Leftovers/LeftoverRemoval.h"

#include "Device/ProcessTable.h"
#include "TemporaryTree.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Zonectl;

namespace {

/// A child that does nothing until it is killed.
class Child
{
public:
    Child() : number(fork())
    {
        if (number == 0) {
            for (;;) {
                pause();
            }
        }
    }
    ~Child() { static_cast<void>(end()); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    [[nodiscard]] Leftover asLeftover() const
    {
        const auto process = readProcess(Machine(""), number);
        return {.kind = LeftoverKind::Init, .pid = number, .startTicks = process->startTicks};
    }
    /// Whether the child still runs; a dead one that nobody has waited for does not.
    [[nodiscard]] bool running() const
    {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(number), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }
    /// Ends it, if it runs, and tells the signal that did.
    int end()
    {
        if (number > 0) {
            int status = 0;
            kill(number, SIGTERM);
            waitpid(number, &status, 0);
            number = -1;
            endedBy = WTERMSIG(status);
        }
        return endedBy;
    }

private:
    pid_t number;
    int endedBy = 0;
};

[[nodiscard]] std::string textOf(const std::string& path)
{
    return Machine("").read(path).value_or("(none)");
}

} // namespace

TEST(RemoveLeftover, KillsTheProcessThatWasFound)
{
    Child child;
    EXPECT_EQ(removeLeftover(child.asLeftover()), "");
    EXPECT_FALSE(child.running());
    EXPECT_EQ(child.end(), SIGKILL);
}

TEST(RemoveLeftover, SparesAProcessThatGotTheNumberLater)
{
    Child child;
    Leftover leftover = child.asLeftover();
    ++leftover.startTicks;
    EXPECT_EQ(removeLeftover(leftover), "");
    EXPECT_TRUE(child.running());
    EXPECT_EQ(child.end(), SIGTERM);
}

TEST(RemoveLeftover, SparesWhatIsOnlyNamed)
{
    Child child;
    Leftover leftover = child.asLeftover();
    leftover.removable = false;
    EXPECT_NE(removeLeftover(leftover), "");
    leftover.removable = true;
    leftover.harmless = true;
    EXPECT_NE(removeLeftover(leftover), "");
    EXPECT_TRUE(child.running());
}

TEST(RemoveLeftover, ThawsWithTheKill)
{
    const TemporaryTree tree;
    tree.write("/freezer.state", "");
    const Child child;
    Leftover leftover = child.asLeftover();
    leftover.thaws = {{tree.root() + "/freezer.state", "THAWED"}};
    EXPECT_EQ(removeLeftover(leftover), "");
    EXPECT_EQ(textOf(tree.root() + "/freezer.state"), "THAWED");
}

TEST(RemoveLeftover, RemovesControlGroupsFromTheLeavesUp)
{
    const TemporaryTree tree;
    tree.makeDirectory("/cpu/red/deep/deeper");
    tree.makeDirectory("/memory/red");
    const Leftover leftover{.kind = LeftoverKind::ControlGroup,
                            .paths = {tree.root() + "/cpu/red", tree.root() + "/memory/red"}};
    EXPECT_EQ(removeLeftover(leftover), "");
    EXPECT_FALSE(std::filesystem::exists(tree.root() + "/cpu/red"));
    EXPECT_FALSE(std::filesystem::exists(tree.root() + "/memory/red"));
    EXPECT_TRUE(std::filesystem::exists(tree.root() + "/cpu"));
    EXPECT_EQ(removeLeftover(leftover), "") << "gone by itself is as good";
}

TEST(RemoveLeftover, TouchesNothingOfAGroupWithProcesses)
{
    const TemporaryTree tree;
    tree.makeDirectory("/cpu/red/empty");
    const Leftover leftover{.kind = LeftoverKind::ControlGroup,
                            .container{},
                            .paths = {tree.root() + "/cpu/red"},
                            .populated = true};
    EXPECT_NE(removeLeftover(leftover), "");
    EXPECT_TRUE(std::filesystem::exists(tree.root() + "/cpu/red/empty"));
}

TEST(RemoveLeftover, LooksAtTheProcessesOfAGroupOnceMore)
{
    const TemporaryTree tree;
    tree.makeDirectory("/cpu/red/empty");
    tree.write("/memory/red/below/cgroup.procs", "4711\n");
    const Leftover leftover{.kind = LeftoverKind::ControlGroup,
                            .paths = {tree.root() + "/cpu/red", tree.root() + "/memory/red"}};
    EXPECT_EQ(removeLeftover(leftover), tree.root() + "/*/red: there are still processes in it");
    EXPECT_TRUE(std::filesystem::exists(tree.root() + "/cpu/red/empty")) << "which the container is to use";
}

TEST(RemoveLeftover, TellsWhatCouldNotBeRemoved)
{
    const TemporaryTree tree;
    tree.write("/cpu/red/file", "");
    tree.makeDirectory("/memory/red");
    const Leftover leftover{.kind = LeftoverKind::ControlGroup,
                            .paths = {tree.root() + "/cpu/red", tree.root() + "/memory/red"}};
    EXPECT_EQ(removeLeftover(leftover), tree.root() + "/cpu/red: Directory not empty");
    EXPECT_FALSE(std::filesystem::exists(tree.root() + "/memory/red")) << "the others go all the same";
}

TEST(RemoveLeftover, RemovesAPidFile)
{
    const TemporaryTree tree;
    tree.write("/red.pid", "");
    const Leftover leftover{.kind = LeftoverKind::PidFile, .paths = {tree.root() + "/red.pid"}};
    EXPECT_EQ(removeLeftover(leftover), "");
    EXPECT_FALSE(std::filesystem::exists(tree.root() + "/red.pid"));
    EXPECT_EQ(removeLeftover(leftover), "") << "gone by itself is as good";
}

TEST(RemoveLeftover, SparesThePidFileOfAContainerThatHasJustStarted)
{
    const TemporaryTree tree;
    const Child child;
    tree.write("/red.pid", std::to_string(child.asLeftover().pid) + "\n");
    const Leftover leftover{.kind = LeftoverKind::PidFile, .paths = {tree.root() + "/red.pid"}};
    EXPECT_EQ(removeLeftover(leftover), tree.root() + "/red.pid: names a process that lives by now");
    EXPECT_TRUE(std::filesystem::exists(tree.root() + "/red.pid"));
}

TEST(RemoveLeftover, ThawsAGroup)
{
    const TemporaryTree tree;
    tree.write("/cgroup.freeze", "");
    Leftover leftover{.kind = LeftoverKind::Frozen, .thaws = {{tree.root() + "/cgroup.freeze", "0"}}};
    EXPECT_EQ(removeLeftover(leftover), "");
    EXPECT_EQ(textOf(tree.root() + "/cgroup.freeze"), "0");
    leftover.thaws = {{tree.root() + "/missing", "0"}};
    EXPECT_EQ(removeLeftover(leftover), tree.root() + "/missing: No such file or directory");
}

TEST(RemoveLeftover, LeavesLocksAlone)
{
    const TemporaryTree tree;
    tree.write("/lock", "");
    for (const LeftoverKind kind : {LeftoverKind::MonitorFifo, LeftoverKind::InstanceLock}) {
        EXPECT_NE(removeLeftover({.kind = kind, .paths = {tree.root() + "/lock"}}), "");
        EXPECT_TRUE(std::filesystem::exists(tree.root() + "/lock"));
    }
}
