// What all kinds have in common, seen by a kind that only notes what it is asked. What a kind answers stands
// in the kinds' own files.
#include "ZoneCore/ZoneKind.h"
#include "tests/ZoneCore/ZoneFixtures.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using ZoneTest::byThread;
using ZoneTest::LogCapture;

namespace {

constexpr const char* THREAD = "kind-thread";
constexpr const char* READ_ONLY_CHECK = "RO /base/alpha root";
constexpr const char* WRITABLE_CHECK = "RW /opt/base/alpha rest";
constexpr const char* OPT_CHECK = "RW /opt/base/alpha/opt _";

class NotingKind : public ZoneCore::ZoneKind
{
public:
    NotingKind() : ZoneKind(RULE)
    {
        zoneName = "alpha";
        basePath = "/base";
        EXPECT_TRUE(initialize(false, THREAD));
    }
    bool checkROZoneSmackLabel(const std::string& path, const std::string& label) override
    {
        return note("RO " + path + " " + label);
    }
    bool checkRWZoneSmackLabel(const std::string& path, const std::string& label) override
    {
        return note("RW " + path + " " + label);
    }

    std::string failing; ///< the check that fails
    std::vector<std::string> checks;

private:
    static constexpr Rule RULE{
        .type = ZUP::ZONE_TYPE_ISOLATION,
        .word = "Noting",
        .readOnlyLabel = "root",
        .writableLabel = "rest",
        .pathWord = "",
    };

    bool note(const std::string& check)
    {
        checks.push_back(check);
        return check != failing;
    }
};

class ZoneKind : public testing::Test
{
protected:
    LogCapture log;
    NotingKind zone;
};

class ZoneKindRefusal : public ZoneKind, public testing::WithParamInterface<const char*>
{};

} // namespace

TEST_F(ZoneKind, RemembersItsType)
{
    EXPECT_EQ(zone.getZoneType(), ZUP::ZONE_TYPE_ISOLATION);
    for (const auto type : {ZUP::ZONE_TYPE_NONE, ZUP::ZONE_TYPE_PROTECTION, ZUP::ZONE_TYPE_HYBRID}) {
        zone.setZoneType(type);
        EXPECT_EQ(zone.getZoneType(), type);
    }
}

TEST_F(ZoneKind, ChecksTheRootThenBothWritableDirectories)
{
    log.clear();
    EXPECT_TRUE(zone.checkZoneSmackLabel());
    EXPECT_THAT(zone.checks, ElementsAre(READ_ONLY_CHECK, WRITABLE_CHECK, OPT_CHECK));
    EXPECT_THAT(log.texts(),
                ElementsAre("I " + byThread(THREAD) + "\"alpha\" is Noting Zone...It is permitted..."));
}

TEST_P(ZoneKindRefusal, EndsTheChecks)
{
    zone.failing = GetParam();
    log.clear();
    EXPECT_FALSE(zone.checkZoneSmackLabel());
    ASSERT_FALSE(zone.checks.empty());
    EXPECT_EQ(zone.checks.back(), zone.failing);
    EXPECT_THAT(log.texts(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, ZoneKindRefusal, testing::Values(READ_ONLY_CHECK, WRITABLE_CHECK, OPT_CHECK));
