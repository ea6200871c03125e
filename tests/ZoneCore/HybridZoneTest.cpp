#include "ZoneCore/HybridZone.h"
#include "tests/ZoneCore/PermittedRootTests.h"

namespace ZoneTest {

namespace {

struct Words
{
    using Zone = ZoneCore::HybridZone;
    static constexpr ZUP::ZoneType TYPE = ZUP::ZONE_TYPE_HYBRID;
    static constexpr const char* CLASS = "HybridZone";
    static constexpr const char* WORD = "Hybrid";
    static constexpr const char* READ_ONLY_LABEL = "_";
    static constexpr const char* WRITABLE_LABEL = "_";
    static constexpr const char* PATH_WORD = "rw path : ";
    static constexpr const char* AUTO_START = "Auto start is permitted for hybrid container...";
    static constexpr bool ROOT_ENFORCED = false;
    static constexpr bool WRITABLE_ENFORCED = false;
};

using HybridZoneTest = ZoneKindTest<Words>;

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(HybridZone, ZoneKindTest, Words);
INSTANTIATE_TYPED_TEST_SUITE_P(HybridZone, PermittedRootTest, Words);

TEST_F(HybridZoneTest, OnlyTellsTheLabelOfAWritableDirectory)
{
    makeLabelled(writable, "Whatever");
    EXPECT_TRUE(zone->checkRWZoneSmackLabel(writable, "wanted"));
    EXPECT_EQ(labelOf(writable), "Whatever");
    EXPECT_THAT(log.texts(),
                testing::ElementsAre(createdLine(writable),
                                     by("I", "\"alpha\" is Hybrid Zone...It is permitted...[rw path : " +
                                                 writable + " / Whatever - wanted](ref count : 1)")));
}

TEST_F(HybridZoneTest, MakesAMissingWritableDirectoryWithoutALabel)
{
    const mode_t before = umask(0);
    EXPECT_TRUE(zone->checkRWZoneSmackLabel(writable, "wanted"));
    umask(before);
    struct stat status = {};
    ASSERT_EQ(stat(writable.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
    EXPECT_EQ(labelOf(writable), "(none)");
    EXPECT_THAT(
        log.texts(),
        testing::ElementsAre(missingLine(writable), createdLine(writable),
                             "E Failed to get smack label of \"" + writable + "\" - \"No data available\"",
                             by("I", "\"alpha\" is Hybrid Zone...It is permitted...[rw path : " + writable +
                                         " /  - wanted](ref count : 1)")));
}

TEST_F(HybridZoneTest, ReportsAWritableDirectoryThatCannotBeMade)
{
    const std::string deep = writable + "/deep";
    EXPECT_FALSE(zone->checkRWZoneSmackLabel(deep, "wanted"));
    EXPECT_THAT(log.texts(),
                testing::ElementsAre(
                    missingLine(deep),
                    "E Failed to create the container path(" + deep + ") - \"No such file or directory\"",
                    by("E", "Failed to create RW path of Hybrid Zone(RW)...[rw path : " + deep + "]")));
}

TEST_F(HybridZoneTest, PermitsAZoneOfAnyLabels)
{
    makeLabelled(root, "a");
    makeLabelled(writable, "b");
    makeLabelled(writable + "/opt", "c");
    EXPECT_TRUE(zone->checkZoneSmackLabel());
    EXPECT_EQ(labelOf(root), "a");
    EXPECT_EQ(labelOf(writable), "b");
    EXPECT_EQ(labelOf(writable + "/opt"), "c");
    const auto told = [&](const std::string& access, const std::string& path, const std::string& label) {
        return by("I", "\"alpha\" is Hybrid Zone...It is permitted...[" + access + " path : " + path + " / " +
                           label + " - _](ref count : 1)");
    };
    EXPECT_THAT(log.texts(),
                testing::ElementsAre(told("ro", root, "a"), createdLine(writable), told("rw", writable, "b"),
                                     createdLine(writable + "/opt"), told("rw", writable + "/opt", "c"),
                                     by("I", "\"alpha\" is Hybrid Zone...It is permitted...")));
}

} // namespace ZoneTest
