// A zone's life, and what the base of all kinds answers. Its event source, its commands and its watcher have
// files of their own.
#include "ZoneCore/Zone.h"
#include "tests/ZoneCore/ZoneThreadFixture.h"
#include "tests/support/unit/Eventually.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <type_traits>

using namespace ZoneCore;
using testing::ElementsAre;
using ZoneTest::eventually;
using ZoneTest::KeptSource;
using ZoneTest::LogCapture;
using ZoneTest::LogRecord;

namespace {

using ZoneLife = ZoneTest::ZoneThreadTest;

/// A zone on a thread of its own.
class RunningZone : public Zone
{
public:
    explicit RunningZone(const std::string& name)
    {
        autoStart = true; // looks at its queue every 200 ms
        EXPECT_TRUE(initialize(false, name));
        EXPECT_TRUE(createEventQueue());
        EXPECT_TRUE(attachEventSource());
        EXPECT_TRUE(run());
        EXPECT_TRUE(eventually([this] { return isRunning(); }));
    }
    /// Quits the loop and waits for the thread's end.
    ~RunningZone() override
    {
        terminate();
        static_cast<void>(g_thread_join(g_thread_ref(gthread)));
        destroyEventQueue();
    }
    RunningZone(const RunningZone&) = delete;
    RunningZone& operator=(const RunningZone&) = delete;
};

std::optional<LogRecord> recordOf(const LogCapture& log, const std::string& beginning)
{
    for (const LogRecord& record : log.records()) {
        if (record.body.rfind(beginning, 0) == 0) {
            return record;
        }
    }
    return std::nullopt;
}

} // namespace

TEST_F(ZoneLife, StartsEmpty)
{
    const Zone fresh;
    EXPECT_THAT(log.texts(), ElementsAre("I Thread is created", "I Zone object is created"));
    EXPECT_EQ(fresh.initPid.load(), 0);
    EXPECT_EQ(fresh.zoneName, "");
    EXPECT_EQ(fresh.basePath, "");
    EXPECT_EQ(fresh.rootfsPath, "");
    EXPECT_FALSE(fresh.autoStart);
    EXPECT_FALSE(fresh.autoStartRequested.load());
    EXPECT_FALSE(fresh.restartFlag.load());
    EXPECT_EQ(fresh.operationType.load(), ZUP::ZONE_OPERATION_NONE);
    EXPECT_EQ(fresh.state.load(), NONE);
    EXPECT_EQ(fresh.watcherTimerId, 0U);
    EXPECT_FALSE(fresh.stopAwaitsReport);
    ASSERT_NE(fresh.container, nullptr);
    EXPECT_EQ(fresh.container->getHandle(), nullptr);
}

TEST_F(ZoneLife, IsOfNoKindAndPermitsEverything)
{
    zone->setZoneType(ZUP::ZONE_TYPE_HYBRID);
    EXPECT_EQ(zone->getZoneType(), 0);
    EXPECT_TRUE(zone->checkZoneSmackLabel());
    EXPECT_TRUE(zone->checkROZoneSmackLabel("/nowhere", "!"));
    EXPECT_TRUE(zone->checkRWZoneSmackLabel("/nowhere", "!"));
    EXPECT_TRUE(zone->checkAutoStart());
    EXPECT_THAT(log.texts(), testing::IsEmpty());
}

TEST_F(ZoneLife, EndsWithItsWatcherThenItsContainerThenItsThread)
{
    container("init_pid", "77");
    static_cast<void>(handle(eZONE_EVENT_CHANGE_STATE, RUNNING));
    const KeptSource watcher(g_main_context_find_source_by_id(zone->context(), zone->watcherTimerId));
    zone->destroyEventQueue();
    log.clear();
    zone.reset();
    EXPECT_THAT(log.texts(), ElementsAre(releaseLine(), "I thread count of container...[1]",
                                         "I Container object is destroyed...",
                                         "I Zone object is destroyed(zone name : alpha)", releaseLine(),
                                         releaseLine(), atId("I Thread is destroyed")));
    EXPECT_TRUE(watcher.isReleased());
    EXPECT_EQ(control.calls().back(), "lxc_container_put alpha 0 -");
}

TEST_F(ZoneLife, EndsWithoutAWatcherAndWithoutAContainer)
{
    auto fresh = std::make_unique<Zone>();
    fresh->zoneName = "beta";
    ASSERT_TRUE(fresh->initialize(false, ZoneTest::ZONE_THREAD));
    log.clear();
    fresh.reset();
    EXPECT_THAT(log.texts(), ElementsAre("I Container object is destroyed...",
                                         "I Zone object is destroyed(zone name : beta)", releaseLine(),
                                         atId("I Thread is destroyed")));
}

TEST_F(ZoneLife, NeverThrowsAtItsEnd)
{
    EXPECT_TRUE(std::is_nothrow_destructible_v<Zone>);
}

TEST_F(ZoneLife, CarriesOutItsCommandsOnItsOwnThread)
{
    RunningZone running("thread-own");
    ASSERT_TRUE(running.sendEvent(Thread::createZoneEvent(eZONE_EVENT_CHANGE_STATE, STARTING, nullptr)));
    const std::string beginning = "receive the event - ZONE CHANGE STATE[2] ";
    ASSERT_TRUE(eventually([&] { return recordOf(log, beginning).has_value(); }));
    const LogRecord record = *recordOf(log, beginning);
    EXPECT_NE(record.thread, currentThreadId());
    EXPECT_EQ(record.body,
              beginning + "(thread name : thread-own, tid : " + std::to_string(record.thread) + ")");
}
