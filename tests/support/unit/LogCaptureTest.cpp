#include "tests/support/unit/LogCapture.h"

#include "Common/Log.h"
#include "Common/ThreadId.h"

#include <gtest/gtest.h>

#include <thread>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using ZoneTest::IsRecord;
using ZoneTest::LogCapture;

TEST(LogCapture, TakesARecordApart)
{
    const LogCapture log;
    ZLOGW("one %d [two:3] three", 1);
    const int line = __LINE__ - 1;
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].level, 'W');
    EXPECT_EQ(records[0].process, getpid());
    EXPECT_EQ(records[0].thread, ZoneCore::currentThreadId());
    EXPECT_EQ(records[0].file, "LogCaptureTest.cpp");
    EXPECT_EQ(records[0].function, "TestBody");
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].colour, "01;35;40");
    EXPECT_THAT(records[0].signature, HasSubstr("::TestBody()"));
    EXPECT_EQ(records[0].body, "one 1 [two:3] three");
}

TEST(LogCapture, KnowsEveryLevel)
{
    const LogCapture log;
    ZLOGD("a");
    ZLOGI("b");
    ZLOGW("c");
    ZLOGE("d");
    ZLOGF("e");
    EXPECT_THAT(log.texts(), ElementsAre("D a", "I b", "W c", "E d", "F e"));
    EXPECT_THAT(log.records(), testing::Contains(IsRecord('E', "d")));
}

TEST(LogCapture, KeepsOtherLinesApart)
{
    const LogCapture log;
    static_cast<void>(dprintf(STDERR_FILENO, "no record\n"));
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(log.otherLines(), ElementsAre("no record"));
}

TEST(LogCapture, ForgetsWhatWasCleared)
{
    LogCapture log;
    ZLOGI("before");
    log.clear();
    ZLOGI("after");
    EXPECT_THAT(log.texts(), ElementsAre("I after"));
}

TEST(LogCapture, WaitsForAnotherThread)
{
    const LogCapture log;
    std::thread writer([] { ZLOGI("from elsewhere"); });
    EXPECT_TRUE(log.waitForText("I from elsewhere"));
    EXPECT_FALSE(log.waitForText("I never", std::chrono::milliseconds(5)));
    writer.join();
}

TEST(LogCapture, GivesStandardErrorBack)
{
    const LogCapture outer;
    {
        const LogCapture inner;
        ZLOGI("inner");
    }
    ZLOGI("outer");
    EXPECT_THAT(outer.texts(), ElementsAre("I outer"));
}
