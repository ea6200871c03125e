#include "tests/main/StandIns.h"

#include "tests/support/unit/ChildProcess.h"
#include "tests/support/unit/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <vector>

using testing::ElementsAreArray;
using ZoneTest::LogCapture;
using ZoneTest::StandIns;
using ZoneTest::statusOfChild;

namespace {

using Lines = std::vector<std::string>;

const std::string LOCK = "/var/run/lxc/lock/zone-manager.lock";
const std::string LET_IN = "D ProcessSignals::deliverPending";
const std::string RELEASE = "D release_zone_manager_lock " + LOCK + " 42";
const std::string LAST = "F ZoneManager is terminated...";

const Lines UP_TO_LOCK = {"F Start Zone Manager...", "D umask 0", "D chdir /",
                          "D get_zone_manager_lock " + LOCK};
const Lines UP_TO_PATHS = {"D ensureContainerRunPath", "D access /var/run/lxc/pid 2"};
const Lines PREPARE = {"D init_template_path",
                       "D platform_watchdog_set_stall_reporter",
                       "D ProcessSignals::hold",
                       "D signal 15 handle_termination_signal",
                       "D g_main_context_ref default",
                       "D ZoneManager",
                       "D initialize"};
const Lines BUILD = {LET_IN,
                     "D setWatchDog true 360 15000",
                     "D createEventQueue",
                     "D attachEventSource",
                     "D addTimerEvent 500 threadRunningCheckCallback manager",
                     "D run"};
const Lines QUIT = {"D terminateMainloop", "D ZoneContext", "D closeGates", "D closeMonitorGate", LET_IN};
const Lines DROP_QUEUE = {"D destroyEventQueue", LET_IN};
const Lines DROP_SERVICES = {"D disconnectDBus", LET_IN, "D ~ZoneGroupController", "D destroyZoneMonitor",
                             LET_IN};
const Lines DROP_REST = {"D ZoneContext::destroy",
                         "D destroyEventQueue",
                         "D ZoneContext::deleteSingleton",
                         "D ZoneManager::deleteSingleton",
                         RELEASE,
                         LAST};

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The first so many of the lines.
Lines first(std::size_t count, const Lines& lines)
{
    return {lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(count)};
}

const Lines START = UP_TO_LOCK + UP_TO_PATHS + PREPARE + BUILD;

class Main : public testing::Test
{
protected:
    void expect(const Lines& lines) const { EXPECT_THAT(log.texts(), ElementsAreArray(lines)); }

    /// Has main run in a process of its own, which main itself has to end.
    void expectItToEndTheProcess() const
    {
        const int status = statusOfChild([] {
            zone_manager_main();
            ADD_FAILURE() << "it came back";
        });
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == StandIns::STATUS_OF_EXIT) << status;
    }

    LogCapture log;
    StandIns standIns;
};
using MainStart = Main;
using MainTearDown = Main;

} // namespace

// The whole

TEST_F(Main, DoesEverythingInItsOrder)
{
    EXPECT_EQ(zone_manager_main(), 0);
    expect(START + QUIT + DROP_QUEUE + DROP_SERVICES + DROP_REST);
}

TEST_F(Main, RunsTheLoopBetweenStartAndTeardown)
{
    standIns.mainLoop = [&] {
        expect(START);
        log.clear();
    };
    EXPECT_EQ(zone_manager_main(), 0);
    expect(QUIT + DROP_QUEUE + DROP_SERVICES + DROP_REST);
}

// Start

TEST_F(MainStart, GoesOnWithoutTheRootDirectory)
{
    standIns.failing = {"chdir"};
    EXPECT_EQ(zone_manager_main(), 0);
    expect(first(3, START) + Lines{"E Failed to change the root path"} +
           Lines(START.begin() + 3, START.end()) + QUIT + DROP_QUEUE + DROP_SERVICES + DROP_REST);
}

