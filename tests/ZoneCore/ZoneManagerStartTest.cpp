// How the manager builds and ends what it owns, with a GLib that can fail and without a bus.
#include "ZoneCore/ZoneManager.h"

#include "Common/Log.h"
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "ZoneCore/ZoneGroupController.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/ZoneCore/ZoneMonitorFixture.h"
#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/Failure.h"
#include "tests/support/unit/MutexHook.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using ZoneTest::atNextLock;
using ZoneTest::eventually;
using ZoneTest::Failure;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;
using ZoneTest::ownTexts;

ZONE_TEST_MAY_FAIL(GMainLoop*, g_main_loop_new, (GMainContext * context, gboolean running),
                   (context, running))
ZONE_TEST_MAY_FAIL(GSource*, g_source_new, (GSourceFuncs * functions, guint size), (functions, size))
ZONE_TEST_MAY_FAIL(GSource*, g_timeout_source_new, (guint interval), (interval))
ZONE_TEST_MAY_FAIL(GThread*, g_thread_new, (const gchar* name, GThreadFunc entry, gpointer data),
                   (name, entry, data))
ZONE_TEST_MAY_FAIL(GDBusNodeInfo*, g_dbus_node_info_new_for_xml, (const gchar* xml, GError** error),
                   (xml, error))

// Asks for no name: there is no bus here.
extern "C" guint g_bus_own_name(GBusType /*bus*/, const gchar* name, GBusNameOwnerFlags /*flags*/,
                                GBusAcquiredCallback /*acquired*/, GBusNameAcquiredCallback /*named*/,
                                GBusNameLostCallback /*lost*/, gpointer /*data*/, GDestroyNotify /*free*/)
{
    ZLOGD("own %s", name);
    return Failure::isDue("g_bus_own_name") ? 0 : 1;
}

namespace {

std::string by(const std::string& level, const std::string& text)
{
    return level + " " + ZoneTest::byThread("zone-manager") + text;
}

const std::string MONITOR_FAILED = by("E", "Failed to create zone monitor");
constexpr const char* REGISTRY_MADE =
    "I Zone Context is created successfully (lxc base path : /zone-test, zone count : 1)";
constexpr const char* GROUP_CONTROLLER_MADE = "I zone group controller instance is created";
constexpr const char* NAME_ASKED_FOR = "D own org.ornix.zoneframework";

std::string monitorMade()
{
    return "I [tid : " + std::to_string(currentThreadId()) + "] zone monitor instance is created";
}

std::string monitorDestroyed()
{
    return "I [tid : " + std::to_string(currentThreadId()) + "] zone monitor instance is destroyed";
}

std::string onThread(const std::string& level, const std::string& text, const std::string& name)
{
    return level + " " + text + "(thread name : " + name +
           ", thread id : " + std::to_string(currentThreadId()) + ")";
}

/// A manager of which nothing has been built, and one container.
class ZoneManagerStartTest : public testing::Test
{
protected:
    void SetUp() override
    {
        control.define("alpha", ZUP::ZONE_TYPE_HYBRID);
        std::filesystem::create_directories(ZoneTest::RUN_DIRECTORY);
        ZoneTest::setLabel(ZoneTest::RUN_DIRECTORY, "!");
        ZoneTest::installLibrary(FAKE_LXC_FILE);
        // The manager's end drops a reference of the default context that it never took.
        static_cast<void>(g_main_context_ref(g_main_context_default()));
        manager = ZoneManager::singleton();
        log.clear();
    }
    void TearDown() override
    {
        delete manager->dbusInterface.exchange(nullptr);
        delete manager->groupController;
        EXPECT_TRUE(eventually([this] {
            manager->destroyZoneMonitor();
            return manager->zoneMonitor == nullptr;
        }));
        ZoneTest::destroyRegistry();
        ZoneManager::deleteSingleton();
    }

