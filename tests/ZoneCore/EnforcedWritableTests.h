#pragma once

#include "tests/ZoneCore/ZoneKindTests.h"

namespace ZoneTest {

/// The writable directories of the kinds that label them.
template <typename Words>
class EnforcedWritableTest : public ZoneKindTest<Words>
{
protected:
    [[nodiscard]] static std::string access(const std::string& level, const std::string& text)
    {
        return ZoneKindTest<Words>::by(level, "Access Level of " + ZoneKindTest<Words>::word() +
                                                  " Zone(RW) is " + text + "(ref count : 1)");
    }
};

TYPED_TEST_SUITE_P(EnforcedWritableTest);

TYPED_TEST_P(EnforcedWritableTest, KeepsTheWantedLabel)
{
    this->makeLabelled(this->writable, "System");
    EXPECT_TRUE(this->zone->checkRWZoneSmackLabel(this->writable, "System"));
    EXPECT_THAT(this->log.texts(), testing::ElementsAre(this->createdLine(this->writable),
                                                        this->access("I", "permitted...[" + this->writable +
                                                                              " / System == System]")));
}

TYPED_TEST_P(EnforcedWritableTest, SetsAnotherLabel)
{
    this->makeLabelled(this->writable, "_");
    EXPECT_TRUE(this->zone->checkRWZoneSmackLabel(this->writable, "System"));
    EXPECT_EQ(labelOf(this->writable), "System");
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(
                    this->createdLine(this->writable), "I \"" + this->writable + "\" smack label is \"_\"(1)",
                    "I \"" + this->writable + "\" smack label is changed to \"System\" successfully",
                    this->access("I", "set successfully...[" + this->writable + " => System]")));
}

TYPED_TEST_P(EnforcedWritableTest, RefusesAnotherLabelThatCannotBeSet)
{
    this->makeLabelled(this->writable, "_");
    const ReadOnlyMount mounted(this->writable);
    EXPECT_FALSE(this->zone->checkRWZoneSmackLabel(this->writable, "System"));
    EXPECT_EQ(labelOf(this->writable), "_");
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(
                    "D The contianer path(" + this->writable + ") does not exist - \"Read-only file system\"",
                    "I The container path(" + this->writable + ") does exist",
                    this->createdLine(this->writable), "I \"" + this->writable + "\" smack label is \"_\"(1)",
                    "E Failed to set smack label of \"" + this->writable +
                        "\" to \"System\" - \"Read-only file system\"",
                    this->access("E", "not permitted...[" + this->writable + " != System]")));
}

TYPED_TEST_P(EnforcedWritableTest, MakesAMissingDirectoryThatNeedsAFirstLabelWithoutSmack)
{
    const mode_t before = umask(0);
    EXPECT_FALSE(this->zone->checkRWZoneSmackLabel(this->writable, "System"));
    umask(before);
    struct stat status = {};
    ASSERT_EQ(stat(this->writable.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
    EXPECT_THAT(
        this->log.texts(),
        testing::ElementsAre(
            this->missingLine(this->writable), this->createdLine(this->writable),
            "E Failed to get smack label of \"" + this->writable + "\" - \"No data available\"",
            "E Failed to get smack label of \"" + this->writable + "\"(\"System\") - \"No data available\"",
            this->access("E", "not permitted...[" + this->writable + " != System]")));
}

TYPED_TEST_P(EnforcedWritableTest, ReportsADirectoryThatCannotBeMade)
{
    const std::string deep = this->writable + "/deep";
    EXPECT_FALSE(this->zone->checkRWZoneSmackLabel(deep, "System"));
    EXPECT_THAT(this->log.texts(), testing::ElementsAre(this->missingLine(deep),
                                                        "E Failed to create the container path(" + deep +
                                                            ") - \"No such file or directory\"",
                                                        this->notMadeLine(deep)));
}

TYPED_TEST_P(EnforcedWritableTest, LabelsBothWritableDirectoriesOfAZone)
{
    this->makeLabelled(this->root, TypeParam::READ_ONLY_LABEL);
    this->makeLabelled(this->writable, "Other");
    this->makeLabelled(this->writable + "/opt", "Other");
    EXPECT_TRUE(this->zone->checkZoneSmackLabel());
    EXPECT_EQ(labelOf(this->root), TypeParam::READ_ONLY_LABEL);
    EXPECT_EQ(labelOf(this->writable), TypeParam::WRITABLE_LABEL);
    EXPECT_EQ(labelOf(this->writable + "/opt"), "_");
}

TYPED_TEST_P(EnforcedWritableTest, StopsAtAWritableDirectoryThatCannotBeLabelled)
{
    this->makeLabelled(this->root, TypeParam::READ_ONLY_LABEL);
    std::filesystem::create_directories(this->writable); // a first label is nobody's here to give
    this->makeLabelled(this->writable + "/opt", "Other");
    EXPECT_FALSE(this->zone->checkZoneSmackLabel());
    EXPECT_EQ(labelOf(this->writable + "/opt"), "Other");
    EXPECT_EQ(this->log.texts().back(), this->access("E", "not permitted...[" + this->writable +
                                                              " != " + TypeParam::WRITABLE_LABEL + "]"));
}

REGISTER_TYPED_TEST_SUITE_P(EnforcedWritableTest, KeepsTheWantedLabel, SetsAnotherLabel,
                            RefusesAnotherLabelThatCannotBeSet,
                            MakesAMissingDirectoryThatNeedsAFirstLabelWithoutSmack,
                            ReportsADirectoryThatCannotBeMade, LabelsBothWritableDirectoriesOfAZone,
                            StopsAtAWritableDirectoryThatCannotBeLabelled);

} // namespace ZoneTest
