#include "ZoneCore/IsolateZone.h"
#include "tests/ZoneCore/EnforcedWritableTests.h"
#include "tests/ZoneCore/PermittedRootTests.h"

namespace ZoneTest {

namespace {

struct Words
{
    using Zone = ZoneCore::IsolateZone;
    static constexpr ZUP::ZoneType TYPE = ZUP::ZONE_TYPE_ISOLATION;
    static constexpr const char* CLASS = "IsolateZone";
    static constexpr const char* WORD = "Isolation";
    static constexpr const char* READ_ONLY_LABEL = "_";
    static constexpr const char* WRITABLE_LABEL = "System";
    static constexpr const char* PATH_WORD = "rw path : ";
    static constexpr const char* AUTO_START = "Auto start is permitted for isolation container(\"alpha\")...";
    static constexpr bool ROOT_ENFORCED = false;
    static constexpr bool WRITABLE_ENFORCED = true;
};

using IsolateZoneTest = ZoneKindTest<Words>;

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(IsolateZone, ZoneKindTest, Words);
INSTANTIATE_TYPED_TEST_SUITE_P(IsolateZone, PermittedRootTest, Words);
INSTANTIATE_TYPED_TEST_SUITE_P(IsolateZone, EnforcedWritableTest, Words);

TEST_F(IsolateZoneTest, PermitsARootOfAnyLabelInAZone)
{
    makeLabelled(root, "Whatever");
    makeLabelled(writable, "System");
    makeLabelled(writable + "/opt", "_");
    EXPECT_TRUE(zone->checkZoneSmackLabel());
    EXPECT_EQ(labelOf(root), "Whatever");
    EXPECT_THAT(log.texts(), testing::Contains(testing::HasSubstr(root + " / Whatever - _]")));
}

} // namespace ZoneTest
