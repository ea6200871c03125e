#include "Device/ControlGroups.h"

#include "TemporaryTree.h"

#include <gtest/gtest.h>

using namespace Zonectl;

TEST(CgroupMounts, UndoesTheEscapesOfTheMountTable)
{
    const TemporaryTree tree;
    tree.write("/proc/self/mounts", "cgroup /sys/fs/cgroup/a\\040b\\134 cgroup rw 0 0\n"
                                    "proc /proc proc rw 0 0\n"
                                    "cgroup /sys/fs/cgroup/c\\04 cgroup rw 0 0\n"
                                    "other /sys/fs/cgroup/c\\04 cgroup2 rw 0 0\n"
                                    "garbage\n");
    EXPECT_EQ(cgroupMounts(Machine(tree.root())),
              (std::vector<std::string>{"/sys/fs/cgroup/a b\\", "/sys/fs/cgroup/c\\04"}));
}

TEST(WithoutCopyNumber, TakesOneNumberAway)
{
    EXPECT_EQ(withoutCopyNumber("red-1"), "red");
    EXPECT_EQ(withoutCopyNumber("red-1-27"), "red-1");
    for (const char* whole : {"red", "red-", "-1", "red1", "17", "", "red-1a"}) {
        EXPECT_EQ(withoutCopyNumber(whole), whole);
    }
}
