// The commands that a zone's thread carries out. What it asks liblxc meanwhile stands among its records, as
// "D NAME".
#include "ZoneCore/Zone.h"
#include "ZoneCore/ZoneMonitor.h"
#include "tests/ZoneCore/ZoneThreadFixture.h"

#include <gtest/gtest.h>

#include <lxc/lxccontainer.h>
#include <string>
#include <vector>

using namespace ZoneCore;
using testing::ElementsAre;
using testing::IsEmpty;
using ZoneTest::atThread;
using ZoneTest::byThread;
using ZoneTest::ManagerFixture;

namespace {

class ZoneCommands : public ZoneTest::ZoneThreadTest
{
protected:
    void SetUp() override
    {
        ZoneThreadTest::SetUp();
        zone->restartFlag = true;
    }

    /// What a command did to the zone's fields, and how often the launcher ran.
    void expectOutcome(ZUP::ZoneOperationType operation, bool restart, std::size_t launches) const
    {
        EXPECT_EQ(zone->operationType.load(), operation);
        EXPECT_EQ(zone->restartFlag.load(), restart);
        EXPECT_EQ(control.launches(), launches);
    }
    /// The records of Container::state().
    [[nodiscard]] static std::vector<std::string> stateLines(const std::string& word)
    {
        return {"D state", "I The state of zone is received - \"" + word + "\"",
                "I ZoneContainerState instance is created", "I ZoneContainerState instance is destroyed"};
    }
    /// A command's records, of which those of Container::state() are the middle.
    [[nodiscard]] static std::vector<std::string> aroundState(std::vector<std::string> before,
                                                              const std::string& word,
                                                              const std::vector<std::string>& after = {})
    {
        const auto middle = stateLines(word);
        before.insert(before.end(), middle.begin(), middle.end());
        before.insert(before.end(), after.begin(), after.end());
        return before;
    }
};

} // namespace

// START.

TEST_F(ZoneCommands, StartsTheContainer)
{
    EXPECT_THAT(handle(eZONE_EVENT_START), ElementsAre(at("I receive the event - ZONE START"), "D is_running",
                                                       at("I alpha is started successfully")));
    expectOutcome(ZUP::ZONE_OPERATION_START, false, 1);
    EXPECT_THAT(control.text("launches"), testing::HasSubstr(R"("start","alpha"])"));
    EXPECT_EQ(zone->state.load(), NONE); // the monitor's business
}

TEST_F(ZoneCommands, StartsAZoneOfEveryStateButRunning)
{
    for (const ZoneState state : {NONE, STOPPED, STARTING, STOPPING, ABORTING, FREEZING, FROZEN, THAWED}) {
        zone->state = state;
        EXPECT_EQ(handle(eZONE_EVENT_START).back(), at("I alpha is started successfully")) << state;
        EXPECT_EQ(zone->state.load(), state);
    }
    EXPECT_EQ(control.launches(), 8U);
}

TEST_F(ZoneCommands, DoesNotStartARunningZone)
{
    zone->state = RUNNING;
    EXPECT_THAT(handle(eZONE_EVENT_START),
                ElementsAre(at("I receive the event - ZONE START"), at("W alpha is already running")));
    expectOutcome(ZUP::ZONE_OPERATION_NONE, true, 0);
}

TEST_F(ZoneCommands, AsksNobodyAfterAFailedStartOnRequest)
{
    const ManagerFixture manager;
    container("start", "exit 0");
    zone->autoStart = true; // but not asked for
    zone->operationType = ZUP::ZONE_OPERATION_STOP;
    std::vector<std::string> texts;
    const auto after = manager.whileRunning(log, [&] {
        texts = handle(eZONE_EVENT_START);
        log.clear();
    });
    EXPECT_THAT(texts, ElementsAre(at("I receive the event - ZONE START"), "D is_running",
                                   at("F Failed to start alpha")));
    EXPECT_THAT(after, IsEmpty());
    expectOutcome(ZUP::ZONE_OPERATION_STOP, true, 1);
}

