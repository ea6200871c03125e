#include "Device/QuietCorner.h"

#include "tests/support/unit/PrivateRoot.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <poll.h>
#include <sys/wait.h>

namespace fs = std::filesystem;
using namespace Zonectl;
using namespace std::chrono_literals;

namespace {

constexpr auto LONG_ENOUGH = 60s;

class LookQuietly : public ZoneTest::InPrivateRoot
{
protected:
    void TearDown() override
    {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left behind";
        EXPECT_EQ(errno, ECHILD);
    }
};

} // namespace

TEST_F(LookQuietly, WhatIsSeenComesBackWhole)
{
    EXPECT_EQ(lookQuietly([] { return std::string(); }, LONG_ENOUGH), "");
    const std::string text(1000000, '\0'); // more than a pipe holds
    EXPECT_EQ(lookQuietly([&text] { return text; }, LONG_ENOUGH), text);
}

TEST_F(LookQuietly, NothingIsLeftInTheRunDirectory)
{
    ZoneTest::writeFile("/run/ours", "");
    const auto seen = lookQuietly(
        [] {
            ZoneTest::writeFile("/run/theirs", "");
            return std::string(fs::exists("/run/ours") ? "ours " : "") +
                   (fs::exists("/run/theirs") ? "theirs" : "");
        },
        LONG_ENOUGH);
    EXPECT_EQ(seen, "theirs");
    EXPECT_TRUE(fs::exists("/run/ours"));
    EXPECT_FALSE(fs::exists("/run/theirs"));
}

TEST_F(LookQuietly, ComplaintsGoNowhere)
{
    testing::internal::CaptureStderr();
    EXPECT_TRUE(lookQuietly(
        [] {
            std::cerr << "a complaint" << std::endl;
            return std::string();
        },
        LONG_ENOUGH));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(LookQuietly, WhoDiesOnTheWayHasSeenNothing)
{
    const auto seen = lookQuietly(
        [] {
            static_cast<void>(raise(SIGKILL));
            return std::string("seen");
        },
        LONG_ENOUGH);
    EXPECT_FALSE(seen);
}

TEST_F(LookQuietly, WhoTakesTooLongIsGivenUp)
{
    const auto seen = lookQuietly(
        [] {
            poll(nullptr, 0, -1);
            return std::string("seen");
        },
        1ms);
    EXPECT_FALSE(seen);
}