    /// Those lines of the calling thread that tell what has been built or has failed, in order.
    [[nodiscard]] std::vector<std::string> steps() const
    {
        std::vector<std::string> result;
        for (const std::string& text : ownTexts(log)) {
            const bool tells =
                text == REGISTRY_MADE || text == GROUP_CONTROLLER_MADE || text[0] != 'I' ||
                text.find("zone monitor instance") != std::string::npos ||
                text.find("thread is created(thread name : zone-monitor") != std::string::npos ||
                text.find("GIO Watchers are added") != std::string::npos ||
                text.find("Remove all client") != std::string::npos;
            if (tells) {
                result.push_back(text);
            }
        }
        return result;
    }

    LogCapture log;
    FakeLxcControl control;
    ZoneManager* manager = nullptr;
};

} // namespace

// The one instance.

TEST_F(ZoneManagerStartTest, IsMadeOnceForTwoThreadsThatNeedItAtTheSameTime)
{
    ZoneManager::deleteSingleton();
    log.clear();
    static ZoneManager* ofTheOther = nullptr;
    atNextLock = [] {
        ofTheOther = ZoneManager::singleton(); // comes first
        return 0;
    };
    manager = ZoneManager::singleton();
    EXPECT_EQ(manager, ofTheOther);
    EXPECT_THAT(ownTexts(log), ElementsAre("I Thread is created", "I zone manager instance is created",
                                           "I Singletone object of Zone Manager is created..."));
}

TEST_F(ZoneManagerStartTest, IsNotMadeWithoutTheLock)
{
    ZoneManager::deleteSingleton();
    log.clear();
    atNextLock = [] { return EDEADLK; };
    EXPECT_THROW(static_cast<void>(ZoneManager::singleton()), std::system_error);
    EXPECT_THAT(ownTexts(log), IsEmpty());
    manager = ZoneManager::singleton(); // for the end of the test
}

// What it builds.

TEST_F(ZoneManagerStartTest, BuildsEverythingInOrder)
{
    EXPECT_TRUE(manager->initialize());
    EXPECT_THAT(steps(), ElementsAre(REGISTRY_MADE, monitorMade(), HasSubstr("GIO Watchers are added"),
                                     onThread("I", "thread is created", "zone-monitor"),
                                     GROUP_CONTROLLER_MADE, NAME_ASKED_FOR));
    EXPECT_EQ(manager->name(), "zone-manager");
    EXPECT_TRUE(manager->usesDefaultContext());
    EXPECT_FALSE(manager->hasEventQueue());
    EXPECT_NE(manager->dbusInterface.load(), nullptr);
    EXPECT_TRUE(eventually([this] { return manager->zoneMonitor->isRunning(); }));
    // The monitor was told its watchdog's values before its thread was started.
    EXPECT_THAT(log.texts(),
                Contains(StartsWith("I Watchdog Is registered[180 / 20000](thread name : zone-monitor,")));
}

TEST_F(ZoneManagerStartTest, BuildsNothingWithoutALoop)
{
    const Failure failure("g_main_loop_new");
    EXPECT_FALSE(manager->initialize());
    EXPECT_THAT(
        ownTexts(log),
        ElementsAre(onThread("E", "[Default Context] Failed to create the main event loop", "zone-manager")));
    EXPECT_THAT(control.calls(), IsEmpty());
}

TEST_F(ZoneManagerStartTest, BuildsNoMonitorWithoutARegistry)
{
    control.set("order"); // lists none
    EXPECT_FALSE(manager->initialize());
    EXPECT_THAT(steps(), ElementsAre("E lxc containers (base path : /zone-test)"));
    EXPECT_EQ(manager->zoneMonitor, nullptr);
}

TEST_F(ZoneManagerStartTest, EndsAnEarlierMonitorBeforeItMakesItsOwn)
{
    manager->zoneMonitor = ZoneTest::runningMonitor();
    log.clear();
    EXPECT_TRUE(manager->initialize());
    const auto texts = steps();
    ASSERT_GE(texts.size(), 4U);
    EXPECT_THAT(std::vector<std::string>(texts.begin(), texts.begin() + 4),
                ElementsAre(REGISTRY_MADE, HasSubstr("Remove all client connections[count : 0]"),
                            monitorDestroyed(), monitorMade()));
}