TEST_F(ZoneCommands, AsksTheManagerOnceAfterAFailedAutomaticStart)
{
    const ManagerFixture manager;
    manager.setMonitor(new ZoneMonitor); // does not run, so the manager goes no further
    container("start", "exit 0");
    zone->autoStartRequested = true;
    std::vector<std::string> texts;
    const auto after = manager.whileRunning(log, [&] {
        texts = handle(eZONE_EVENT_START);
        log.clear();
    });
    const std::string id = std::to_string(currentThreadId());
    EXPECT_THAT(texts,
                ElementsAre(at("I receive the event - ZONE START"), "D is_running",
                            at("F Failed to start alpha"),
                            "I the zone event is sent to zone-manager thread(thread id : " + id + ")",
                            "I " + byThread("zone-manager") + "zone event(7) is sent to Zone Manager"));
    EXPECT_THAT(
        after,
        ElementsAre("I [GSource Name : ZoneManagerEvent] Dispatch the event" + atThread("zone-manager"),
                    "I Dispatch the event" + atThread("zone-manager"),
                    "I receive the event - ZONE RESTART" + atThread("zone-manager"),
                    "E " + byThread("zone-manager") + "Monitor Thread is not running(target zone : alpha)",
                    "E Failed to start alpha" + atThread("zone-manager")));
    expectOutcome(ZUP::ZONE_OPERATION_NONE, true, 1);
}

TEST_F(ZoneCommands, ReportsAManagerThatTakesNoRestart)
{
    const ManagerFixture manager; // its loop does not run
    container("start", "exit 0");
    zone->autoStartRequested = true;
    const auto texts = handle(eZONE_EVENT_START);
    const std::string line = std::to_string(log.records().back().line);
    EXPECT_THAT(texts,
                ElementsAre(at("I receive the event - ZONE START"), "D is_running",
                            at("F Failed to start alpha"),
                            "E " + byThread("zone-manager") + "ZoneManager is not running",
                            "E [Zone.cpp:" + line + "] Failed to send restart event[zone name : alpha]"));
    EXPECT_TRUE(zone->autoStartRequested.load()); // the manager's to clear
}

// STOP.

TEST_F(ZoneCommands, StopsTheContainer)
{
    container("state", "RUNNING");
    container("running", "1");
    EXPECT_THAT(handle(eZONE_EVENT_STOP),
                ElementsAre(at("I receive the event - ZONE STOP"), "D may_control", "D is_running",
                            "D is_running", at("I alpha is stopped successfully")));
    expectOutcome(ZUP::ZONE_OPERATION_STOP, false, 1);
    EXPECT_TRUE(zone->stopAwaitsReport);
    EXPECT_THAT(control.text("launches"), testing::HasSubstr(R"("stop","alpha"])"));
}

TEST_F(ZoneCommands, RecordsTheStopBeforeItHappens)
{
    // The second question comes after the launcher.
    static std::vector<ZUP::ZoneOperationType> seen;
    static Zone* observed = nullptr;
    seen.clear();
    observed = zone.get();
    zone->operationType = ZUP::ZONE_OPERATION_START;
    zone->container->getHandle()->is_running = [](lxc_container*) {
        seen.push_back(observed->operationType.load());
        EXPECT_TRUE(observed->restartFlag.load());
        return seen.size() == 1;
    };
    static_cast<void>(handle(eZONE_EVENT_STOP));
    EXPECT_THAT(seen, ElementsAre(ZUP::ZONE_OPERATION_START, ZUP::ZONE_OPERATION_STOP));
    expectOutcome(ZUP::ZONE_OPERATION_STOP, false, 1);
}

TEST_F(ZoneCommands, ForgetsAStopThatFailed)
{
    container("running", "1");
    container("stop", "exit 0");
    zone->operationType = ZUP::ZONE_OPERATION_START;
    EXPECT_THAT(handle(eZONE_EVENT_STOP),
                ElementsAre(at("I receive the event - ZONE STOP"), "D may_control", "D is_running",
                            "D is_running", at("E Failed to stop alpha")));
    expectOutcome(ZUP::ZONE_OPERATION_NONE, true, 1);
    EXPECT_FALSE(zone->stopAwaitsReport);
}

TEST_F(ZoneCommands, DoesNotStopAZoneThatDoesNotRun)
{
    container("running", "0");
    zone->operationType = ZUP::ZONE_OPERATION_START;
    EXPECT_THAT(handle(eZONE_EVENT_STOP), ElementsAre(at("I receive the event - ZONE STOP"), "D may_control",
                                                      "D is_running", at("I alpha is not running")));
    expectOutcome(ZUP::ZONE_OPERATION_START, true, 0);
}

