#include "MonitorProbe.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/wait.h>

using namespace Zonectl;

TEST(AskMonitors, WithoutALibraryNothingIsKnownAndNobodyIsLeft)
{
    const auto voices = askMonitors({"blue", "red"});
    ASSERT_EQ(voices.size(), 2U);
    EXPECT_EQ(voices.at("blue"), MonitorVoice::Unknown);
    EXPECT_EQ(voices.at("red"), MonitorVoice::Unknown);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(AskMonitors, NobodyIsAskedForNothing)
{
    EXPECT_TRUE(askMonitors({}).empty());
}
