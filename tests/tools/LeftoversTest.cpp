#include "Leftovers/Leftovers.h"

#include "MachineTree.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

constexpr pid_t INIT = 4712;
constexpr pid_t MONITOR = 4711;
constexpr std::chrono::milliseconds AT_ONCE(0);

[[nodiscard]] std::vector<Leftover> search(const MachineTree& tree)
{
    const Machine machine(tree.root());
    return findLeftovers(machine, listFromFiles(machine), AT_ONCE);
}

/// The one leftover of the machine; the test fails when there is another number of them.
[[nodiscard]] Leftover onlyOne(const MachineTree& tree)
{
    const std::vector<Leftover> found = search(tree);
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? Leftover{} : found.front();
}

/// The container "red" with an init that has lost its monitor process.
void addOrphan(const MachineTree& tree, pid_t parent = 1)
{
    tree.addContainer("red");
    tree.addProcess({.pid = INIT, .parent = parent, .namespaceInit = true, .rootOf = "red"});
    tree.addGroup("cpu", "lxc.payload/red", {INIT});
    tree.addGroup("freezer", "lxc.payload/red", {INIT});
}

} // namespace

TEST(Leftovers, NothingOnAnEmptyMachine)
{
    const MachineTree tree;
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, AnInitWithoutAMonitor)
{
    const MachineTree tree;
    addOrphan(tree);
    const std::vector<Leftover> found = search(tree);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].kind, LeftoverKind::Init);
    EXPECT_EQ(found[0].container, "red");
    EXPECT_EQ(found[0].pid, INIT);
    EXPECT_EQ(found[0].startTicks, MachineTree::START_TICKS);
    EXPECT_TRUE(found[0].removable);
    EXPECT_EQ(found[1].kind, LeftoverKind::ControlGroup);
    EXPECT_TRUE(found[1].populated);
}

TEST(Leftovers, AContainerInsideDoesNotSaveTheOneAround)
{
    const MachineTree tree;
    addOrphan(tree);
    tree.addProcess({.pid = INIT + 1, .parent = INIT});
    tree.addProcess({.pid = INIT + 2, .parent = INIT + 1, .namespaceInit = true});
    tree.addGroup("cpu", "lxc.payload/red/lxc.payload/inner", {INIT + 1, INIT + 2});
    const std::vector<Leftover> found = search(tree);
    ASSERT_EQ(found.size(), 2U) << "the init inside ends with the one around it";
    EXPECT_EQ(found[0].pid, INIT);
}

TEST(Leftovers, OnlyTheFirstProcessOfANamespaceIsAnInit)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addProcess({.pid = INIT, .parent = 1, .namespaceInit = false, .rootOf = "red"});
    tree.addGroup("cpu", "lxc.payload/red", {INIT});
    EXPECT_EQ(onlyOne(tree).kind, LeftoverKind::ControlGroup);
}

TEST(Leftovers, AnInitThatIsDeadAlreadyIsNone)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addProcess({.pid = INIT, .parent = 1, .state = 'Z', .namespaceInit = true, .rootOf = "red"});
    tree.addGroup("cpu", "lxc.payload/red", {INIT});
    for (const Leftover& leftover : search(tree)) {
        EXPECT_NE(leftover.kind, LeftoverKind::Init);
    }
}

TEST(Leftovers, ATitleOfAMonitorSavesTheContainer)
{
    const MachineTree tree;
    addOrphan(tree);
    tree.addProcess({.pid = MONITOR, .title = "[lxc monitor] /var/lib/lxc red"});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, AMonitorBelowAnotherPathSavesItToo)
{
    const MachineTree tree;
    addOrphan(tree);
    tree.addProcess({.pid = MONITOR, .title = "[lxc monitor] /home/me/my containers red"});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, AMonitorOfAnotherContainerSavesNothing)
{
    const MachineTree tree;
    addOrphan(tree);
    tree.addProcess({.pid = MONITOR, .title = "[lxc monitor] /var/lib/lxc infrared"});
    EXPECT_EQ(search(tree).size(), 2U);
}

