#include "Device/ZoneLife.h"

#include "MachineTree.h"

#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

constexpr const char* MONITOR_OF_RED = "[lxc monitor] /var/lib/lxc red";

/// A machine on which the container "red" runs: monitor 17, init 18, and a further process 19.
class ZoneLifeTest : public testing::Test
{
protected:
    void run(pid_t monitor = 17, const std::string& title = MONITOR_OF_RED) const
    {
        tree.addProcess({.pid = 17, .title = title});
        tree.addProcess({.pid = 18, .parent = monitor, .namespaceInit = true});
        tree.addProcess({.pid = 19, .parent = 18});
        tree.addGroup("cpu", "lxc.payload/red", {19, 18});
        tree.addGroup("freezer", "lxc.payload/red", {19, 18});
    }
    void freezer(const std::string& word) const
    {
        tree.write("/sys/fs/cgroup/freezer/lxc.payload/red/freezer.state", word + "\n");
    }
    [[nodiscard]] ZoneLife lifeOf(const std::string& name) const
    {
        const Machine machine(tree.root());
        return LifeTable(machine, "/var/lib/lxc").of(name);
    }

    const MachineTree tree;
};

} // namespace

TEST_F(ZoneLifeTest, AContainerThatRuns)
{
    run();
    EXPECT_EQ(lifeOf("red").state, "RUNNING");
    EXPECT_EQ(lifeOf("red").initPid, 18);
    EXPECT_EQ(lifeOf("re").state, "STOPPED");
    EXPECT_EQ(lifeOf("blue").initPid, 0);
}

TEST_F(ZoneLifeTest, TheFreezerTellsTheState)
{
    run();
    for (const char* word : {"FROZEN", "FREEZING"}) {
        freezer(word);
        EXPECT_EQ(lifeOf("red").state, word);
    }
    freezer("THAWED");
    EXPECT_EQ(lifeOf("red").state, "RUNNING");
}

TEST_F(ZoneLifeTest, TheFreezerOfVersionTwo)
{
    run();
    tree.addGroup("unified", "lxc.payload/red", {18});
    tree.write("/sys/fs/cgroup/unified/lxc.payload/red/cgroup.freeze", "1\n");
    tree.write("/sys/fs/cgroup/unified/lxc.payload/red/cgroup.events", "populated 1\nfrozen 1\n");
    EXPECT_EQ(lifeOf("red").state, "FROZEN");
}

TEST_F(ZoneLifeTest, AMonitorWithoutAnInitIsOnItsWay)
{
    tree.addProcess({.pid = 17, .title = MONITOR_OF_RED});
    EXPECT_EQ(lifeOf("red").state, "");
    EXPECT_EQ(lifeOf("red").initPid, 0);
}

TEST_F(ZoneLifeTest, AContainerInTheForegroundRuns)
{
    run(17, "lxc-start -F red");
    EXPECT_EQ(lifeOf("red").initPid, 18);
}

TEST_F(ZoneLifeTest, AnInitThatHasLostItsMonitorDoesNotRunForLxc)
{
    run(1, "another program");
    EXPECT_EQ(lifeOf("red").state, "STOPPED");
}

TEST_F(ZoneLifeTest, AContainerOfAnotherPathIsAnotherOne)
{
    run(17, "[lxc monitor] /home/others red");
    tree.addProcess({.pid = 27, .title = MONITOR_OF_RED});
    tree.addProcess({.pid = 28, .parent = 27, .namespaceInit = true});
    tree.addGroup("cpu", "lxc.payload/red-1", {28});
    EXPECT_EQ(lifeOf("red").initPid, 28);
}

TEST_F(ZoneLifeTest, AnInitThatIsDeadIsNone)
{
    tree.addProcess({.pid = 17, .title = MONITOR_OF_RED});
    tree.addProcess({.pid = 18, .parent = 17, .state = 'Z', .namespaceInit = true});
    tree.addGroup("cpu", "lxc.payload/red", {18});
    EXPECT_EQ(lifeOf("red").initPid, 0);
}
