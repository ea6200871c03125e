#pragma once

#include "tests/Common/ThreadProbe.h"
#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/LogCapture.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

namespace ZoneTest {

/// The base of the tests of Thread.
class ThreadFixture : public testing::Test
{
protected:
    LogCapture log;
};

/// A thread whose loop runs; ended with the object.
class RunningThread
{
public:
    explicit RunningThread(const std::string& name) : probe(name)
    {
        EXPECT_TRUE(probe.run());
        EXPECT_TRUE(eventually([this] { return probe.isRunning(); }));
    }
    ~RunningThread() { endLoop(probe); }
    RunningThread(const RunningThread&) = delete;
    RunningThread& operator=(const RunningThread&) = delete;

    ThreadProbe probe;
};

inline ZoneCore::ZoneEvent* anyEvent()
{
    return ZoneCore::Thread::createZoneEvent(ZoneCore::eZONE_EVENT_START, ZoneCore::NONE, nullptr);
}

inline int countAndGoOn(void* counter)
{
    ++*static_cast<int*>(counter);
    return G_SOURCE_CONTINUE;
}

inline int countAndEnd(void* counter)
{
    ++*static_cast<int*>(counter);
    return G_SOURCE_REMOVE;
}

/// How long a context would wait in poll if nothing happened; milliseconds.
inline int pollTimeoutOf(GMainContext* context)
{
    int priority = 0;
    int timeout = 0;
    std::array<GPollFD, 8> fds{};
    EXPECT_TRUE(g_main_context_acquire(context));
    static_cast<void>(g_main_context_prepare(context, &priority));
    static_cast<void>(
        g_main_context_query(context, priority, &timeout, fds.data(), static_cast<int>(fds.size())));
    g_main_context_release(context);
    return timeout;
}

/// A reference by which a test can look at a source that somebody else has released.
using SourcePtr = std::unique_ptr<GSource, ZoneCore::FreeWith<g_source_unref>>;
inline SourcePtr watch(void* source)
{
    return SourcePtr(g_source_ref(static_cast<GSource*>(source)));
}

} // namespace ZoneTest
