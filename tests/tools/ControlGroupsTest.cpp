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

TEST(NestedHierarchies, AreThoseInWhichProcessOneIsNotAtTheTop)
{
    const TemporaryTree tree;
    tree.write("/proc/self/mountinfo", "31 23 0:28 / /sys/fs/cgroup rw - tmpfs tmpfs rw,mode=755\n"
                                       "32 31 0:29 / /c/cpu,cpuacct rw shared:1 x - cgroup c rw,cpu,cpuacct\n"
                                       "33 31 0:30 / /c/memory rw - cgroup c rw,memory\n"
                                       "34 31 0:31 /box /c/free\\040zer rw - cgroup c rw,freezer\n"
                                       "35 31 0:32 /box /c/pids rw - cgroup c rw,pids\n"
                                       "36 31 0:33 /box /c/devices rw - cgroup c rw,devices\n"
                                       "37 31 0:34 / /c/systemd rw - cgroup c rw,xattr,name=systemd\n"
                                       "38 31 0:35 / /c/unified rw - cgroup2 c rw\n"
                                       "garbage\n");
    tree.write("/proc/1/cgroup", "9:cpu,cpuacct:/a:b\n8:memory:/init.scope\n7:freezer:/box/in/init.scope\n"
                                 "6:pids:/box\n5:devices:/../boxes\n4:blkio:/not/mounted\n"
                                 "1:name=systemd:/scope\n0::/unit\n");
    std::vector<std::string> found;
    for (const NestedHierarchy& hierarchy : nestedHierarchies(Machine(tree.root()))) {
        found.push_back(hierarchy.controllers + " " + hierarchy.mount + " " + hierarchy.group);
    }
    EXPECT_EQ(found, (std::vector<std::string>{"cpu,cpuacct /c/cpu,cpuacct /c/cpu,cpuacct/a:b",
                                               "freezer /c/free zer /c/free zer/in",
                                               "name=systemd /c/systemd /c/systemd/scope",
                                               " /c/unified /c/unified/unit"}));
}

TEST(WithoutCopyNumber, TakesOneNumberAway)
{
    EXPECT_EQ(withoutCopyNumber("red-1"), "red");
    EXPECT_EQ(withoutCopyNumber("red-1-27"), "red-1");
    for (const char* whole : {"red", "red-", "-1", "red1", "17", "", "red-1a"}) {
        EXPECT_EQ(withoutCopyNumber(whole), whole);
    }
}