TEST_F(ZoneManagerStartTest, KeepsAMonitorThatCannotBeSetUp)
{
    control.set("fifo_name_fails");
    EXPECT_FALSE(manager->initialize());
    EXPECT_THAT(steps(), ElementsAre(REGISTRY_MADE, monitorMade(),
                                     HasSubstr("Failed to create the name of fifo path"), MONITOR_FAILED));
    EXPECT_NE(manager->zoneMonitor, nullptr);
    EXPECT_EQ(manager->groupController, nullptr);
}

TEST_F(ZoneManagerStartTest, KeepsAMonitorThatHasNoThread)
{
    const Failure failure("g_thread_new", 1); // the first is the zone's
    EXPECT_FALSE(manager->initialize());
    EXPECT_THAT(steps(),
                ElementsAre(REGISTRY_MADE, monitorMade(), HasSubstr("GIO Watchers are added"),
                            "E Failed to create gthread object(thread name : zone-monitor)", MONITOR_FAILED));
    EXPECT_NE(manager->zoneMonitor, nullptr);
    EXPECT_EQ(manager->groupController, nullptr);
}

TEST_F(ZoneManagerStartTest, KeepsNoServiceThatIsNotConnected)
{
    struct Row
    {
        const char* function;
        std::vector<std::string> told;
    };
    for (const Row& row :
         {Row{"g_dbus_node_info_new_for_xml", {"E Failed to make node from XML"}},
          Row{"g_bus_own_name", {NAME_ASKED_FOR, "E Failed to own dbus for \"org.ornix.zoneframework\""}}}) {
        const Failure failure(row.function);
        log.clear();
        EXPECT_FALSE(manager->initialize());
        const auto texts = steps();
        const auto built = std::find(texts.begin(), texts.end(), GROUP_CONTROLLER_MADE);
        ASSERT_NE(built, texts.end());
        EXPECT_EQ(std::vector<std::string>(built + 1, texts.end()), row.told);
        EXPECT_EQ(manager->dbusInterface.load(), nullptr);
        EXPECT_NE(manager->groupController, nullptr);
        TearDown();
        SetUp();
    }
}

TEST_F(ZoneManagerStartTest, HasNoEventSourceWithoutOne)
{
    ASSERT_TRUE(manager->Thread::initialize(true, "zone-manager"));
    const Failure failure("g_source_new");
    EXPECT_FALSE(manager->attachEventSource());
    EXPECT_THAT(ownTexts(log), IsEmpty());
}

// The main loop.

TEST_F(ZoneManagerStartTest, RegistersItsWatchdogBeforeItsLoopRuns)
{
    ASSERT_TRUE(manager->Thread::initialize(true, "zone-manager"));
    manager->setWatchDog(true, 77, 8000);
    static_cast<void>(g_idle_add(
        [](gpointer data) -> gboolean {
            ZLOGD("in the loop");
            static_cast<ZoneManager*>(data)->terminate();
            return G_SOURCE_REMOVE;
        },
        manager));
    EXPECT_TRUE(manager->run());
    const auto texts = log.texts();
    ASSERT_GE(texts.size(), 3U);
    EXPECT_EQ(texts[1], "I Watchdog Is registered[77 / 8000]" + ZoneTest::atThread("zone-manager"));
    EXPECT_EQ(texts[2], "D in the loop");
}

TEST_F(ZoneManagerStartTest, RegistersNoWatchdogUnlessTold)
{
    ASSERT_TRUE(manager->Thread::initialize(true, "zone-manager"));
    manager->setWatchDog(false, 77, 8000);
    static_cast<void>(g_idle_add(
        [](gpointer data) -> gboolean {
            static_cast<ZoneManager*>(data)->terminate();
            return G_SOURCE_REMOVE;
        },
        manager));
    EXPECT_TRUE(manager->run());
    EXPECT_THAT(ownTexts(log), ElementsAre(onThread("I", "Thread is terminated", "zone-manager")));
}

