// When a zone's event source wants to be dispatched, and how long its loop may sleep. The counter that
// throttles the line of a zone that has not been started belongs to the source file, which is therefore a
// part of this program.
#include "source/ZoneCore/Zone.cpp" // NOLINT(bugprone-suspicious-include)

#include "tests/ZoneCore/ZoneThreadFixture.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

using namespace ZoneCore;
using testing::ElementsAre;
using testing::IsEmpty;
using ZoneTest::atThread;
using ZoneTest::Driven;
using ZoneTest::ZONE_THREAD;

namespace {

const int firstCount = logcount;
constexpr const char* FAILED = "E prepare callback event error. set timeout to 5000 miliseconds";

std::string notStartedLine(const std::string& thread, int count)
{
    return "I Auto start zone is not started yet. the timeout of prepare callback is set to 200 miliseconds" +
           atThread(thread) + "[" + std::to_string(count) + "]";
}

struct Prepared
{
    bool ready;
    int timeout;
    bool operator==(const Prepared&) const = default;
};

Prepared prepare(GSource* source)
{
    gint timeout = -1;
    const bool ready = Zone::prepareCallback(source, &timeout) != FALSE;
    return {ready, timeout};
}

void PrintTo(const Prepared& prepared, std::ostream* stream)
{
    *stream << (prepared.ready ? "ready" : "not ready") << ", " << prepared.timeout << " ms";
}

class ZonePrepare : public ZoneTest::ZoneThreadTest
{
protected:
    void SetUp() override
    {
        ZoneThreadTest::SetUp();
        logcount = 1; // nothing to write
    }
};

} // namespace

TEST_F(ZonePrepare, SleepsThreeSeconds)
{
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 3000}));
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(logcount, 1);
}

TEST_F(ZonePrepare, IsReadyWhileAnEventWaits)
{
    send(eZONE_EVENT_ATTACH);
    EXPECT_EQ(prepare(zone->source()), (Prepared{true, 3000}));
    zone->drain();
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 3000}));
}

TEST_F(ZonePrepare, SleepsLittleUntilItsAutomaticStartWasRequested)
{
    zone->autoStart = true;
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 200}));
    EXPECT_EQ(logcount, 2);
    send(eZONE_EVENT_ATTACH);
    EXPECT_EQ(prepare(zone->source()), (Prepared{true, 200}));
    zone->drain();
    zone->autoStartRequested = true;
    const int count = logcount;
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 3000}));
    zone->autoStart = false;
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 3000}));
    EXPECT_EQ(logcount, count);
}

TEST_F(ZonePrepare, WritesTheNotStartedLineOnEveryFifthCallOfAnyZone)
{
    EXPECT_EQ(firstCount, 0);
    logcount = firstCount;
    zone->autoStart = true;
    Driven<Zone> other;
    other.autoStart = true;
    other.setUp("thread-other");
    log.clear();
    for (int call = 0; call < 6; ++call) {
        EXPECT_EQ(prepare(zone->source()), (Prepared{false, 200}));
        EXPECT_EQ(prepare(other.source()), (Prepared{false, 200}));
    }
    EXPECT_THAT(log.texts(), ElementsAre(notStartedLine(ZONE_THREAD, 0), notStartedLine("thread-other", 5),
                                         notStartedLine(ZONE_THREAD, 10)));
    EXPECT_EQ(logcount, 12);
    other.destroyEventQueue();
}

TEST_F(ZonePrepare, CountsFromTheBeginningAfterTheGreatestNumber)
{
    zone->autoStart = true;
    logcount = std::numeric_limits<int>::max() - 1;
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 200}));
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 200}));
    EXPECT_THAT(log.texts(), ElementsAre(notStartedLine(ZONE_THREAD, 0)));
    EXPECT_EQ(logcount, 1);
}

TEST_F(ZonePrepare, ReportsAMissingSource)
{
    EXPECT_EQ(prepare(nullptr), (Prepared{false, 5000}));
    EXPECT_THAT(log.texts(), ElementsAre(FAILED));
}

TEST_F(ZonePrepare, ReportsASourceWithoutAZone)
{
    EventSource record{};
    EXPECT_EQ(prepare(&record.source), (Prepared{false, 5000}));
    EXPECT_THAT(log.texts(), ElementsAre(FAILED));
}

TEST_F(ZonePrepare, ReportsAZoneWithoutAQueue)
{
    zone->destroyEventQueue();
    log.clear();
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 5000}));
    EXPECT_THAT(log.texts(), ElementsAre(FAILED));
}

TEST_F(ZonePrepare, CountsBeforeItLooksForTheQueue)
{
    zone->autoStart = true;
    logcount = 5;
    zone->destroyEventQueue();
    log.clear();
    EXPECT_EQ(prepare(zone->source()), (Prepared{false, 5000}));
    EXPECT_THAT(log.texts(), ElementsAre(notStartedLine(ZONE_THREAD, 5), FAILED));
    EXPECT_EQ(logcount, 6);
}

TEST_F(ZonePrepare, TouchesNothingOnceTheGateIsClosed)
{
    zone->autoStart = true;
    logcount = 0;
    send(eZONE_EVENT_ATTACH);
    log.clear();
    ZoneTest::behindAClosedGate([this] { EXPECT_EQ(prepare(zone->source()), (Prepared{false, 5000})); });
    EXPECT_EQ(logcount, 0);
    EXPECT_THAT(log.texts(), IsEmpty());
    zone->drain();
}