TEST_F(ZoneCommands, RefusesWhatItMayNotControl)
{
    container("may_control", "0");
    container("running", "1");
    container("state", "FROZEN");
    zone->operationType = ZUP::ZONE_OPERATION_START;
    EXPECT_THAT(handle(eZONE_EVENT_STOP), ElementsAre(at("I receive the event - ZONE STOP"), "D may_control",
                                                      at("I alpha is not controlled")));
    EXPECT_THAT(handle(eZONE_EVENT_UNFREEZE), ElementsAre(at("I receive the event - ZONE UNFREEZE"),
                                                          "D may_control", at("I alpha is not controlled")));
    container("state", "RUNNING");
    EXPECT_THAT(handle(eZONE_EVENT_FREEZE), ElementsAre(at("I receive the event - ZONE FREEZE"),
                                                        "D may_control", at("I alpha is not controlled")));
    expectOutcome(ZUP::ZONE_OPERATION_START, true, 0);
}

// FREEZE and UNFREEZE.

TEST_F(ZoneCommands, FreezesAZoneOfEveryStateButFreezingAndFrozen)
{
    for (const char* word : {"RUNNING", "ABORTING", "THAWED", "STOPPED"}) {
        container("state", word);
        zone->operationType = ZUP::ZONE_OPERATION_NONE;
        EXPECT_EQ(handle(eZONE_EVENT_FREEZE),
                  aroundState({at("I receive the event - ZONE FREEZE"), "D may_control"}, word,
                              {"D freeze", at("I alpha is freezed successfully")}));
        expectOutcome(ZUP::ZONE_OPERATION_FREEZE, true, 0);
    }
}

TEST_F(ZoneCommands, ReportsAFailedFreeze)
{
    container("state", "RUNNING");
    container("freeze_fails");
    EXPECT_EQ(handle(eZONE_EVENT_FREEZE),
              aroundState({at("I receive the event - ZONE FREEZE"), "D may_control"}, "RUNNING",
                          {"D freeze", at("E Failed to freeze alpha")}));
    expectOutcome(ZUP::ZONE_OPERATION_NONE, true, 0);
}

TEST_F(ZoneCommands, DoesNotFreezeAgain)
{
    zone->operationType = ZUP::ZONE_OPERATION_START;
    for (const char* word : {"FREEZING", "FROZEN"}) {
        container("state", word);
        EXPECT_EQ(handle(eZONE_EVENT_FREEZE),
                  aroundState({at("I receive the event - ZONE FREEZE"), "D may_control"}, word));
    }
    expectOutcome(ZUP::ZONE_OPERATION_START, true, 0);
}

TEST_F(ZoneCommands, Unfreezes)
{
    container("state", "FROZEN");
    zone->state = RUNNING; // the container's own word counts
    EXPECT_EQ(handle(eZONE_EVENT_UNFREEZE),
              aroundState({at("I receive the event - ZONE UNFREEZE"), "D may_control"}, "FROZEN",
                          {"D unfreeze", at("I alpha is unfreezed successfully")}));
    expectOutcome(ZUP::ZONE_OPERATION_UNFREEZE, true, 0);
}

TEST_F(ZoneCommands, ReportsAFailedUnfreeze)
{
    container("state", "FROZEN");
    container("unfreeze_fails");
    EXPECT_EQ(handle(eZONE_EVENT_UNFREEZE),
              aroundState({at("I receive the event - ZONE UNFREEZE"), "D may_control"}, "FROZEN",
                          {"D unfreeze", at("E Failed to unfreeze alpha")}));
    expectOutcome(ZUP::ZONE_OPERATION_NONE, true, 0);
}

TEST_F(ZoneCommands, UnfreezesAFrozenZoneOnly)
{
    zone->state = FROZEN; // the container's own word counts
    for (const char* word : {"FREEZING", "RUNNING", "STOPPED", "THAWED"}) {
        container("state", word);
        EXPECT_EQ(handle(eZONE_EVENT_UNFREEZE),
                  aroundState({at("I receive the event - ZONE UNFREEZE"), "D may_control"}, word));
    }
    expectOutcome(ZUP::ZONE_OPERATION_NONE, true, 0);
}

// ATTACH.

TEST_F(ZoneCommands, OnlyLooksWhetherItRunsWhenAttached)
{
    // The message names the container, not the zone.
    zone->zoneName = "zone-alpha";
    container("running", "1");
    EXPECT_THAT(handle(eZONE_EVENT_ATTACH),
                ElementsAre(at("I receive the event - ZONE ATTACH"), "D is_running"));
    container("running", "0");
    EXPECT_THAT(handle(eZONE_EVENT_ATTACH), ElementsAre(at("I receive the event - ZONE ATTACH"),
                                                        "D is_running", "E Failed to unfreeze zone : alpha"));
    expectOutcome(ZUP::ZONE_OPERATION_NONE, true, 0);
}
