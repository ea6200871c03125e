#include "AnotherUser.h"
#include "Daemon/ZoneWords.h"
#include "Device/Containers.h"
#include "TemporaryTree.h"

#include <gtest/gtest.h>

using namespace Zonectl;

TEST(ParseConfig, TakesKeysAndValuesWithoutBlanks)
{
    const std::vector<ConfigLine> expected = {{"lxc.rootfs.path", "/a b"}, {"empty", ""}, {"x", "y=z"}};
    EXPECT_EQ(parseConfig("  lxc.rootfs.path =  /a b \t\r\nempty=\nx=y=z"), expected);
}

TEST(ParseConfig, SkipsCommentsAndLinesOfAnotherForm)
{
    EXPECT_TRUE(parseConfig("# lxc.start.auto = 1\n\nno equals sign\n   \n").empty());
    EXPECT_TRUE(parseConfig("").empty());
}

TEST(ReadContainer, ReadsWhatMatters)
{
    const TemporaryTree tree;
    tree.write("/var/lib/lxc/nav/config", "zone.container_type = protection\nlxc.start.auto = 1\n"
                                          "lxc.rootfs.path = dir:/srv/nav\n"
                                          "lxc.cgroup.dir.container = lxc.payload/nav\n"
                                          "lxc.cgroup.dir.monitor = lxc.monitor/nav\n");
    const ContainerInfo info = readContainer(Machine(tree.root()), "/var/lib/lxc", "nav");
    EXPECT_EQ(info.name, "nav");
    EXPECT_EQ(info.kind, ZUP::ZONE_TYPE_PROTECTION);
    EXPECT_TRUE(info.autoStart);
    EXPECT_EQ(info.rootfsPath, "/srv/nav");
    EXPECT_EQ(info.payloadCgroup, "lxc.payload/nav");
    EXPECT_EQ(info.monitorCgroup, "lxc.monitor/nav");
}

TEST(ReadContainer, StaysAtDefaultsForWhatIsNotThere)
{
    const TemporaryTree tree;
    const ContainerInfo info = readContainer(Machine(tree.root()), "/var/lib/lxc", "nobody");
    EXPECT_EQ(info.kind, ZUP::ZONE_TYPE_NONE);
    EXPECT_FALSE(info.autoStart);
    EXPECT_TRUE(info.rootfsPath.empty());
}

TEST(ReadContainer, AutomaticStartIsExactlyOne)
{
    for (const auto& [value, expected] :
         {std::pair{"1", true}, {"0", false}, {"11", false}, {"yes", false}}) {
        const TemporaryTree tree;
        tree.write("/c/a/config", std::string("lxc.start.auto = ") + value + "\n");
        EXPECT_EQ(readContainer(Machine(tree.root()), "/c", "a").autoStart, expected) << value;
    }
}

TEST(ReadContainer, FollowsIncludedFilesAndDirectories)
{
    const TemporaryTree tree;
    tree.write("/c/a/config", "lxc.include = /common.conf\nlxc.include = /more\n");
    tree.write("/common.conf", "lxc.rootfs.path = /common\n");
    tree.write("/more/10-start.conf", "lxc.start.auto = 1\n");
    tree.write("/more/20-ignored.txt", "lxc.start.auto = 0\n");
    const ContainerInfo info = readContainer(Machine(tree.root()), "/c", "a");
    EXPECT_EQ(info.rootfsPath, "/common");
    EXPECT_TRUE(info.autoStart);
}

TEST(ReadContainer, TheKindCountsOnlyInTheContainersOwnFile)
{
    const TemporaryTree tree;
    tree.write("/c/a/config", "lxc.include = /common.conf\n");
    tree.write("/common.conf", "zone.container_type = 1\n");
    EXPECT_EQ(readContainer(Machine(tree.root()), "/c", "a").kind, ZUP::ZONE_TYPE_NONE);
}

TEST(ReadContainer, EndsWhenFilesIncludeEachOther)
{
    const TemporaryTree tree;
    tree.write("/c/a/config", "zone.container_type = 2\nlxc.include = /c/a/config\n");
    EXPECT_EQ(readContainer(Machine(tree.root()), "/c", "a").kind, ZUP::ZONE_TYPE_HYBRID);
}

TEST(ListFromFiles, TakesTheConfiguredPathAndSortsNames)
{
    const TemporaryTree tree;
    tree.write("/etc/lxc/lxc.conf", "lxc.lxcpath = /zones\n");
    tree.write("/zones/b/config", "");
    tree.write("/zones/a/config", "");
    tree.makeDirectory("/zones/no-container");
    const ContainerListing listing = listFromFiles(Machine(tree.root()));
    EXPECT_EQ(listing.lxcPath, "/zones");
    ASSERT_EQ(listing.containers.size(), 2U);
    EXPECT_EQ(listing.containers[0].name, "a");
    EXPECT_EQ(listing.containers[1].name, "b");
}

TEST(ListFromFiles, TellsWhatThisUserMayNotRead)
{
    const TemporaryTree tree;
    tree.write("/var/lib/lxc/hidden/config", "");
    tree.write("/var/lib/lxc/closed/config", "");
    tree.write("/var/lib/lxc/open/config", "");
    tree.write("/var/lib/lxc/partly/config", "lxc.include = /included\n");
    tree.makeDirectory("/var/lib/lxc/no-container");
    tree.write("/included", "");
    tree.permit("/var/lib/lxc/hidden", 0700);
    tree.permit("/var/lib/lxc/closed/config", 0600);
    tree.permit("/included", 0600);
    const AnotherUser user;
    const ContainerListing listing = listFromFiles(Machine(tree.root()));
    ASSERT_EQ(listing.containers.size(), 1U);
    EXPECT_EQ(listing.containers[0].name, "open");
    EXPECT_EQ(listing.unreadable, (std::vector<std::string>{"closed", "hidden", "partly"}));
    EXPECT_FALSE(listing.pathClosed);
}

TEST(ListFromFiles, TellsThatThePathMayNotBeLookedInto)
{
    const TemporaryTree tree;
    tree.write("/var/lib/lxc/red/config", "");
    for (const char* path : {"/var/lib/lxc", "/var/lib"}) {
        tree.permit(path, 0700);
        EXPECT_FALSE(listFromFiles(Machine(tree.root())).pathClosed) << "for root";
        {
            const AnotherUser user;
            EXPECT_TRUE(listFromFiles(Machine(tree.root())).pathClosed) << path;
        }
        tree.permit(path, 0755);
    }
}

TEST(ZoneWords, StatesHaveTheirWords)
{
    EXPECT_EQ(stateWord(0), "NONE");
    EXPECT_EQ(stateWord(3), "RUNNING");
    EXPECT_EQ(stateWord(8), "THAWED");
    EXPECT_EQ(stateWord(9), "UNKNOWN(9)");
    EXPECT_EQ(stateWord(-1), "UNKNOWN(-1)");
}

TEST(ZoneWords, KindsGoBothWays)
{
    for (const int number : {1, 2, 3}) {
        const ZUP::ZoneType kind = kindFromNumber(number);
        EXPECT_EQ(kind, number);
        EXPECT_EQ(kindFromText(kindWord(kind)), kind);
    }
    for (const std::string_view text : {"", "0", "4", "01", "Hybrid", "-1"}) {
        EXPECT_EQ(kindFromText(text), ZUP::ZONE_TYPE_NONE) << text;
    }
    EXPECT_EQ(kindFromNumber(-1), ZUP::ZONE_TYPE_NONE);
    EXPECT_TRUE(kindWord(ZUP::ZONE_TYPE_NONE).empty());
}
