#include "ZoneCore/ZoneFactory.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/support/unit/Eventually.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using ZoneTest::eventually;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;

namespace {

constexpr const char* NAME = "alpha";

/// Ends a zone as the registry does: nothing is deleted while its thread could still touch it.
struct EndZone
{
    void operator()(Zone* zone) const
    {
        EXPECT_TRUE(eventually([zone] { return zone->isRunning(); }));
        zone->terminate();
        EXPECT_TRUE(eventually([zone] { return zone->closeGate(); }));
        static_cast<void>(lxc_container_put(zone->container->getHandle()));
        delete zone;
    }
};
using ZonePtr = std::unique_ptr<Zone, EndZone>;

class ZoneFactoryTest : public testing::Test
{
protected:
    void SetUp() override { control.define(NAME, ZUP::ZONE_TYPE_HYBRID); }

    /// A zone of the container as it is defined now.
    [[nodiscard]] ZonePtr make()
    {
        handle = lxc_container_new(NAME, basePath.c_str());
        log.clear();
        return ZonePtr(ZoneFactory().getZone(handle, basePath));
    }
    void container(const std::string& file, const std::string& value = "") const
    {
        control.set(std::string("containers/") + NAME + "/" + file, value);
    }
    /// The count of references to the container after the last call that changed it.
    [[nodiscard]] std::string lastReferenceCall() const
    {
        std::string last;
        for (const std::string& call : control.calls()) {
            if (call.rfind("lxc_container_", 0) == 0) {
                last = call;
            }
        }
        return last;
    }

    LogCapture log;
    FakeLxcControl control;
    std::string basePath = ZoneTest::BASE_PATH;
    lxc_container* handle = nullptr; ///< dangling after a failure that put it
};

struct KindRow
{
    int type;
    const char* word;
    const char* label; ///< of the root
};

class ZoneFactoryKind : public ZoneFactoryTest, public testing::WithParamInterface<KindRow>
{};

class ZoneFactoryNoKind : public ZoneFactoryTest, public testing::WithParamInterface<const char*>
{};

class ZoneFactoryNoAutoStart : public ZoneFactoryTest, public testing::WithParamInterface<std::string>
{};

} // namespace

TEST_F(ZoneFactoryTest, RefusesANullHandle)
{
    log.clear();
    EXPECT_EQ(ZoneFactory().getZone(nullptr, basePath), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("E Invalid lxc container object..."));
}

TEST_P(ZoneFactoryKind, MakesAZoneOfTheKind)
{
    const KindRow& row = GetParam();
    container("type", std::to_string(row.type));
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_EQ(zone->getZoneType(), row.type);
    EXPECT_THAT(log.texts(), testing::IsSupersetOf(
                                 {std::string("I ") + row.word +
                                      "Zone object is created...[type : " + std::to_string(row.type) + "]",
                                  "I [Zone Name : alpha] / [Zone Base Path : /zone-test] / [Zone Type : " +
                                      std::to_string(row.type) + "]",
                                  std::string("I Start the zone thread for \"alpha\"")}));
    EXPECT_EQ(ZoneTest::labelOf("/zone-test/alpha"), row.label);
}

INSTANTIATE_TEST_SUITE_P(All, ZoneFactoryKind,
                         testing::Values(KindRow{1, "Isolate", "_"}, KindRow{2, "Hybrid", "_"},
                                         KindRow{3, "Protect", "!"}));

TEST_F(ZoneFactoryTest, FillsTheZoneAndStartsItsThread)
{
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_EQ(zone->zoneName, NAME);
    EXPECT_EQ(zone->name(), NAME);
    EXPECT_EQ(zone->basePath, ZoneTest::BASE_PATH);
    EXPECT_EQ(zone->rootfsPath, "/srv/alpha");
    EXPECT_FALSE(zone->autoStart);
    EXPECT_EQ(zone->state.load(), NONE);
    EXPECT_TRUE(zone->hasEventQueue());
    EXPECT_FALSE(zone->usesDefaultContext());
    EXPECT_EQ(zone->container->getHandle(), handle);
    EXPECT_EQ(lastReferenceCall(), "lxc_container_get alpha 2 -");
    EXPECT_TRUE(eventually([&] { return zone->isRunning(); }));
    const auto own = ZoneTest::ownTexts(log);
    EXPECT_EQ(own.back(), "I Start the zone thread for \"alpha\"");
    // The watchdog's values show when the thread registers itself.
    EXPECT_TRUE(eventually([&] {
        const auto texts = log.texts();
        return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
            return text.rfind("I Watchdog Is registered[360 / 15000](thread name : alpha, tid : ", 0) == 0;
        });
    }));
}

