#include "main/Termination.h"

#include "Common/ThreadId.h"
#include "ZoneCore/ZoneContext.h"
#include "ZoneCore/ZoneManager.h"
#include "tests/support/unit/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

using testing::ElementsAre;
using ZoneCore::currentThreadId;
using ZoneCore::ZoneContext;
using ZoneCore::ZoneManager;
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
    ZoneContext::deleteSingleton();
    ZoneManager::deleteSingleton();
    const LogCapture log;
    handle_termination_signal(SIGTERM);
    handle_termination_signal(SIGTERM);
    const std::string tid = std::to_string(currentThreadId());
    const std::string received = "F [Main Thread] received \"Terminated\" signal : 15";
    const std::string notRunning = "I Thread is not running(thread name : , thread id : " + tid + ")";
    const std::string terminated = "I [:" + tid + "] The mainloop of thread  is terminated";
    EXPECT_THAT(log.texts(),
                ElementsAre(received, "I Thread is created", "I zone manager instance is created",
                            "I Singletone object of Zone Manager is created...",
                            "I ZoneContext object is created",
                            "I Singletone object of Zone Context is created...", notRunning, terminated,
                            received, notRunning, terminated));
}
