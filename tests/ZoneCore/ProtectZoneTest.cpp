// The kind that enforces everything. statvfs is replaced in this program, to let it fail.
#include "ZoneCore/ProtectZone.h"
#include "tests/ZoneCore/EnforcedWritableTests.h"
#include "tests/support/unit/Seam.h"

#include <cerrno>
#include <sys/statvfs.h>

namespace ZoneTest {

namespace {

struct Words
{
    using Zone = ZoneCore::ProtectZone;
    static constexpr ZUP::ZoneType TYPE = ZUP::ZONE_TYPE_PROTECTION;
    static constexpr const char* CLASS = "ProtectZone";
    static constexpr const char* WORD = "Protection";
    static constexpr const char* READ_ONLY_LABEL = "!";
    static constexpr const char* WRITABLE_LABEL = "!";
    static constexpr const char* PATH_WORD = "";
    static constexpr const char* AUTO_START = "Auto start is permitted for protection container...";
    static constexpr bool ROOT_ENFORCED = true;
    static constexpr bool WRITABLE_ENFORCED = true;
};

bool statusCannotBeRead = false;

class ProtectZoneTest : public ZoneKindTest<Words>
{
protected:
    ~ProtectZoneTest() override { statusCannotBeRead = false; }
};

/// The end of a message that counts the policy's users.
constexpr const char* COUNTED = "(ref count : 1)";

} // namespace
} // namespace ZoneTest

extern "C" int statvfs(const char* path, struct statvfs* status)
{
    if (ZoneTest::statusCannotBeRead) {
        errno = EIO;
        return -1;
    }
    return ZoneTest::genuine(&statvfs, "statvfs")(path, status);
}

namespace ZoneTest {

INSTANTIATE_TYPED_TEST_SUITE_P(ProtectZone, ZoneKindTest, Words);
INSTANTIATE_TYPED_TEST_SUITE_P(ProtectZone, EnforcedWritableTest, Words);

TEST_F(ProtectZoneTest, ReadsTheLabelOfAMissingRootFirst)
{
    EXPECT_FALSE(zone->checkROZoneSmackLabel(root, "!"));
    EXPECT_THAT(log.texts(),
                testing::ElementsAre("E Failed to get smack label of \"" + root +
                                         "\" - \"No such file or directory\"",
                                     by("E", "There is no read-only path(" + root + ")...[ / !]" + COUNTED)));
}

TEST_F(ProtectZoneTest, KeepsTheWantedLabelOfARootThatCannotBeWritten)
{
    makeLabelled(root, "!");
    const ReadOnlyMount mounted(root);
    EXPECT_TRUE(zone->checkROZoneSmackLabel(root, "!"));
    EXPECT_THAT(log.texts(),
                testing::ElementsAre(by("I", "Access Level of Protection Zone(RO) is permitted...[" + root +
                                                 " / ! == !]" + COUNTED)));
}

TEST_F(ProtectZoneTest, RefusesARootOfAnotherLabelThatCannotBeWritten)
{
    makeLabelled(root, "_");
    const ReadOnlyMount mounted(root);
    EXPECT_FALSE(zone->checkROZoneSmackLabel(root, "!"));
    EXPECT_EQ(labelOf(root), "_");
    EXPECT_THAT(log.texts(), testing::ElementsAre(by("E", "This is RO directory(" + root + ")...")));
}

TEST_F(ProtectZoneTest, LabelsItsRoot)
{
    makeLabelled(root, "_");
    EXPECT_TRUE(zone->checkROZoneSmackLabel(root, "!"));
    EXPECT_EQ(labelOf(root), "!");
    EXPECT_THAT(log.texts(),
                testing::ElementsAre("I \"" + root + "\" smack label is \"_\"(1)",
                                     "I \"" + root + "\" smack label is changed to \"!\" successfully",
                                     by("I", "Access Level of Protection Zone(RO) is set successfully...[" +
                                                 root + " => !]" + COUNTED)));
}

TEST_F(ProtectZoneTest, RefusesARootWithoutALabel)
{
    std::filesystem::create_directories(root);
    EXPECT_FALSE(zone->checkROZoneSmackLabel(root, "!"));
    EXPECT_THAT(
        log.texts(),
        testing::ElementsAre(
            "E Failed to get smack label of \"" + root + "\" - \"No data available\"",
            "E Failed to get smack label of \"" + root + "\"(\"!\") - \"No data available\"",
            by("E", "Access Level of Protection Zone(RO) is not permitted...[" + root + " != !]" + COUNTED)));
}

TEST_F(ProtectZoneTest, RefusesARootOfAnUnknownFileSystem)
{
    makeLabelled(root, "_");
    const ReadOnlyMount mounted(root);
    statusCannotBeRead = true;
    EXPECT_FALSE(zone->checkROZoneSmackLabel(root, "!"));
    EXPECT_EQ(labelOf(root), "_");
    EXPECT_THAT(log.texts(), testing::ElementsAre(by("E", "statvfs() is failed...")));
}

TEST_F(ProtectZoneTest, DoesNotAskForTheFileSystemOfARootWithTheWantedLabel)
{
    makeLabelled(root, "!");
    statusCannotBeRead = true;
    EXPECT_TRUE(zone->checkROZoneSmackLabel(root, "!"));
}

TEST_F(ProtectZoneTest, StopsAtARootThatIsRefused)
{
    makeLabelled(root, "_");
    makeLabelled(writable, "_");
    const ReadOnlyMount mounted(root);
    EXPECT_FALSE(zone->checkZoneSmackLabel());
    EXPECT_EQ(labelOf(writable), "_");
    EXPECT_THAT(log.texts(), testing::ElementsAre(by("E", "This is RO directory(" + root + ")...")));
}

TEST_F(ProtectZoneTest, StopsAtAMissingRootWithItsLabel)
{
    EXPECT_FALSE(zone->checkZoneSmackLabel());
    EXPECT_THAT(log.texts(),
                testing::ElementsAre("E Failed to get smack label of \"" + root +
                                         "\" - \"No such file or directory\"",
                                     by("E", "There is no read-only path(" + root + ")...[ / !]" + COUNTED)));
}

} // namespace ZoneTest
