#include "platform/lxc_adapter/container_type.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

int typeOf(const std::string& configuration)
{
    std::istringstream stream(configuration);
    return LxcAdapter::readContainerType(stream);
}

} // namespace

TEST(ContainerType, ReadsNumbersAndWords)
{
    EXPECT_EQ(typeOf("zone.container_type = 1\n"), 1);
    EXPECT_EQ(typeOf("zone.container_type = 2\n"), 2);
    EXPECT_EQ(typeOf("zone.container_type = 3\n"), 3);
    EXPECT_EQ(typeOf("zone.container_type = isolation\n"), 1);
    EXPECT_EQ(typeOf("zone.container_type = hybrid\n"), 2);
    EXPECT_EQ(typeOf("zone.container_type = protection\n"), 3);
}

TEST(ContainerType, BlanksAndAMissingLastNewlineDoNotMatter)
{
    EXPECT_EQ(typeOf("  zone.container_type=2"), 2);
    EXPECT_EQ(typeOf("lxc.uts.name = x\n\tzone.container_type\t =  hybrid \t\r\nlxc.tty.max = 1\n"), 2);
}

TEST(ContainerType, AnythingElseIsNoType)
{
    for (const char* value :
         {"0", "4", "-1", "02", "2x", "Hybrid", "", "1 2", "\"2\"", "isolation # comment"}) {
        EXPECT_EQ(typeOf(std::string("zone.container_type = ") + value + "\n"), -1) << value;
    }
    EXPECT_EQ(typeOf(""), -1);
    EXPECT_EQ(typeOf("zone.container_type\n"), -1);
    EXPECT_EQ(typeOf("# zone.container_type = 2\n"), -1);
    EXPECT_EQ(typeOf("zone.container_types = 2\nlxc.container_type = 2\nazone.container_type = 2\n"), -1);
}

TEST(ContainerType, TheLastLineHolds)
{
    EXPECT_EQ(typeOf("zone.container_type = 1\nzone.container_type = 3\n"), 3);
    EXPECT_EQ(typeOf("zone.container_type = 1\nzone.container_type = 9\n"), -1);
}

TEST(ContainerType, AFileThatIsNotThereNamesNoType)
{
    EXPECT_EQ(LxcAdapter::readContainerType(std::string("/nowhere/config")), -1);
    EXPECT_EQ(LxcAdapter::readContainerType(std::string("/")), -1);
}
