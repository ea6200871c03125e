#pragma once

#include "tests/ZoneCore/ZoneFixtures.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

/// The tests of what the kinds have in common. A kind's own file describes it by a type:
///
///     struct Words {
///         using Zone = HybridZone;
///         static constexpr ZUP::ZoneType TYPE;           its number
///         static constexpr const char* CLASS, *WORD;     as in messages
///         static constexpr const char* READ_ONLY_LABEL, *WRITABLE_LABEL;
///         static constexpr const char* PATH_WORD;        before a writable path in some messages
///         static constexpr const char* AUTO_START;       the body of its permission
///     };
namespace ZoneTest {

constexpr const char* KIND_THREAD = "kind-thread";
constexpr const char* KIND_ZONE = "alpha";

/// A zone of the kind, with its paths, on the test's own thread.
template <typename Words>
class ZoneKindTest : public testing::Test
{
protected:
    void SetUp() override
    {
        root = std::string(BASE_PATH) + "/" + KIND_ZONE;
        writable = "/opt" + root;
        zone = std::make_unique<typename Words::Zone>();
        zone->zoneName = KIND_ZONE;
        zone->basePath = BASE_PATH;
        ASSERT_TRUE(zone->initialize(false, KIND_THREAD));
        log.clear();
    }

    /// The message with its beginning "[NAME:ID] ".
    [[nodiscard]] static std::string by(const std::string& level, const std::string& text)
    {
        return level + " " + byThread(KIND_THREAD) + text;
    }
    [[nodiscard]] static std::string word() { return Words::WORD; }
    [[nodiscard]] static std::string inBrackets(const std::string& path)
    {
        return std::string("[") + Words::PATH_WORD + path + "]";
    }
    [[nodiscard]] static std::string createdLine(const std::string& path)
    {
        return by("I", "RW path of " + word() + " Zone(RW) is created..." + inBrackets(path));
    }
    [[nodiscard]] static std::string missingLine(const std::string& path)
    {
        return "D The contianer path(" + path + ") does not exist - \"No such file or directory\"";
    }

    void makeLabelled(const std::string& path, const std::string& label) const
    {
        std::filesystem::create_directories(path);
        setLabel(path, label);
    }

    LogCapture log;
    FakeLxcControl control;
    std::string root;     ///< the zone's read-only root
    std::string writable; ///< its writable directory
    std::unique_ptr<typename Words::Zone> zone;
};

TYPED_TEST_SUITE_P(ZoneKindTest);

TYPED_TEST_P(ZoneKindTest, LogsItsLifeWithItsType)
{
    const std::string type = std::to_string(TypeParam::TYPE);
    this->zone.reset();
    this->log.clear();
    this->zone = std::make_unique<typename TypeParam::Zone>();
    EXPECT_EQ(this->zone->getZoneType(), TypeParam::TYPE);
    EXPECT_EQ(this->log.texts().back(),
              std::string("I ") + TypeParam::CLASS + " object is created...[type : " + type + "]");
    ASSERT_TRUE(this->zone->initialize(false, KIND_THREAD));
    this->log.clear();
    this->zone.reset();
    EXPECT_EQ(this->log.texts().front(),
              std::string("I ") + TypeParam::CLASS + " zone is destroyed...[type : " + type +
                  ", thread name : " + KIND_THREAD +
                  ", thread id : " + std::to_string(ZoneCore::currentThreadId()) + "]");
}

TYPED_TEST_P(ZoneKindTest, RemembersItsType)
{
    this->zone->setZoneType(ZUP::ZONE_TYPE_NONE);
    EXPECT_EQ(this->zone->getZoneType(), ZUP::ZONE_TYPE_NONE);
    this->zone->setZoneType(TypeParam::TYPE);
    EXPECT_EQ(this->zone->getZoneType(), TypeParam::TYPE);
}

TYPED_TEST_P(ZoneKindTest, PermitsAutomaticStart)
{
    EXPECT_TRUE(this->zone->checkAutoStart());
    EXPECT_THAT(this->log.texts(), testing::ElementsAre(this->by("I", TypeParam::AUTO_START)));
}

TYPED_TEST_P(ZoneKindTest, PermitsAZoneWhoseDirectoriesCarryItsLabels)
{
    this->makeLabelled(this->root, TypeParam::READ_ONLY_LABEL);
    this->makeLabelled(this->writable, TypeParam::WRITABLE_LABEL);
    this->makeLabelled(this->writable + "/opt", "_");
    const ReadOnlyMount mounted(this->root); // nothing is written there
    EXPECT_TRUE(this->zone->checkZoneSmackLabel());
    const auto texts = this->log.texts();
    ASSERT_EQ(texts.size(), 6U); // one line for the root, two for each writable directory, the last one
    EXPECT_THAT(texts[0], testing::HasSubstr(this->root + " / " + TypeParam::READ_ONLY_LABEL));
    EXPECT_EQ(texts[1], this->createdLine(this->writable));
    EXPECT_THAT(texts[2], testing::HasSubstr(this->writable + " / " + TypeParam::WRITABLE_LABEL));
    EXPECT_EQ(texts[3], this->createdLine(this->writable + "/opt"));
    EXPECT_THAT(texts[4], testing::HasSubstr(this->writable + "/opt / _ "));
    EXPECT_EQ(texts[5], this->by("I", "\"alpha\" is " + this->word() + " Zone...It is permitted..."));
}

TYPED_TEST_P(ZoneKindTest, StopsAtAMissingRoot)
{
    EXPECT_FALSE(this->zone->checkZoneSmackLabel());
    EXPECT_FALSE(std::filesystem::exists(this->writable));
    EXPECT_THAT(this->log.texts(), testing::Not(testing::Contains(testing::HasSubstr("RW path"))));
}

TYPED_TEST_P(ZoneKindTest, StopsAtAWritableDirectoryThatCannotBeMade)
{
    this->makeLabelled(this->root, TypeParam::READ_ONLY_LABEL);
    std::filesystem::remove_all("/opt" + std::string(BASE_PATH));
    EXPECT_FALSE(this->zone->checkZoneSmackLabel());
    EXPECT_THAT(this->log.texts().back(),
                testing::StartsWith(this->by("E", "Failed to create RW path of " + this->word() +
                                                      " Zone(RW)..." + this->inBrackets(this->writable))));
}

TYPED_TEST_P(ZoneKindTest, StopsAtAnOptDirectoryThatCannotBeMade)
{
    this->makeLabelled(this->root, TypeParam::READ_ONLY_LABEL);
    this->makeLabelled(this->writable, TypeParam::WRITABLE_LABEL);
    const ReadOnlyMount mounted(this->writable);
    EXPECT_FALSE(this->zone->checkZoneSmackLabel());
    EXPECT_THAT(
        this->log.texts().back(),
        testing::StartsWith(this->by("E", "Failed to create RW path of " + this->word() + " Zone(RW)..." +
                                              this->inBrackets(this->writable + "/opt"))));
}

REGISTER_TYPED_TEST_SUITE_P(ZoneKindTest, LogsItsLifeWithItsType, RemembersItsType, PermitsAutomaticStart,
                            PermitsAZoneWhoseDirectoriesCarryItsLabels, StopsAtAMissingRoot,
                            StopsAtAWritableDirectoryThatCannotBeMade, StopsAtAnOptDirectoryThatCannotBeMade);

} // namespace ZoneTest