TEST_F(MainStart, NeedsTheLock)
{
    standIns.failing = {"get_zone_manager_lock"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(UP_TO_LOCK + Lines{"E Failed to get zone manager lock(" + LOCK + ")"});
}

TEST_F(MainStart, NeedsTheRunDirectory)
{
    standIns.failing = {"ensureContainerRunPath"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(UP_TO_LOCK +
           Lines{"D ensureContainerRunPath", "E Failed to ensure Container Run Path(/var/run/lxc)",
                 "E Failed to create the basepath of container pidfile - /var/run/lxc/pid", RELEASE});
}

TEST_F(MainStart, NeedsThePidDirectory)
{
    standIns.failing = {"access", "ensureContainerPIDFilePath"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(UP_TO_LOCK + UP_TO_PATHS +
           Lines{"D ensureContainerPIDFilePath",
                 "E Failed to create the basepath of container pidfile - /var/run/lxc/pid", RELEASE});
}

TEST_F(MainStart, MakesAMissingPidDirectory)
{
    standIns.failing = {"access"};
    EXPECT_EQ(zone_manager_main(), 0);
    expect(UP_TO_LOCK + UP_TO_PATHS + Lines{"D ensureContainerPIDFilePath"} + PREPARE + BUILD + QUIT +
           DROP_QUEUE + DROP_SERVICES + DROP_REST);
}

TEST_F(MainStart, NeedsAnInitializedManager)
{
    standIns.failing = {"initialize"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(UP_TO_LOCK + UP_TO_PATHS + PREPARE +
           Lines{"E Exception occurred : Failed to initialize the ZoneManager object"} + QUIT +
           Lines{LET_IN, LET_IN, "D destroyZoneMonitor", LET_IN} + DROP_REST);
}

TEST_F(MainStart, NeedsTheEventQueue)
{
    standIns.failing = {"createEventQueue"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(UP_TO_LOCK + UP_TO_PATHS + PREPARE + first(3, BUILD) +
           Lines{"E Exception occurred : Failed to create Event Queue of Main Context"} + QUIT +
           Lines{LET_IN} + DROP_SERVICES + DROP_REST);
}

TEST_F(MainStart, NeedsTheEventSource)
{
    standIns.failing = {"attachEventSource"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(UP_TO_LOCK + UP_TO_PATHS + PREPARE + first(4, BUILD) +
           Lines{"E Exception occurred : Failed to attach Event Source of Main Context"} + QUIT + DROP_QUEUE +
           DROP_SERVICES + DROP_REST);
}

TEST_F(MainStart, NeedsTheTimer)
{
    standIns.failing = {"addTimerEvent"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(UP_TO_LOCK + UP_TO_PATHS + PREPARE + first(5, BUILD) +
           Lines{"E Exception occurred : Failed to add timer event for thread running check to mainloop"} +
           QUIT + DROP_QUEUE + DROP_SERVICES + DROP_REST);
}

TEST_F(MainStart, NeedsTheMainLoop)
{
    standIns.failing = {"run"};
    EXPECT_EQ(zone_manager_main(), -1);
    expect(START + Lines{"E Exception occurred : Failed to run the Main Context"} + QUIT + DROP_QUEUE +
           DROP_SERVICES + DROP_REST);
}

TEST_F(MainStart, TellsOfEveryStandardException)
{
    standIns.mainLoop = [] { throw std::length_error("too long"); };
    EXPECT_EQ(zone_manager_main(), -1);
    expect(START + Lines{"E Exception occurred : too long"} + QUIT + DROP_QUEUE + DROP_SERVICES + DROP_REST);
}

TEST_F(MainStart, CatchesNothingElse)
{
    standIns.mainLoop = [] { throw 4711; };
    EXPECT_THROW(zone_manager_main(), int);
    expect(START);
}

TEST_F(MainStart, ToldOfAStalledThreadItLogs)
{
    EXPECT_EQ(zone_manager_main(), 0);
    log.clear();
    ASSERT_NE(standIns.stallReporter, nullptr);
    standIns.stallReporter("red", 7, 361);
    expect({"E The watchdog gives the thread up(thread name : red, tid : 7, silent for 361 seconds)"});
}

// Teardown while a thread is in the middle of something

TEST_F(MainTearDown, KeepsTheQueueUntilTheZonesAreOut)
{
    standIns.failing = {"closeGates"};
    EXPECT_EQ(zone_manager_main(), 0);
    Lines quit = QUIT;
    std::erase(quit, "D closeMonitorGate"); // nobody is asked in vain
    expect(START + quit + Lines{LET_IN} + DROP_SERVICES + DROP_REST);
}

TEST_F(MainTearDown, KeepsTheQueueUntilTheMonitorIsOut)
{
    standIns.failing = {"closeMonitorGate"};
    EXPECT_EQ(zone_manager_main(), 0);
    expect(START + QUIT + Lines{LET_IN} + DROP_SERVICES + DROP_REST);
}

TEST_F(MainTearDown, KeepsWhatAZoneThatStaysMayTouch)
{
    standIns.failing = {"closeGates", "ZoneContext::destroy"};
    expectItToEndTheProcess();
    Lines quit = QUIT;
    std::erase(quit, "D closeMonitorGate");
    expect(START + quit + Lines{LET_IN} + DROP_SERVICES +
           Lines{"D ZoneContext::destroy", RELEASE, LAST, "D _exit 0"});
}

TEST_F(MainTearDown, KeepsTheZonesWhileTheMonitorStays)
{
    standIns.failing = {"closeMonitorGate", "destroyZoneMonitor"};
    expectItToEndTheProcess();
    expect(START + QUIT + Lines{LET_IN} + DROP_SERVICES + Lines{RELEASE, LAST, "D _exit 0"});
}

TEST_F(MainTearDown, EndsAFailedProcessWithItsStatus)
{
    standIns.failing = {"closeMonitorGate", "destroyZoneMonitor"};
    standIns.mainLoop = [] { throw std::runtime_error("broken"); };
    expectItToEndTheProcess();
    EXPECT_EQ(log.texts().back(), "D _exit -1");
}
