#include "Common/Thread.h"

#include "tests/Common/ThreadFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using testing::ElementsAre;
using testing::IsEmpty;
using ZoneTest::countAndEnd;
using ZoneTest::countAndGoOn;
using ZoneTest::iterate;
using ZoneTest::nameAndId;
using ZoneTest::pollTimeoutOf;
using ZoneTest::SourcePtr;
using ZoneTest::ThreadFixture;
using ZoneTest::ThreadProbe;
using ZoneTest::watch;

namespace {

using ThreadTimer = ThreadFixture;

} // namespace

TEST_F(ThreadTimer, NeedsAContext)
{
    ThreadProbe thread;
    int count = 0;
    log.clear();
    EXPECT_EQ(thread.attachTimerSource(1, countAndGoOn, &count, true), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get the main context of thread" + nameAndId("")));
    EXPECT_THAT(thread.timerSources, IsEmpty());
}

TEST_F(ThreadTimer, RunsOnTheThreadsOwnContextUntilItsCallbackEndsIt)
{
    ThreadProbe thread("zone");
    int goesOn = 0;
    int ends = 0;
    void* first = thread.attachTimerSource(0, countAndGoOn, &goesOn, true);
    void* second = thread.attachTimerSource(0, countAndEnd, &ends, true);
    EXPECT_EQ(g_source_get_context(static_cast<GSource*>(first)), thread.mainContext);
    EXPECT_EQ(g_source_get_context(static_cast<GSource*>(second)), thread.mainContext);
    iterate(thread.mainContext);
    iterate(thread.mainContext);
    EXPECT_EQ(goesOn, 2);
    EXPECT_EQ(ends, 1);
}

TEST_F(ThreadTimer, TakesItsIntervalInMilliseconds)
{
    ThreadProbe thread("zone");
    int count = 0;
    static_cast<void>(thread.attachTimerSource(1234, countAndGoOn, &count, true));
    const int timeout = pollTimeoutOf(thread.mainContext);
    EXPECT_LE(timeout, 1234);
    EXPECT_GT(timeout, 200);
}

TEST_F(ThreadTimer, IsKeptWhenItIsAskedFor)
{
    ThreadProbe thread("zone");
    int count = 0;
    log.clear();
    void* kept = thread.attachTimerSource(1000, countAndGoOn, &count, true);
    void* notKept = thread.attachTimerSource(1000, countAndGoOn, &count, false);
    void* alsoKept = thread.attachTimerSource(1000, countAndGoOn, &count, true);
    EXPECT_THAT(thread.timerSources, ElementsAre(kept, alsoKept));
    EXPECT_THAT(log.texts(), ElementsAre("I Timer Source Count : 1" + nameAndId("zone"),
                                         "I Timer Source Count : 1" + nameAndId("zone"),
                                         "I Timer Source Count : 2" + nameAndId("zone")));
    thread.releaseEventSource(static_cast<GSource*>(notKept));
}

TEST_F(ThreadTimer, OnTheDefaultContextNeedsALoop)
{
    ThreadProbe thread;
    int count = 0;
    log.clear();
    EXPECT_FALSE(thread.addTimerEvent(250, countAndEnd, &count));
    EXPECT_THAT(log.texts(),
                ElementsAre("E Failed to add the timer event(thread name : , thread id : " +
                            std::to_string(ZoneCore::currentThreadId()) + ", timer interval : 250)"));
}

TEST_F(ThreadTimer, OnTheDefaultContextWhateverTheThreadsOwnIs)
{
    ThreadProbe thread("zone");
    int count = 0;
    EXPECT_TRUE(thread.addTimerEvent(0, countAndEnd, &count));
    iterate(thread.mainContext);
    EXPECT_EQ(count, 0);
    iterate(g_main_context_default());
    iterate(g_main_context_default());
    EXPECT_EQ(count, 1);
    EXPECT_THAT(thread.timerSources, IsEmpty());
}

TEST_F(ThreadTimer, ReleasingNoneOnlyLogs)
{
    ThreadProbe thread("zone");
    log.clear();
    thread.releaseEventSource(nullptr);
    EXPECT_THAT(log.texts(),
                ElementsAre("I release the event source from the main context" + nameAndId("zone")));
}

TEST_F(ThreadTimer, ReleasingTakesTheSourceOutOfItsContext)
{
    ThreadProbe thread("zone");
    int count = 0;
    void* timer = thread.attachTimerSource(0, countAndGoOn, &count, false);
    const SourcePtr watched = watch(timer);
    thread.releaseEventSource(static_cast<GSource*>(timer));
    EXPECT_TRUE(g_source_is_destroyed(watched.get()));
    iterate(thread.mainContext);
    EXPECT_EQ(count, 0);
}
