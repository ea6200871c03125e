#pragma once

#include "Common/Log.h"
#include "Common/ThreadGate.h"
#include "ZoneCore/Zone.h"
#include "tests/ZoneCore/ZoneFixtures.h"

#include <gtest/gtest.h>
#include <lxc/lxccontainer.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

/// What the tests of a zone's thread share: a zone whose events are dispatched by the test.
namespace ZoneTest {

constexpr const char* ZONE = "alpha";
/// The thread has another name than the zone, so that no message can mix them up.
constexpr const char* ZONE_THREAD = "thread-alpha";

/// Makes a function of a container's handle write its name into the log, as "D NAME", before it does its
/// work: it then stands in order among the zone's records. Once for a handle.
template <auto Function>
void noteCalls(lxc_container* handle, const char* name)
{
    static std::remove_reference_t<decltype(handle->*Function)> genuine;
    static const char* text;
    genuine = handle->*Function;
    text = name;
    handle->*Function = [](lxc_container* container) {
        ZLOGD("%s", text);
        return genuine(container);
    };
}

inline void noteAllCalls(lxc_container* handle)
{
    noteCalls<&lxc_container::may_control>(handle, "may_control");
    noteCalls<&lxc_container::is_running>(handle, "is_running");
    noteCalls<&lxc_container::init_pid>(handle, "init_pid");
    noteCalls<&lxc_container::state>(handle, "state");
    noteCalls<&lxc_container::freeze>(handle, "freeze");
    noteCalls<&lxc_container::unfreeze>(handle, "unfreeze");
}

/// Holds on to a source, to look at it when its owner has let go of it; an event source while its zone lives.
class KeptSource
{
public:
    explicit KeptSource(GSource* kept) : source(g_source_ref(kept)) {}
    ~KeptSource() { g_source_unref(source); }
    KeptSource(const KeptSource&) = delete;
    KeptSource& operator=(const KeptSource&) = delete;

    [[nodiscard]] GSource* get() const { return source; }
    /// Out of its context, and nobody else holds it.
    [[nodiscard]] bool isReleased() const
    {
        return g_source_is_destroyed(source) != FALSE && source->ref_count == 1;
    }

private:
    GSource* source;
};

/// Runs a step on a thread whose gate the teardown has closed.
inline void behindAClosedGate(const std::function<void()>& step)
{
    std::thread([&] {
        ZoneCore::ThreadGate gate;
        gate.guardThisThread();
        EXPECT_TRUE(gate.close());
        step();
    }).join();
}

/// A zone with a container of the fake liblxc. Each call of that stands in the log, see noteCalls.
class ZoneThreadTest : public testing::Test
{
protected:
    void SetUp() override { use(std::make_unique<Driven<ZoneCore::Zone>>()); }
    void TearDown() override
    {
        if (zone != nullptr) {
            zone->destroyEventQueue();
        }
    }

    /// Makes this the zone of the test.
    void use(std::unique_ptr<Driven<ZoneCore::Zone>> other)
    {
        TearDown();
        control.define(ZONE, 2);
        zone = std::move(other);
        zone->zoneName = ZONE;
        zone->container->setHandle(lxc_container_new(ZONE, BASE_PATH));
        noteAllCalls(zone->container->getHandle());
        zone->setUp(ZONE_THREAD);
        log.clear();
    }

    void send(ZoneCore::ZoneEventType type, ZoneCore::ZoneState state = ZoneCore::NONE) const
    {
        EXPECT_TRUE(zone->sendEvent(ZoneCore::Thread::createZoneEvent(type, state, nullptr)));
    }
    /// Queues an event and dispatches it.
    /// @return what the handler wrote
    std::vector<std::string> handle(ZoneCore::ZoneEventType type, ZoneCore::ZoneState state = ZoneCore::NONE)
    {
        send(type, state);
        log.clear();
        EXPECT_TRUE(ZoneCore::Zone::dispatchCallback(zone->source(), nullptr, nullptr));
        auto texts = log.texts();
        const auto dispatched = dispatchLines();
        if (texts.size() < dispatched.size()) {
            ADD_FAILURE() << "the event was not dispatched";
            return {};
        }
        const auto own = texts.begin() + static_cast<std::ptrdiff_t>(dispatched.size());
        EXPECT_EQ(std::vector<std::string>(texts.begin(), own), dispatched);
        texts.erase(texts.begin(), own);
        return texts;
    }

    /// Writes a control file of the zone's container.
    void container(const std::string& file, const std::string& value = "") const
    {
        control.set(std::string("containers/") + ZONE + "/" + file, value);
    }

    /// A message of the zone's thread, which is the test's own here.
    [[nodiscard]] static std::string at(const std::string& text) { return text + atThread(ZONE_THREAD); }
    /// The same with the other word for the id, and more behind it.
    [[nodiscard]] static std::string atId(const std::string& text, const std::string& more = "")
    {
        return text + "(thread name : " + ZONE_THREAD +
               ", thread id : " + std::to_string(ZoneCore::currentThreadId()) + more + ")";
    }
    [[nodiscard]] static std::string releaseLine()
    {
        return atId("I release the event source from the main context");
    }
    /// What precedes the records of a handler.
    [[nodiscard]] static std::vector<std::string> dispatchLines()
    {
        return {at("I [GSource Name : ZoneEvent] Dispatch the event"), at("I Dispatch the event")};
    }

    LogCapture log;
    FakeLxcControl control;
    std::unique_ptr<Driven<ZoneCore::Zone>> zone;
};

} // namespace ZoneTest
