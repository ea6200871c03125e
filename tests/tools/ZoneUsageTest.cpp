#include "Watch/ZoneUsage.h"

#include "MachineTree.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Zonectl;

namespace {

constexpr const char* LXC_PATH = "/var/lib/lxc";
constexpr const char* V1 = "/sys/fs/cgroup/cpu/";
constexpr const char* FREEZER = "/sys/fs/cgroup/freezer/";
constexpr const char* V2 = "/sys/fs/cgroup/unified/";

/// A machine with a container whose configuration names its control group.
class ZoneUsageTest : public testing::Test
{
protected:
    ZoneUsageTest()
    {
        tree.write("/proc/uptime", "1000.55 1900.10\n");
        configure("red", "lxc.cgroup.dir.container = lxc.payload/red\n");
    }

    void configure(const std::string& name, const std::string& line) const
    {
        tree.write("/var/lib/lxc/" + name + "/config", "lxc.rootfs.path = /r\n" + line);
    }

    [[nodiscard]] ZoneUsage usage(const std::string& name = "red") const
    {
        return usageOf(Machine(tree.root()), LXC_PATH, name);
    }

    MachineTree tree;
};

} // namespace

TEST_F(ZoneUsageTest, OfAZoneThatDoesNotRun)
{
    const ZoneUsage found = usage();
    EXPECT_EQ(found.state, "STOPPED");
    EXPECT_FALSE(found.processorTime || found.memoryBytes || found.processes || found.uptimeSeconds);
}

TEST_F(ZoneUsageTest, ByHierarchiesOfVersionOne)
{
    tree.addGroup("cpu", "lxc.payload/red", {100});
    tree.addGroup("cpu", "lxc.payload/red/inner", {101, 102});
    tree.addGroup("freezer", "lxc.payload/red", {100});
    tree.write(V1 + std::string("lxc.payload/red/cpuacct.usage"), "2500000999\n");
    tree.write(V1 + std::string("lxc.payload/red/cpu.stat"), "nr_periods 7\nnr_throttled 0\n");
    tree.write(V1 + std::string("lxc.payload/red/memory.usage_in_bytes"), "4096\n");
    const ZoneUsage found = usage();
    EXPECT_EQ(found.state, "RUNNING");
    EXPECT_EQ(found.processorTime, 2500000);
    EXPECT_EQ(found.memoryBytes, 4096);
    EXPECT_EQ(found.processes, 3);
}

TEST_F(ZoneUsageTest, ByTheHierarchyOfVersionTwo)
{
    tree.addGroup("unified", "lxc.payload/red", {100});
    tree.write(V2 + std::string("lxc.payload/red/cpu.stat"), "usage_usec 77\nuser_usec 70\n");
    tree.write(V2 + std::string("lxc.payload/red/memory.current"), "8192\n");
    const ZoneUsage found = usage();
    EXPECT_EQ(found.processorTime, 77);
    EXPECT_EQ(found.memoryBytes, 8192);
    EXPECT_EQ(found.processes, 1);
}

TEST_F(ZoneUsageTest, AThreadedGroupTellsItsTasks)
{
    tree.write(V2 + std::string("lxc.payload/red/pids.current"), "12\n");
    const ZoneUsage found = usage();
    EXPECT_EQ(found.state, "RUNNING");
    EXPECT_EQ(found.processes, 12);
}

TEST_F(ZoneUsageTest, TheUptimeIsThatOfTheFirstProcess)
{
    const auto second = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    tree.addGroup("cpu", "lxc.payload/red", {100, 200, 300});
    tree.addProcess({.pid = 200, .startTicks = 400 * second});
    tree.addProcess({.pid = 100, .startTicks = 900 * second});
    EXPECT_EQ(usage().uptimeSeconds, 600);
}

TEST_F(ZoneUsageTest, TheFreezerTellsTheState)
{
    tree.addGroup("cpu", "lxc.payload/red", {100});
    tree.addGroup("freezer", "lxc.payload/red", {100});
    tree.write(FREEZER + std::string("lxc.payload/red/freezer.state"), "FREEZING\n");
    EXPECT_EQ(usage().state, "FREEZING");
    tree.write(FREEZER + std::string("lxc.payload/red/freezer.state"), "FROZEN\n");
    EXPECT_EQ(usage().state, "FROZEN");
    tree.write(FREEZER + std::string("lxc.payload/red/freezer.state"), "THAWED\n");
    EXPECT_EQ(usage().state, "RUNNING");
}

TEST_F(ZoneUsageTest, AnEmptyGroupIsNoZoneThatRuns)
{
    tree.addGroup("cpu", "lxc.payload/red", {});
    EXPECT_EQ(usage().state, "STOPPED");
    EXPECT_EQ(usage().processes, 0);
}

TEST_F(ZoneUsageTest, WithoutAConfiguredGroupThoseOfLxcsOwnNamingAreFound)
{
    configure("blue", "");
    tree.addGroup("unified", "lxc.payload.blue", {});
    tree.addGroup("unified", "lxc.payload.blue-1", {100});
    tree.write(V2 + std::string("lxc.payload.blue-1/memory.current"), "5\n");
    EXPECT_EQ(usage("blue").memoryBytes, 5);
    EXPECT_EQ(usage("blue").state, "RUNNING");
    EXPECT_EQ(usage("red").state, "STOPPED");
    // It may be the group of another container, whose name ends like a copy's.
    configure("blue-1", "");
    EXPECT_EQ(usage("blue").state, "STOPPED");
    EXPECT_EQ(usage("blue-1").state, "RUNNING");
}

TEST_F(ZoneUsageTest, TheFormWithASlashIsFoundToo)
{
    configure("blue", "");
    tree.addGroup("cpu", "lxc.payload/blue", {100});
    EXPECT_EQ(usage("blue").state, "RUNNING");
}

TEST_F(ZoneUsageTest, AConfiguredGroupIsTheOnlyOne)
{
    tree.addGroup("cpu", "lxc.payload.red", {100});
    EXPECT_EQ(usage().state, "STOPPED");
    configure("red", "lxc.cgroup.dir.container = my/zones\n");
    tree.addGroup("cpu", "my/zones", {100});
    EXPECT_EQ(usage().state, "RUNNING");
}
