#include "Zones/Pursuit.h"

#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

/// What becomes of a request when the daemon tells these changes.
[[nodiscard]] Pursuit after(Errand errand, const std::string& before, const std::vector<std::string>& changes)
{
    Pursuit pursuit("red", errand);
    pursuit.begin(before);
    for (const std::string& state : changes) {
        pursuit.change(state);
    }
    return pursuit;
}

} // namespace

TEST(Pursuit, ARequestIsDoneInItsState)
{
    EXPECT_TRUE(after(Errand::Start, "STOPPED", {"STARTING", "RUNNING"}).done());
    EXPECT_TRUE(after(Errand::Stop, "RUNNING", {"STOPPING", "STOPPED"}).done());
    EXPECT_TRUE(after(Errand::Unfreeze, "FROZEN", {"THAWED", "RUNNING"}).done());
    EXPECT_TRUE(after(Errand::Start, "STOPPED", {"STARTING"}).open());
}

TEST(Pursuit, AStateThatPassedCounts)
{
    const Pursuit pursuit = after(Errand::Start, "STOPPED", {"RUNNING", "STOPPING", "STOPPED"});
    EXPECT_TRUE(pursuit.done());
    EXPECT_EQ(pursuit.lastState(), "RUNNING");
    EXPECT_EQ(pursuit.status(), EXIT_OK);
}

TEST(Pursuit, WhatIsSoAlreadyIsDoneAndExplained)
{
    const Pursuit start = after(Errand::Start, "RUNNING", {});
    EXPECT_TRUE(start.done());
    EXPECT_NE(start.reason().find("already"), std::string::npos);
    Pursuit wait("red", "RUNNING");
    wait.begin("RUNNING");
    EXPECT_TRUE(wait.done());
    EXPECT_TRUE(wait.reason().empty()) << "nothing was asked that could be dropped";
}

TEST(Pursuit, AStartFailsOnlyAfterItHasBegun)
{
    for (const char* end : {"STOPPED", "ABORTING"}) {
        EXPECT_EQ(after(Errand::Start, "STOPPED", {"STARTING", end}).status(), EXIT_FAILED) << end;
        EXPECT_EQ(after(Errand::Start, "STARTING", {end}).status(), EXIT_FAILED) << end;
        // The end of what an earlier run left, which a start clears away first.
        EXPECT_TRUE(after(Errand::Start, "STOPPING", {end}).open()) << end;
    }
}

TEST(Pursuit, AFrozenZoneCannotBeStarted)
{
    for (const char* state : {"FROZEN", "FREEZING"}) {
        EXPECT_EQ(after(Errand::Start, state, {}).status(), EXIT_FAILED) << state;
        EXPECT_TRUE(after(Errand::Stop, state, {}).open()) << state;
    }
}

TEST(Pursuit, WhatDoesNotRunCannotBeThawed)
{
    EXPECT_EQ(after(Errand::Unfreeze, "STOPPED", {}).status(), EXIT_FAILED);
    EXPECT_EQ(after(Errand::Unfreeze, "FROZEN", {"STOPPED"}).status(), EXIT_FAILED);
}

TEST(Pursuit, AnOldAnswerFailsNothing)
{
    Pursuit pursuit = after(Errand::Start, "STOPPED", {"STARTING"});
    pursuit.observe("STOPPED");
    EXPECT_TRUE(pursuit.open());
    pursuit.observe("RUNNING");
    EXPECT_TRUE(pursuit.done());
}

TEST(Pursuit, WhatIsDecidedStaysSo)
{
    Pursuit failed = after(Errand::Start, "STOPPED", {"STARTING", "STOPPED", "RUNNING"});
    failed.observe("RUNNING");
    EXPECT_FALSE(failed.done());
    EXPECT_EQ(failed.lastState(), "STOPPED");
    Pursuit done = after(Errand::Start, "STOPPED", {"RUNNING"});
    done.observe("STOPPED");
    EXPECT_EQ(done.lastState(), "RUNNING");
}

TEST(Pursuit, AWaitFailsByNoState)
{
    Pursuit wait("red", "FROZEN");
    wait.begin("RUNNING");
    for (const char* state : {"STARTING", "ABORTING", "STOPPED"}) {
        wait.change(state);
        EXPECT_TRUE(wait.open()) << state;
    }
    wait.change("FROZEN");
    EXPECT_TRUE(wait.done());
}

TEST(Pursuit, AWaitTellsWhereAStateIsFromThatIsNotTheDaemonsWord)
{
    Pursuit reached("gold", "STOPPED");
    reached.begin("STOPPED", "from /proc");
    EXPECT_TRUE(reached.done());
    EXPECT_EQ(reached.reason(), "from /proc");
    Pursuit open("gold", "RUNNING");
    open.begin("STOPPED", "from /proc");
    open.change("RUNNING");
    EXPECT_TRUE(open.done());
    EXPECT_EQ(open.reason(), "") << "the change is the daemon's word";
}