TEST_F(ZoneManagerStartTest, DoesNotRunItsLoopWithoutAWatchdog)
{
    ASSERT_TRUE(manager->Thread::initialize(true, "zone-manager"));
    manager->setWatchDog(true, 77, 8000);
    const Failure failure("g_timeout_source_new");
    EXPECT_FALSE(manager->run());
    EXPECT_EQ(ownTexts(log).back(), by("E", "Failed to set watch dog for main thread"));
}

TEST_F(ZoneManagerStartTest, RunsItsLoopOnce)
{
    ASSERT_TRUE(manager->Thread::initialize(true, "zone-manager"));
    std::vector<std::string> texts;
    struct Turn
    {
        ZoneManager* manager;
        LogCapture& log;
        std::vector<std::string>& texts;
    } turn{manager, log, texts};
    static_cast<void>(g_idle_add(
        [](gpointer data) -> gboolean {
            auto* self = static_cast<Turn*>(data);
            self->manager->setWatchDog(true, 77, 8000); // not any more
            self->log.clear();
            EXPECT_TRUE(self->manager->run());
            self->texts = self->log.texts();
            self->manager->terminate();
            return G_SOURCE_REMOVE;
        },
        &turn));
    EXPECT_TRUE(manager->run());
    EXPECT_THAT(texts, ElementsAre(by("I", "main thread is already running")));
}

// The end.

TEST_F(ZoneManagerStartTest, QuitsTheZonesThenTheMonitorThenItself)
{
    ASSERT_TRUE(manager->initialize());
    ASSERT_TRUE(eventually([this] {
        return manager->zoneMonitor->isRunning() && ZoneContext::singleton()->isRunningZoneThreads();
    }));
    log.clear();
    manager->terminateMainloop();
    EXPECT_THAT(ownTexts(log), ElementsAre(onThread("I", "Thread is terminated", "alpha"),
                                           "I The mainloop of thread is terminated (thread name : alpha)",
                                           onThread("I", "Thread is terminated", "zone-monitor"),
                                           onThread("I", "Thread is not running", "zone-manager"),
                                           by("I", "The mainloop of thread zone-manager is terminated")));
}

TEST_F(ZoneManagerStartTest, QuitsWhatThereIs)
{
    ASSERT_TRUE(manager->Thread::initialize(true, "zone-manager"));
    static_cast<void>(ZoneContext::singleton());
    log.clear();
    manager->terminateMainloop();
    EXPECT_THAT(ownTexts(log), ElementsAre(onThread("I", "Thread is not running", "zone-manager"),
                                           by("I", "The mainloop of thread zone-manager is terminated")));
}

TEST_F(ZoneManagerStartTest, LeavesAMonitorAloneThatIsInTheMiddleOfSomething)
{
    struct Busy
    {
        std::atomic<bool> isInside = false;
        std::atomic<bool> mayLeave = false;
    } busy;
    auto* monitor = new ZoneMonitor;
    ASSERT_TRUE(monitor->Thread::initialize(false, "zone-monitor"));
    ASSERT_NE(monitor->attachTimerSource(
                  0,
                  [](void* data) -> int {
                      const ThreadGate::Pass pass;
                      auto* self = static_cast<Busy*>(data);
                      self->isInside = true;
                      EXPECT_TRUE(eventually([self] { return self->mayLeave.load(); }));
                      return G_SOURCE_REMOVE;
                  },
                  &busy, true),
              nullptr);
    ASSERT_TRUE(monitor->run());
    manager->zoneMonitor = monitor;
    ASSERT_TRUE(eventually([&busy] { return busy.isInside.load(); }));
    log.clear();
    EXPECT_FALSE(manager->closeMonitorGate());
    manager->destroyZoneMonitor();
    EXPECT_EQ(manager->zoneMonitor, monitor);
    EXPECT_FALSE(monitor->isRunning());
    EXPECT_THAT(ownTexts(log), ElementsAre(onThread("I", "Thread is terminated", "zone-monitor")));
    busy.mayLeave = true;
    EXPECT_TRUE(eventually([this] { return manager->closeMonitorGate(); }));
    manager->destroyZoneMonitor();
    EXPECT_EQ(manager->zoneMonitor, nullptr);
}
