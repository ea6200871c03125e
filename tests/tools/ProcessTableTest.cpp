#include "Device/ProcessTable.h"

#include "MachineTree.h"

#include <gtest/gtest.h>
#include <unistd.h>

using namespace Zonectl;

TEST(ProcessTable, ReadsWhatMattersOfAProcess)
{
    const MachineTree tree;
    tree.addProcess({.pid = 17, .parent = 4, .state = 'D', .namespaceInit = true, .title = "a title"});
    tree.write("/proc/self/stat", "not a number");
    const ProcessTable processes(Machine(tree.root()));
    const ProcessInfo* process = processes.find(17);
    ASSERT_NE(process, nullptr);
    EXPECT_EQ(process->pid, 17);
    EXPECT_EQ(process->parent, 4);
    EXPECT_EQ(process->state, 'D');
    EXPECT_EQ(process->startTicks, MachineTree::START_TICKS);
    EXPECT_TRUE(process->namespaceInit);
    EXPECT_EQ(process->title, "a title");
    EXPECT_EQ(processes.startTime(*process),
              MachineTree::BOOT_TIME +
                  static_cast<std::int64_t>(MachineTree::START_TICKS) / sysconf(_SC_CLK_TCK));
    EXPECT_EQ(processes.find(18), nullptr);
}

TEST(ProcessTable, AStoppedProcessIsNotDead)
{
    const MachineTree tree;
    tree.addProcess({.pid = 17, .state = 'T'});
    tree.addProcess({.pid = 18, .state = 'Z'});
    const ProcessTable processes(Machine(tree.root()));
    EXPECT_TRUE(processes.find(17)->stopped());
    EXPECT_FALSE(processes.find(17)->dead());
    EXPECT_FALSE(processes.find(18)->stopped());
}

TEST(ProcessTable, TheMachinesFirstProcessIsNoInitOfAContainer)
{
    const MachineTree tree;
    tree.addProcess({.pid = 1, .parent = 0});
    EXPECT_FALSE(ProcessTable(Machine(tree.root())).find(1)->namespaceInit);
}

TEST(ProcessTable, WhatIsCutShortIsNoProcess)
{
    for (const char* text : {"", "17", "17 (name", "17 (name) S 1 2 3"}) {
        const MachineTree tree;
        tree.write("/proc/17/stat", text);
        EXPECT_FALSE(readProcess(Machine(tree.root()), 17)) << text;
    }
}

TEST(ProcessTable, AMonitorIsKnownByItsTitle)
{
    const MachineTree tree;
    tree.addProcess({.pid = 17, .title = "[lxc monitor] /var/lib/lxc red"});
    tree.addProcess({.pid = 18, .state = 'Z', .title = "[lxc monitor] /var/lib/lxc dead"});
    tree.addProcess({.pid = 19, .title = "lxc-info -n blue"});
    const ProcessTable processes(Machine(tree.root()));
    EXPECT_TRUE(processes.hasMonitorOf("red"));
    EXPECT_EQ(processes.monitorOf("/var/lib/lxc", "red")->pid, 17);
    EXPECT_EQ(processes.monitorOf("/home/others", "red"), nullptr);
    EXPECT_EQ(processes.monitorOf("/var/lib/lxc", "dead"), nullptr);
    for (const char* name : {"dead", "blue", "ed", "lxc red ", "lxc"}) {
        EXPECT_FALSE(processes.hasMonitorOf(name)) << name;
    }
}
