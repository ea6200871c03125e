#include "Common/ThreadGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <thread>

using ZoneCore::ThreadGate;

TEST(ThreadGate, LetsItsThreadInAgainAndAgain)
{
    ThreadGate gate;
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(gate.enter());
        gate.leave();
    }
}

TEST(ThreadGate, ClosesForGoodWhileNobodyIsInside)
{
    ThreadGate gate;
    EXPECT_TRUE(gate.close());
    EXPECT_FALSE(gate.enter());
    EXPECT_TRUE(gate.close());
    EXPECT_FALSE(gate.enter());
}

TEST(ThreadGate, CannotBeClosedWhileSomebodyIsInside)
{
    ThreadGate gate;
    ASSERT_TRUE(gate.enter());
    EXPECT_FALSE(gate.close());
    EXPECT_FALSE(gate.close());
    gate.leave();
    EXPECT_TRUE(gate.close());
}

TEST(ThreadGate, AFailedCloseKeepsNobodyOut)
{
    ThreadGate gate;
    ASSERT_TRUE(gate.enter());
    EXPECT_FALSE(gate.close());
    gate.leave();
    EXPECT_TRUE(gate.enter());
}

TEST(ThreadGatePass, IsAlwaysGrantedWithoutAGate)
{
    ThreadGate gateOfAnother;
    ASSERT_TRUE(gateOfAnother.close());
    const ThreadGate::Pass pass;
    EXPECT_TRUE(pass);
    const ThreadGate::Pass nested;
    EXPECT_TRUE(nested);
}

TEST(ThreadGatePass, IsInsideAsLongAsItLives)
{
    ThreadGate gate;
    std::thread([&] {
        gate.guardThisThread();
        {
            const ThreadGate::Pass pass;
            EXPECT_TRUE(pass);
            EXPECT_FALSE(gate.close());
        }
        EXPECT_TRUE(gate.close());
    }).join();
}

TEST(ThreadGatePass, IsRefusedBehindAClosedGate)
{
    ThreadGate gate;
    ASSERT_TRUE(gate.close());
    std::thread([&] {
        gate.guardThisThread();
        for (int round = 0; round < 2; ++round) {
            const ThreadGate::Pass pass;
            EXPECT_FALSE(pass) << "the one before opened the gate";
        }
    }).join();
    EXPECT_FALSE(gate.enter());
}

TEST(ThreadGatePass, ConcernsTheGateOfItsOwnThreadOnly)
{
    ThreadGate closed;
    ThreadGate open;
    ASSERT_TRUE(closed.close());
    std::latch guarded(1);
    std::latch otherIsDone(1);
    std::thread thread([&] {
        closed.guardThisThread();
        guarded.count_down();
        otherIsDone.wait();
        const ThreadGate::Pass pass;
        EXPECT_FALSE(pass);
    });
    guarded.wait();
    std::thread([&] {
        open.guardThisThread();
        const ThreadGate::Pass pass;
        EXPECT_TRUE(pass);
    }).join();
    otherIsDone.count_down();
    thread.join();
    EXPECT_TRUE(open.close());
    const ThreadGate::Pass pass;
    EXPECT_TRUE(pass) << "this thread has no gate";
}

TEST(ThreadGatePass, IsHeldByAThreadInTheMiddleOfACallback)
{
    ThreadGate gate;
    std::latch inside(1);
    std::latch mayLeave(1);
    std::thread thread([&] {
        gate.guardThisThread();
        const ThreadGate::Pass pass;
        inside.count_down();
        mayLeave.wait();
    });
    inside.wait();
    EXPECT_FALSE(gate.close());
    mayLeave.count_down();
    thread.join();
    EXPECT_TRUE(gate.close());
}

// What the teardown relies on: once the gate is closed, the thread touches nothing any more.
TEST(ThreadGatePass, NothingIsTouchedOnceTheGateIsClosed)
{
    for (int round = 0; round < 200; ++round) {
        ThreadGate gate;
        auto shared = std::make_unique<long>(0);
        std::atomic<bool> quit{false};
        std::latch started(1);
        std::thread thread([&] {
            gate.guardThisThread();
            started.count_down();
            while (!quit.load(std::memory_order_relaxed)) {
                {
                    const ThreadGate::Pass pass;
                    if (pass) {
                        ++*shared;
                    }
                }
                std::this_thread::yield();
            }
        });
        started.wait();
        while (!gate.close()) {
            std::this_thread::yield();
        }
        const long before = *shared;
        std::this_thread::yield();
        EXPECT_EQ(*shared, before);
        shared.reset();
        quit = true;
        thread.join();
    }
}