TEST_P(ZoneFactoryNoKind, MakesNoZone)
{
    container("type", GetParam());
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("I container_type : " + std::string(GetParam()),
                                         "E Failed to create the zone object...alpha"));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_new alpha 1 /zone-test");
    static_cast<void>(lxc_container_put(handle));
}

INSTANTIATE_TEST_SUITE_P(All, ZoneFactoryNoKind, testing::Values("-1", "0", "4"));

TEST_F(ZoneFactoryTest, QueriesTheKindWithoutABuffer)
{
    static char* buffer = nullptr;
    static int length = -1;
    control.remove("containers/alpha/rootfs");
    handle = lxc_container_new(NAME, basePath.c_str());
    handle->get_config_item = [](lxc_container*, const char* key, char* out, int size) {
        if (std::string(key) == "lxc.container_type") {
            buffer = out;
            length = size;
        }
        return -1;
    };
    EXPECT_EQ(ZoneFactory().getZone(handle, basePath), nullptr);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 0);
    static_cast<void>(lxc_container_put(handle));
}

TEST_F(ZoneFactoryTest, RefusesAZoneWhoseLabelsAreRefused)
{
    container("type", "3");
    std::filesystem::remove_all("/zone-test/alpha");
    EXPECT_EQ(make(), nullptr);
    const auto texts = log.texts();
    const auto refusal =
        std::find(texts.begin(), texts.end(), "E The smack label(!) of zone(alpha) is invalid...");
    ASSERT_NE(refusal, texts.end());
    // The half-made zone ends, and with it a container that never got its handle.
    EXPECT_THAT(std::vector<std::string>(refusal, texts.end()),
                testing::IsSupersetOf({std::string("I Container object is destroyed..."),
                                       std::string("I Zone object is destroyed(zone name : alpha)")}));
    EXPECT_THAT(texts, Not(Contains(HasSubstr("thread count of container"))));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_new alpha 1 /zone-test");
    static_cast<void>(lxc_container_put(handle));
}

TEST_F(ZoneFactoryTest, RefusesAContainerWithoutAReference)
{
    container("get_fails");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(log.texts(),
                testing::IsSupersetOf({std::string("E Failed to get the container reference...alpha"),
                                       std::string("I thread count of container...[1]")}));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_put alpha 0 -");
}

TEST_F(ZoneFactoryTest, RefusesAContainerWithoutARootFileSystem)
{
    control.remove("containers/alpha/rootfs");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(log.texts(),
                testing::IsSupersetOf({std::string("E Failed to get \"lxc.rootfs\" value...alpha"),
                                       std::string("I Zone object is destroyed(zone name : alpha)")}));
    EXPECT_THAT(log.texts(), Not(Contains(HasSubstr("Start the zone thread"))));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_put alpha 0 -"); // both references
}

TEST_F(ZoneFactoryTest, MarksAZoneForAutomaticStart)
{
    container("auto", "1");
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_TRUE(zone->autoStart);
    EXPECT_FALSE(zone->autoStartRequested.load());
    EXPECT_THAT(log.texts(), Contains("I auto start flag is true...alpha"));
}

TEST_P(ZoneFactoryNoAutoStart, LeavesTheZoneUnmarked)
{
    container("auto", GetParam());
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_FALSE(zone->autoStart);
    EXPECT_THAT(log.texts(), Not(Contains(HasSubstr("auto start flag"))));
}

INSTANTIATE_TEST_SUITE_P(All, ZoneFactoryNoAutoStart,
                         testing::Values("", "0", "11", " 1", "1 ", "true", std::string(4096, '1')));

TEST_F(ZoneFactoryTest, LeavesAZoneUnmarkedWhoseValueChangesInBetween)
{
    container("auto", "1");
    container("auto_read", "12");
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_FALSE(zone->autoStart);
}
