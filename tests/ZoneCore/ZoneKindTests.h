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
///         static constexpr bool ROOT_ENFORCED, WRITABLE_ENFORCED; whether it sets these labels
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
    /// What the kind writes about a root and a writable directory that carry the wanted label.
    [[nodiscard]] static std::string rootLine(const std::string& path, const std::string& label)
    {
        return by("I", Words::ROOT_ENFORCED ? enforced("RO", path, label) : permitted("ro", path, label));
    }
    [[nodiscard]] static std::string writableLine(const std::string& path, const std::string& label)
    {
        return by("I", Words::WRITABLE_ENFORCED ? enforced("RW", path, label) : permitted("rw", path, label));
    }
    /// What the kind writes about a writable directory that cannot be made.
    [[nodiscard]] static std::string notMadeLine(const std::string& path)
    {
        return by("E", "Failed to create RW path of " + word() + " Zone(RW)..." + inBrackets(path) +
                           (Words::WRITABLE_ENFORCED ? "(ref count : 1)" : ""));
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

    [[nodiscard]] static std::string permitted(const std::string& access, const std::string& path,
                                               const std::string& label)
    {
        return "\"alpha\" is " + word() + " Zone...It is permitted...[" + access + " path : " + path + " / " +
               label + " - " + label + "](ref count : 1)";
    }
    [[nodiscard]] static std::string enforced(const std::string& access, const std::string& path,
                                              const std::string& label)
    {
        return "Access Level of " + word() + " Zone(" + access + ") is permitted...[" + path + " / " + label +
               " == " + label + "](ref count : 1)";
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
    const std::string id = std::to_string(ZoneCore::currentThreadId());
    this->zone.reset();
    this->log.clear();
    this->zone = std::make_unique<typename TypeParam::Zone>();
    EXPECT_EQ(this->zone->getZoneType(), TypeParam::TYPE);
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre("I Thread is created", "I Zone object is created",
                                     std::string("I ") + TypeParam::CLASS + " object is created...[type : " +
                                         std::to_string(TypeParam::TYPE) + "]"));
    ASSERT_TRUE(this->zone->initialize(false, KIND_THREAD));
    this->zone->zoneName = KIND_ZONE;
    this->zone->setZoneType(ZUP::ZONE_TYPE_NONE); // what it is told counts
    this->log.clear();
    this->zone.reset();
    const std::string atThreadId = "(thread name : " + std::string(KIND_THREAD) + ", thread id : " + id + ")";
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(
                    std::string("I ") + TypeParam::CLASS + " zone is destroyed...[type : 0, thread name : " +
                        KIND_THREAD + ", thread id : " + id + "]",
                    "I Container object is destroyed...", "I Zone object is destroyed(zone name : alpha)",
                    "I release the event source from the main context" + atThreadId,
                    "I Thread is destroyed" + atThreadId));
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
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(
                    this->rootLine(this->root, TypeParam::READ_ONLY_LABEL), this->createdLine(this->writable),
                    this->writableLine(this->writable, TypeParam::WRITABLE_LABEL),
                    this->createdLine(this->writable + "/opt"),
                    this->writableLine(this->writable + "/opt", "_"),
                    this->by("I", "\"alpha\" is " + this->word() + " Zone...It is permitted...")));
}

TYPED_TEST_P(ZoneKindTest, StopsAtAMissingRoot)
{
    EXPECT_FALSE(this->zone->checkZoneSmackLabel());
    EXPECT_FALSE(std::filesystem::exists(this->writable));
    const auto texts = this->log.texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_THAT(texts.back(), testing::StartsWith(this->by("E", "There is no read-only path")));
}

TYPED_TEST_P(ZoneKindTest, StopsAtAWritableDirectoryThatCannotBeMade)
{
    this->makeLabelled(this->root, TypeParam::READ_ONLY_LABEL);
    std::filesystem::remove_all("/opt" + std::string(BASE_PATH));
    EXPECT_FALSE(this->zone->checkZoneSmackLabel());
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(this->rootLine(this->root, TypeParam::READ_ONLY_LABEL),
                                     this->missingLine(this->writable),
                                     "E Failed to create the container path(" + this->writable +
                                         ") - \"No such file or directory\"",
                                     this->notMadeLine(this->writable)));
}

TYPED_TEST_P(ZoneKindTest, StopsAtAnOptDirectoryThatCannotBeMade)
{
    this->makeLabelled(this->root, TypeParam::READ_ONLY_LABEL);
    this->makeLabelled(this->writable, TypeParam::WRITABLE_LABEL);
    const ReadOnlyMount mounted(this->root);
    const ReadOnlyMount alsoMounted(this->writable);
    const std::string opt = this->writable + "/opt";
    EXPECT_FALSE(this->zone->checkZoneSmackLabel());
    EXPECT_THAT(this->log.texts(),
                testing::ElementsAre(
                    this->rootLine(this->root, TypeParam::READ_ONLY_LABEL),
                    "D The contianer path(" + this->writable + ") does not exist - \"Read-only file system\"",
                    "I The container path(" + this->writable + ") does exist",
                    this->createdLine(this->writable),
                    this->writableLine(this->writable, TypeParam::WRITABLE_LABEL), this->missingLine(opt),
                    "E Failed to create the container path(" + opt + ") - \"Read-only file system\"",
                    this->notMadeLine(opt)));
}

REGISTER_TYPED_TEST_SUITE_P(ZoneKindTest, LogsItsLifeWithItsType, PermitsAutomaticStart,
                            PermitsAZoneWhoseDirectoriesCarryItsLabels, StopsAtAMissingRoot,
                            StopsAtAWritableDirectoryThatCannotBeMade, StopsAtAnOptDirectoryThatCannotBeMade);

} // namespace ZoneTest
