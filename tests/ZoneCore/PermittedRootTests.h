#pragma once

#include "tests/ZoneCore/ZoneKindTests.h"

namespace ZoneTest {

/// The root of the kinds that only tell its label.
template <typename Words>
class PermittedRootTest : public ZoneKindTest<Words>
{};

TYPED_TEST_SUITE_P(PermittedRootTest);

TYPED_TEST_P(PermittedRootTest, MayCarryAnyLabel)
{
    this->makeLabelled(this->root, "Whatever");
    EXPECT_TRUE(this->zone->checkROZoneSmackLabel(this->root, "wanted"));
    EXPECT_EQ(labelOf(this->root), "Whatever");
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(this->by("I", "\"alpha\" is " + this->word() +
                                                       " Zone...It is permitted...[ro path : " + this->root +
                                                       " / Whatever - wanted](ref count : 1)")));
}

TYPED_TEST_P(PermittedRootTest, MayCarryNoLabel)
{
    std::filesystem::create_directories(this->root);
    EXPECT_TRUE(this->zone->checkROZoneSmackLabel(this->root, "wanted"));
    EXPECT_EQ(labelOf(this->root), "(none)");
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(
                    "E Failed to get smack label of \"" + this->root + "\" - \"No data available\"",
                    this->by("I", "\"alpha\" is " + this->word() + " Zone...It is permitted...[ro path : " +
                                      this->root + " /  - wanted](ref count : 1)")));
}

TYPED_TEST_P(PermittedRootTest, MustExist)
{
    EXPECT_FALSE(this->zone->checkROZoneSmackLabel(this->root, "wanted"));
    EXPECT_THAT(this->log.texts(), testing::ElementsAre(this->by("E", "There is no read-only path...[" +
                                                                          this->root + " / wanted]")));
}

REGISTER_TYPED_TEST_SUITE_P(PermittedRootTest, MayCarryAnyLabel, MayCarryNoLabel, MustExist);

} // namespace ZoneTest
