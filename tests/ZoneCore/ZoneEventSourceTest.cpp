// A zone's event source: how it is made and replaced, and how it drains the queue. Functions of GLib are
// replaced in this program to see in what state a source is attached, and to let them fail.
#include "ZoneCore/Zone.h"
#include "tests/ZoneCore/ZoneThreadFixture.h"
#include "tests/support/unit/Seam.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace ZoneCore;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using ZoneTest::KeptSource;

namespace {

bool sourcesCannotBeMade = false;
bool popsNothing = false;

/// What an event source was like when it was attached.
struct Attached
{
    std::string name;
    const Thread* owner;
    GMainContext* context;
};
std::vector<Attached>* attached = nullptr;

} // namespace

extern "C" {

GSource* g_source_new(GSourceFuncs* functions, guint size)
{
    return sourcesCannotBeMade ? nullptr : ZoneTest::genuine(&g_source_new, "g_source_new")(functions, size);
}

guint g_source_attach(GSource* source, GMainContext* context)
{
    if (attached != nullptr) {
        const char* name = g_source_get_name(source);
        attached->push_back(
            {name == nullptr ? "" : name, reinterpret_cast<EventSource*>(source)->owner, context});
    }
    return ZoneTest::genuine(&g_source_attach, "g_source_attach")(source, context);
}

gpointer g_async_queue_try_pop(GAsyncQueue* queue)
{
    return popsNothing ? nullptr : ZoneTest::genuine(&g_async_queue_try_pop, "g_async_queue_try_pop")(queue);
}
}

namespace {

class ZoneEventSource : public ZoneTest::ZoneThreadTest
{
protected:
    ~ZoneEventSource() override
    {
        sourcesCannotBeMade = false;
        popsNothing = false;
        attached = nullptr;
    }

    /// The dispatch of one event and the record of its handler.
    [[nodiscard]] static std::vector<std::string> dispatchOf(const std::string& record)
    {
        auto lines = dispatchLines();
        lines.push_back(at(record));
        return lines;
    }
};

} // namespace

// Attaching.

TEST_F(ZoneEventSource, HasItsNameAndItsZoneWhenItIsAttached)
{
    std::vector<Attached> seen;
    attached = &seen;
    EXPECT_TRUE(zone->attachEventSource());
    attached = nullptr;
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].name, "ZoneEvent");
    EXPECT_EQ(seen[0].owner, zone.get());
    EXPECT_EQ(seen[0].context, zone->context());
    EXPECT_EQ(g_source_get_context(zone->source()), zone->context());
}

TEST_F(ZoneEventSource, CallsTheZone)
{
    const GSourceFuncs* functions = zone->source()->source_funcs;
    EXPECT_EQ(functions->prepare, &Zone::prepareCallback);
    EXPECT_EQ(functions->check, nullptr);
    EXPECT_EQ(functions->dispatch, &Zone::dispatchCallback);
    EXPECT_EQ(functions->finalize, &Zone::finalizeCallback);
    Zone::finalizeCallback(zone->source()); // does nothing
    EXPECT_FALSE(g_source_is_destroyed(zone->source()));
}

TEST_F(ZoneEventSource, ReplacesAnEarlierOne)
{
    const KeptSource first(zone->source());
    EXPECT_TRUE(zone->attachEventSource());
    EXPECT_THAT(log.texts(), ElementsAre(atId("W [Zone] event source is already created"), releaseLine()));
    EXPECT_TRUE(first.isReleased());
    EXPECT_NE(zone->source(), first.get());
    EXPECT_FALSE(g_source_is_destroyed(zone->source()));
}

TEST_F(ZoneEventSource, IsGoneWhenANewOneCannotBeMade)
{
    const KeptSource first(zone->source());
    sourcesCannotBeMade = true;
    EXPECT_FALSE(zone->attachEventSource());
    EXPECT_THAT(log.texts(), ElementsAre(atId("W [Zone] event source is already created"), releaseLine()));
    EXPECT_TRUE(first.isReleased());
    EXPECT_EQ(zone->source(), nullptr);
}

TEST_F(ZoneEventSource, IsMadeSilently)
{
    ZoneTest::Driven<Zone> fresh;
    ASSERT_TRUE(fresh.initialize(false, "thread-fresh"));
    log.clear();
    EXPECT_TRUE(fresh.attachEventSource());
    EXPECT_THAT(log.texts(), IsEmpty());
}

// Dispatching.

TEST_F(ZoneEventSource, DispatchesOneEventAtATimeInOrder)
{
    send(eZONE_EVENT_CHANGE_STATE, STARTING);
    send(eZONE_EVENT_CHANGE_STATE, STOPPING);
    log.clear();
    EXPECT_TRUE(g_main_context_iteration(zone->context(), FALSE));
    EXPECT_EQ(zone->state.load(), STARTING);
    EXPECT_THAT(log.texts(), ElementsAreArray(dispatchOf("I receive the event - ZONE CHANGE STATE[2] ")));
    log.clear();
    EXPECT_TRUE(g_main_context_iteration(zone->context(), FALSE));
    EXPECT_EQ(zone->state.load(), STOPPING);
    EXPECT_THAT(log.texts(), ElementsAreArray(dispatchOf("I receive the event - ZONE CHANGE STATE[4] ")));
    EXPECT_EQ(zone->drain(), 0);
}

TEST_F(ZoneEventSource, DropsAnUnknownKindAndGoesOn)
{
    for (const int type : {0, 7, 8, 9, 10}) {
        EXPECT_THAT(handle(static_cast<ZoneEventType>(type)), ElementsAre(at("E event type is invalid")));
    }
    EXPECT_FALSE(g_source_is_destroyed(zone->source()));
    EXPECT_THAT(handle(eZONE_EVENT_CHANGE_STATE, STARTING),
                ElementsAre(at("I receive the event - ZONE CHANGE STATE[2] ")));
}

TEST_F(ZoneEventSource, StaysWithoutAnEvent)
{
    EventSource withoutZone{};
    EXPECT_TRUE(Zone::dispatchCallback(nullptr, nullptr, nullptr));
    EXPECT_TRUE(Zone::dispatchCallback(&withoutZone.source, nullptr, nullptr));
    EXPECT_TRUE(Zone::dispatchCallback(zone->source(), nullptr, nullptr));
    zone->destroyEventQueue();
    log.clear();
    EXPECT_TRUE(Zone::dispatchCallback(zone->source(), nullptr, nullptr));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ZoneEventSource, StaysWhenTheEventIsGoneMeanwhile)
{
    send(eZONE_EVENT_CHANGE_STATE, STARTING);
    log.clear();
    popsNothing = true;
    EXPECT_TRUE(Zone::dispatchCallback(zone->source(), nullptr, nullptr));
    popsNothing = false;
    EXPECT_THAT(log.texts(), ElementsAre(dispatchLines().front()));
    EXPECT_EQ(zone->state.load(), NONE);
    EXPECT_EQ(zone->drain(), 1);
}

TEST_F(ZoneEventSource, LeavesTheQueueAloneOnceTheGateIsClosed)
{
    send(eZONE_EVENT_CHANGE_STATE, STARTING);
    log.clear();
    ZoneTest::behindAClosedGate(
        [this] { EXPECT_TRUE(Zone::dispatchCallback(zone->source(), nullptr, nullptr)); });
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(zone->drain(), 1);
}