TEST(Leftovers, ACommandSocketSavesTheContainer)
{
    const MachineTree tree;
    addOrphan(tree);
    tree.write("/proc/net/unix",
               "Num RefCount Protocol Flags Type St Inode Path\n"
               "00000000: 00000002 00000000 00010000 0001 01 138 @/var/lib/lxc/red/command\n");
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, AProcessInTheMonitorsGroupSavesTheContainer)
{
    const MachineTree tree;
    addOrphan(tree);
    tree.addProcess({.pid = MONITOR, .title = "lxc-start"});
    tree.addGroup("cpu", "lxc.monitor/red", {MONITOR});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, AParentSavesTheContainer)
{
    const MachineTree tree;
    addOrphan(tree, MONITOR);
    tree.addGroup("cpu", "lxc.monitor/red", {});
    EXPECT_TRUE(search(tree).empty()) << "a monitor in the foreground has neither title nor group";
}

TEST(Leftovers, AnInitOfAnotherRootFileSystemIsSomebodyElses)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addContainer("blue");
    tree.addProcess({.pid = INIT, .parent = 1, .namespaceInit = true, .rootOf = "blue"});
    tree.addGroup("cpu", "lxc.payload/red", {INIT});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, AnInitWhoseRootCannotBeComparedIsOnlyNamed)
{
    const MachineTree tree;
    addOrphan(tree);
    tree.write("/var/lib/lxc/red/config", "lxc.rootfs.path = loop:/images/red.img\n");
    const std::vector<Leftover> found = search(tree);
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found[0].kind, LeftoverKind::Init);
    EXPECT_FALSE(found[0].removable);
}

TEST(Leftovers, ProcessesOfAnUndefinedContainerAreSomebodyElses)
{
    const MachineTree tree;
    tree.addProcess({.pid = INIT, .parent = 1, .namespaceInit = true});
    tree.addGroup("cpu", "lxc.payload/foreign", {INIT});
    tree.addGroup("freezer", "lxc.payload/foreign", {});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, EmptyGroupsOfAllHierarchiesAreOneLeftover)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addGroup("cpu", "lxc.payload/red", {});
    tree.addGroup("unified", "lxc.payload/red", {});
    tree.addGroup("unified", "lxc.payload/red/below", {});
    const Leftover leftover = onlyOne(tree);
    EXPECT_EQ(leftover.kind, LeftoverKind::ControlGroup);
    EXPECT_FALSE(leftover.populated);
    EXPECT_EQ(leftover.paths, (std::vector<std::string>{"/sys/fs/cgroup/cpu/lxc.payload/red",
                                                        "/sys/fs/cgroup/unified/lxc.payload/red"}));
    EXPECT_EQ(placeOf(leftover), "/sys/fs/cgroup/*/lxc.payload/red");
}

TEST(Leftovers, TheGroupsBelowThatOfProcessOneCountToo)
{
    const MachineTree tree;
    tree.write("/proc/self/mountinfo", "32 31 0:29 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu\n");
    tree.write("/proc/1/cgroup", "1:cpu:/inner\n");
    tree.addGroup("cpu", "inner/lxc.payload/red", {});
    tree.addGroup("freezer", "lxc.payload/red", {});
    EXPECT_EQ(onlyOne(tree).paths, (std::vector<std::string>{"/sys/fs/cgroup/freezer/lxc.payload/red",
                                                             "/sys/fs/cgroup/cpu/inner/lxc.payload/red"}));
}

TEST(Leftovers, EveryFormOfAGroupCounts)
{
    for (const char* form : {"lxc.payload/red", "lxc.monitor/red", "lxc.payload.red", "lxc.monitor.red",
                             "lxc.payload.red-1", "lxc.monitor/red-27"}) {
        const MachineTree tree;
        tree.addContainer("red");
        tree.addGroup("cpu", form, {});
        EXPECT_EQ(onlyOne(tree).container, "red") << form;
    }
}

