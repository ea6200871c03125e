#include "main/Termination.h"

#include "tests/support/unit/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

using testing::Contains;
using testing::Not;
using testing::StartsWith;
using ZoneTest::IsRecord;
using ZoneTest::LogCapture;

// Takes the place of the C library's in this program: one that changes the error number.
extern "C" char* strsignal(int signal) noexcept
{
    static std::string text;
    text = sigdescr_np(signal);
    errno = EINVAL;
    return text.data();
}

TEST(Termination, NamesTheSignalFirst)
{
    const LogCapture log;
    handle_termination_signal(SIGTERM);
    const auto records = log.records();
    ASSERT_FALSE(records.empty());
    EXPECT_THAT(records.front(), IsRecord('F', "[Main Thread] received \"Terminated\" signal : 15"));
    EXPECT_EQ(records.front().function, "handle_termination_signal");
    EXPECT_EQ(records.front().colour, "01;35;40");
}

TEST(Termination, LeavesTheInterruptedErrorNumber)
{
    const LogCapture log;
    errno = 4711;
    handle_termination_signal(SIGTERM);
    EXPECT_EQ(errno, 4711);
}

TEST(Termination, MayArriveBeforeAnythingRunsAndAgain)
{
    const LogCapture log;
    handle_termination_signal(SIGTERM);
    handle_termination_signal(SIGTERM);
    EXPECT_THAT(log.texts(), Not(Contains(StartsWith("E "))));
}
