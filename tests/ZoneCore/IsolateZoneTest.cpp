// The kind that enforces the labels of its writable directories only. mkdir is replaced in this program, to
// give a new directory its maker's label, as Smack does.
#include "ZoneCore/IsolateZone.h"
#include "tests/ZoneCore/EnforcedWritableTests.h"
#include "tests/ZoneCore/PermittedRootTests.h"
#include "tests/support/unit/Seam.h"

#include <string>
#include <sys/stat.h>

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

bool newDirectoriesAreLabelled = false;

class IsolateZoneTest : public ZoneKindTest<Words>
{
protected:
    ~IsolateZoneTest() override { newDirectoriesAreLabelled = false; }

    static mode_t modeOf(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777U;
    }
};

} // namespace

extern "C" int mkdir(const char* path, mode_t mode)
{
    const int result = ZoneTest::genuine(&mkdir, "mkdir")(path, mode);
    if (result == 0 && newDirectoriesAreLabelled) {
        setLabel(path, "_");
    }
    return result;
}

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
    EXPECT_EQ(log.texts().front(), by("I", "\"alpha\" is Isolation Zone...It is permitted...[ro path : " +
                                               root + " / Whatever - _](ref count : 1)"));
}

TEST_F(IsolateZoneTest, MakesAndLabelsMissingWritableDirectories)
{
    makeLabelled(root, "_");
    newDirectoriesAreLabelled = true;
    const mode_t before = umask(0);
    EXPECT_TRUE(zone->checkZoneSmackLabel());
    umask(before);
    const std::string opt = writable + "/opt";
    EXPECT_EQ(modeOf(writable), 0755U);
    EXPECT_EQ(labelOf(writable), "System");
    EXPECT_EQ(modeOf(opt), 0755U);
    EXPECT_EQ(labelOf(opt), "_");
    EXPECT_THAT(log.texts(), testing::ElementsAre(
                                 rootLine(root, "_"), missingLine(writable), createdLine(writable),
                                 "I \"" + writable + "\" smack label is \"_\"(1)",
                                 "I \"" + writable + "\" smack label is changed to \"System\" successfully",
                                 by("I", "Access Level of Isolation Zone(RW) is set successfully...[" +
                                             writable + " => System](ref count : 1)"),
                                 missingLine(opt), createdLine(opt), writableLine(opt, "_"),
                                 by("I", "\"alpha\" is Isolation Zone...It is permitted...")));
}

} // namespace ZoneTest