TEST(Leftovers, OtherGroupsDoNot)
{
    for (const char* form : {"lxc.pivot/lxc.pivot", "lxc.payload", "lxc/red", "red", "zone/lxc.payload.red",
                             "lxc.payloads.red"}) {
        const MachineTree tree;
        tree.addContainer("red");
        tree.addGroup("cpu", form, {});
        EXPECT_TRUE(search(tree).empty()) << form;
    }
}

TEST(Leftovers, AnEmptyGroupNeedsNoDefinedContainer)
{
    const MachineTree tree;
    tree.addGroup("cpu", "lxc.payload.gone", {});
    EXPECT_EQ(onlyOne(tree).container, "gone");
}

TEST(Leftovers, AGroupWithAProcessFurtherDownIsNotEmpty)
{
    const MachineTree tree;
    tree.addGroup("cpu", "lxc.payload.foreign/below/deep", {INIT});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, AGroupWhoseProcessesCannotBeReadIsNotEmpty)
{
    const MachineTree tree;
    tree.addGroup("cpu", "lxc.payload.foreign", {});
    const std::string list = "/sys/fs/cgroup/cpu/lxc.payload.foreign/cgroup.procs";
    std::filesystem::remove(tree.root() + list);
    EXPECT_TRUE(search(tree).empty());
    tree.makeDirectory(list); // can be opened, and not be read
    tree.write(list + "/cgroup.procs", "");
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, ACopyIsLeftAloneWhileItsOriginalRuns)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addProcess({.pid = MONITOR, .title = "[lxc monitor] /var/lib/lxc red"});
    tree.addGroup("cpu", "lxc.payload.red", {});
    tree.addGroup("cpu", "lxc.payload.red-1", {});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, ANumberedContainerDoesNotDependOnItsNamesake)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addContainer("red-1");
    tree.addProcess({.pid = MONITOR, .title = "[lxc monitor] /var/lib/lxc red"});
    tree.addGroup("cpu", "lxc.payload/red-1", {});
    EXPECT_EQ(onlyOne(tree).container, "red-1");
    tree.addGroup("cpu", "lxc.monitor/red-1", {MONITOR});
    EXPECT_TRUE(search(tree).empty());
}

TEST(Leftovers, RemediesAreWordsOfTheShell)
{
    const MachineTree tree;
    tree.addContainer("x;id");
    tree.addProcess({.pid = INIT, .rootOf = "x;id"});
    tree.addGroup("cpu", "lxc.payload/x;id", {INIT});
    tree.addGroup("freezer", "lxc.payload/x;id", {INIT});
    tree.write("/sys/fs/cgroup/freezer/lxc.payload/x;id/freezer.state", "FROZEN");
    tree.write("/sys/fs/cgroup/freezer/lxc.payload/x;id/freezer.self_freezing", "1");
    tree.write("/run/lxc/pid/x;id.pid", "99999");
    std::vector<std::string> remedies;
    for (const Leftover& leftover : search(tree)) {
        remedies.push_back(leftover.remedy);
    }
    EXPECT_EQ(remedies, (std::vector<std::string>{
                            "echo THAWED > '/sys/fs/cgroup/freezer/lxc.payload/x;id/freezer.state'",
                            "find /sys/fs/cgroup/*'/lxc.payload/x;id' -depth -type d -exec rmdir {} \\;",
                            "rm '/run/lxc/pid/x;id.pid'"}));
}

TEST(Leftovers, PathsWithoutACommonShapeAreNamedOneByOne)
{
    const Leftover leftover{
        .paths = {"/sys/fs/cgroup/lxc.payload/red", "/sys/fs/cgroup/cpu/lxc.payload/red"}};
    EXPECT_EQ(placeOf(leftover), "/sys/fs/cgroup/lxc.payload/red /sys/fs/cgroup/cpu/lxc.payload/red");
    EXPECT_EQ(placeOf({.paths = {"/a b"}}), "'/a b'");
    EXPECT_EQ(placeOf({.paths = {"/a b", "/c"}}), "'/a b' /c");
}
