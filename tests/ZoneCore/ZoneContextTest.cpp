#include "ZoneCore/ZoneContext.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/support/unit/Eventually.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using ZoneTest::eventually;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;
using ZoneTest::ownTexts;
using ZoneTest::RegistryFixture;

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
/// The handle of a container that is refused before a zone takes it stays with the process: no leak of the
/// tests.
using KeepsRefusedHandles = __lsan::ScopedDisabler;
#else
struct KeepsRefusedHandles
{
    KeepsRefusedHandles() {}
};
#endif

namespace {

constexpr const char* UNKNOWN = "I There is no \"nobody\" object";
constexpr const char* NOT_FOUND = "E Can not find zone object (zone name : nobody)";

/// Defines three hybrid containers; the tests change them before the registry is built.
class ZoneContextTest : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* name : {"alpha", "bravo", "charlie"}) {
            control.define(name, ZUP::ZONE_TYPE_HYBRID);
        }
    }

    LogCapture log;
    FakeLxcControl control;
};

/// The same with a registry of hybrid, isolation and protection zones.
class FilledZoneContextTest : public ZoneContextTest
{
protected:
    void SetUp() override
    {
        ZoneContextTest::SetUp();
        control.set("containers/bravo/type", "1");
        control.set("containers/charlie/type", "3");
        for (const char* name : autoStart) {
            control.set(std::string("containers/") + name + "/auto", "1");
        }
        registry = std::make_unique<RegistryFixture>(std::vector<std::string>{"alpha", "bravo", "charlie"});
        log.clear();
    }
    /// Ends one zone's thread and waits for it.
    void end(const std::string& name)
    {
        Zone* zone = (*registry)->getZone(name);
        zone->terminate();
        ASSERT_TRUE(eventually([&] { return !zone->isRunning(); }));
        log.clear();
    }
    [[nodiscard]] RegistryFixture& context() const { return *registry; }

    std::vector<const char*> autoStart;
    std::unique_ptr<RegistryFixture> registry;
};

class AutoStartTest : public FilledZoneContextTest
{
protected:
    AutoStartTest() { autoStart = {"alpha", "charlie"}; }

    static std::string checking(const std::string& name, const std::string& values)
    {
        return "I Checking auto start zone for \"" + name + "\" - " + values;
    }
};

} // namespace

// Life.

TEST_F(ZoneContextTest, IsMadeOnFirstUse)
{
    log.clear();
    auto* first = ZoneContext::singleton();
    EXPECT_EQ(ZoneContext::singleton(), first);
    EXPECT_THAT(ownTexts(log), ElementsAre("I ZoneContext object is created",
                                           "I Singletone object of Zone Context is created..."));
    log.clear();
    ZoneContext::deleteSingleton();
    EXPECT_THAT(ownTexts(log), ElementsAre("I ZoneContext object is destroyed"));
}

TEST_F(ZoneContextTest, NeedsAPath)
{
    control.remove("lxcpath");
    auto* context = ZoneContext::singleton();
    log.clear();
    EXPECT_FALSE(context->initialize());
    EXPECT_THAT(ownTexts(log), ElementsAre("E Failed to get lxc base path"));
    ZoneContext::deleteSingleton();
}

TEST_F(ZoneContextTest, NeedsAContainer)
{
    auto* context = ZoneContext::singleton();
    for (const char* file : {"list_fails", "order"}) { // an empty order lists none
        control.set(file);
        log.clear();
        EXPECT_FALSE(context->initialize());
        EXPECT_THAT(ownTexts(log), ElementsAre("E lxc containers (base path : /zone-test)"));
        control.remove(file);
    }
    ZoneContext::deleteSingleton();
}

TEST_F(ZoneContextTest, SkipsAContainerThatMakesNoZone)
{
    const KeepsRefusedHandles kept;
    control.set("containers/bravo/type", "9");
    const RegistryFixture context({"alpha", "charlie"});
    const auto texts = ownTexts(log);
    EXPECT_THAT(texts, testing::IsSupersetOf({std::string("I \"alpha\" is added to Zone Context!"),
                                              std::string("E Failed to create Zone Object - bravo[1]"),
                                              std::string("I \"charlie\" is added to Zone Context!")}));
    EXPECT_EQ(texts[texts.size() - 2], "I Zone count is set to [3 / 2]");
    EXPECT_EQ(texts.back(),
              "I Zone Context is created successfully (lxc base path : /zone-test, zone count : 3)");
    EXPECT_EQ(context->getLxcBasePath(), "/zone-test");
}

TEST_F(ZoneContextTest, NamesAContainerWhoseLastReferenceWentWithItsZone)
{
    control.remove("containers/alpha/rootfs");
    control.set("containers/bravo/get_fails");
    const RegistryFixture context({"charlie"});
    EXPECT_THAT(ownTexts(log),
                testing::IsSupersetOf({std::string("E Failed to create Zone Object - alpha[0]"),
                                       std::string("E Failed to create Zone Object - bravo[1]"),
                                       std::string("I Zone count is set to [3 / 1]")}));
    EXPECT_THAT(control.calls(), Contains("lxc_container_put alpha 0 -"));
    EXPECT_THAT(control.calls(), Contains("lxc_container_put bravo 0 -"));
}

TEST_F(ZoneContextTest, KeepsTheOrderOfTheListing)
{
    control.set("order", "charlie\nalpha\nbravo");
    const RegistryFixture context({"alpha", "bravo", "charlie"});
    std::vector<std::string> added;
    for (const std::string& text : ownTexts(log)) {
        if (text.find("is added to Zone Context!") != std::string::npos) {
            added.push_back(text);
        }
    }
    EXPECT_THAT(added, ElementsAre(HasSubstr("charlie"), HasSubstr("alpha"), HasSubstr("bravo")));
}

TEST_F(ZoneContextTest, DestroysItsZonesAndReleasesBothReferences)
{
    {
        const RegistryFixture context({"alpha", "bravo", "charlie"});
        log.clear();
    }
    const auto texts = ownTexts(log);
    EXPECT_EQ(texts.front(), "I The remained count of Zone Object in ZoneContext \"3\"");
    for (const char* name : {"alpha", "bravo", "charlie"}) {
        EXPECT_THAT(texts, Contains(std::string("I \"") + name + "\" thread is destroyed").Times(1));
        EXPECT_THAT(control.calls(), Contains(std::string("lxc_container_put ") + name + " 1 -").Times(1));
        EXPECT_THAT(control.calls(), Contains(std::string("lxc_container_put ") + name + " 0 -").Times(1));
    }
    EXPECT_EQ(texts[texts.size() - 2], "I The count of Zone Object is \"0\"");
}

TEST_F(ZoneContextTest, KeepsAZoneThatIsInTheMiddleOfSomething)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer cannot see that the zone's thread waits for its launcher";
#endif
    control.set("containers/alpha/auto", "1"); // its thread looks at its queue more often
    control.set("containers/alpha/start", "wait go");
    const RegistryFixture context({"alpha", "bravo", "charlie"});
    EXPECT_TRUE(context->sendEventToZone("alpha", eZONE_EVENT_START, NONE, nullptr));
    ASSERT_TRUE(eventually([this] { return control.launches() == 1; }));
    EXPECT_FALSE(context->closeGates());
    log.clear();
    context->destroy();
    const auto texts = ownTexts(log);
    EXPECT_EQ(texts.front(), "I The remained count of Zone Object in ZoneContext \"3\"");
    EXPECT_THAT(texts, Contains("I \"alpha\" thread is destroyed"));
    EXPECT_THAT(texts, Contains("I Zone object is destroyed(zone name : charlie)"));
    EXPECT_EQ(texts.back(), "I The count of Zone Object is \"1\"");
    EXPECT_THAT(texts, Not(Contains("I Zone object is destroyed(zone name : alpha)")));
    EXPECT_THAT(control.calls(), Not(Contains(HasSubstr("lxc_container_put alpha"))));
    EXPECT_FALSE(context->isEmpty());
    control.set("go");
}

TEST_F(ZoneContextTest, ClosesTheGatesOfThreadsThatRest)
{
    const RegistryFixture context({"alpha", "bravo", "charlie"});
    EXPECT_TRUE(eventually([&context] { return context->closeGates(); }));
}

// Queries.

TEST_F(ZoneContextTest, KnowsNobodyWhileItIsEmpty)
{
    auto* context = ZoneContext::singleton();
    log.clear();
    EXPECT_EQ(context->getZone("alpha"), nullptr);
    EXPECT_THAT(ownTexts(log), ElementsAre("E There is no zone information (zone name : alpha)"));
    log.clear();
    EXPECT_TRUE(context->isRunningZoneThreads());
    EXPECT_THAT(ownTexts(log), IsEmpty());
    EXPECT_TRUE(context->startAutoStartZones());
    ZoneContext::deleteSingleton();
}

TEST_F(FilledZoneContextTest, FindsZonesByName)
{
    EXPECT_EQ(context()->getZone("bravo")->zoneName, "bravo");
    EXPECT_THAT(ownTexts(log), IsEmpty());
    EXPECT_EQ(context()->getZone(""), nullptr);
    EXPECT_THAT(ownTexts(log), ElementsAre("I There is no \"\" object"));
}

TEST_F(FilledZoneContextTest, AnswersNeutrallyForAnUnknownName)
{
    const auto expectLines = [this] {
        EXPECT_THAT(ownTexts(log), ElementsAre(UNKNOWN, NOT_FOUND));
        log.clear();
    };
    EXPECT_FALSE(context()->zoneRestartFlag("nobody"));
    expectLines();
    context()->setZoneRestartFlag("nobody", true);
    expectLines();
    EXPECT_EQ(context()->getZoneInitPID("nobody"), 0);
    expectLines();
    EXPECT_EQ(context()->getZoneType("nobody"), ZUP::ZONE_TYPE_NONE);
    expectLines();
    EXPECT_EQ(context()->getZoneState("nobody"), NONE);
    expectLines();
    EXPECT_EQ(context()->zoneOperationType("nobody"), ZUP::ZONE_OPERATION_NONE);
    expectLines();
    EXPECT_FALSE(context()->sendEventToZone("nobody", eZONE_EVENT_START, NONE, nullptr));
    expectLines();
}

TEST_F(FilledZoneContextTest, KeepsTheRestartFlag)
{
    context()->setZoneRestartFlag("alpha", true);
    EXPECT_TRUE(context()->zoneRestartFlag("alpha"));
    EXPECT_FALSE(context()->zoneRestartFlag("bravo"));
    context()->setZoneRestartFlag("alpha", false);
    EXPECT_FALSE(context()->zoneRestartFlag("alpha"));
    EXPECT_THAT(ownTexts(log), ElementsAre("I Restart flag is set of \"alpha\" to [1]",
                                           "I Restart flag is set of \"alpha\" to [0]"));
}

TEST_F(FilledZoneContextTest, AsksTheContainerForAnInitPidThatWasNeverReported)
{
    control.set("containers/alpha/init_pid", "55");
    EXPECT_EQ(context()->getZoneInitPID("alpha"), 55);
    context()->getZone("alpha")->initPid = -1;
    EXPECT_EQ(context()->getZoneInitPID("alpha"), 55);
    context()->getZone("alpha")->initPid = 77;
    EXPECT_EQ(context()->getZoneInitPID("alpha"), 77);
}

TEST_F(FilledZoneContextTest, TellsKindStateAndOperation)
{
    EXPECT_EQ(context()->getZoneType("alpha"), ZUP::ZONE_TYPE_HYBRID);
    EXPECT_EQ(context()->getZoneType("bravo"), ZUP::ZONE_TYPE_ISOLATION);
    EXPECT_EQ(context()->getZoneType("charlie"), ZUP::ZONE_TYPE_PROTECTION);
    control.set("containers/alpha/state", "FROZEN");
    context()->getZone("alpha")->state = RUNNING; // not what counts here
    EXPECT_EQ(context()->getZoneState("alpha"), FROZEN);
    context()->getZone("alpha")->operationType = ZUP::ZONE_OPERATION_FREEZE;
    EXPECT_EQ(context()->zoneOperationType("alpha"), ZUP::ZONE_OPERATION_FREEZE);
}

// Events.

TEST_F(FilledZoneContextTest, QueuesAnEvent)
{
    EXPECT_TRUE(context()->sendEventToZone("bravo", eZONE_EVENT_ATTACH, NONE, nullptr));
    EXPECT_THAT(ownTexts(log), ElementsAre("I the zone event is sent to bravo thread(thread id : " +
                                               std::to_string(currentThreadId()) + ")",
                                           "I zone event(5) is sent (zone name : bravo)"));
}

TEST_F(FilledZoneContextTest, QueuesNothingForAThreadThatHasEnded)
{
    end("bravo");
    EXPECT_FALSE(context()->sendEventToZone("bravo", eZONE_EVENT_STOP, NONE, nullptr));
    EXPECT_THAT(ownTexts(log),
                ElementsAre("E zone thread is not running (zone name : bravo [event type : 2])"));
}

TEST_F(FilledZoneContextTest, EndsEveryThread)
{
    EXPECT_TRUE(context()->terminateAllZoneThread());
    for (const char* name : {"alpha", "bravo", "charlie"}) {
        EXPECT_THAT(
            ownTexts(log),
            Contains(std::string("I The mainloop of thread is terminated (thread name : ") + name + ")"));
        const Zone* zone = context()->getZone(name);
        EXPECT_TRUE(eventually([&] { return !zone->isRunning(); }));
    }
}

// Whether every thread runs.

TEST_F(FilledZoneContextTest, SeesThatEveryThreadRuns)
{
    EXPECT_TRUE(context()->isRunningZoneThreads());
    EXPECT_THAT(ownTexts(log), IsEmpty());
}

TEST_F(ZoneContextTest, MissesTheZoneOfARefusedContainer)
{
    const KeepsRefusedHandles kept;
    control.set("containers/charlie/type", "0");
    const RegistryFixture context({"alpha", "bravo"});
    log.clear();
    EXPECT_FALSE(context->isRunningZoneThreads());
    EXPECT_THAT(ownTexts(log), ElementsAre("E Can not get a zone object (3 / 3)"));
}

// The automatic start.

TEST_F(AutoStartTest, RequestsOneZoneAPass)
{
    EXPECT_TRUE(context()->startAutoStartZones());
    EXPECT_THAT(ownTexts(log),
                ElementsAre("I ZoneContainerState instance is created", checking("alpha", "0 / 1 / NONE"),
                            HasSubstr("Auto start is permitted for hybrid container"),
                            HasSubstr("the zone event is sent to alpha"),
                            "I zone event(1) is sent (zone name : alpha)",
                            "I ZoneContainerState instance is destroyed"));
    EXPECT_TRUE(context()->getZone("alpha")->autoStartRequested.load());
    EXPECT_FALSE(context()->getZone("charlie")->autoStartRequested.load());

    log.clear();
    EXPECT_TRUE(context()->startAutoStartZones());
    EXPECT_THAT(ownTexts(log),
                ElementsAre("I ZoneContainerState instance is created", checking("alpha", "1 / 1 / NONE"),
                            checking("bravo", "0 / 0 / NONE"), checking("charlie", "0 / 1 / NONE"),
                            HasSubstr("Auto start is permitted for protection container"),
                            HasSubstr("the zone event is sent to charlie"),
                            "I zone event(1) is sent (zone name : charlie)",
                            "I ZoneContainerState instance is destroyed"));
    EXPECT_TRUE(context()->getZone("charlie")->autoStartRequested.load());

    log.clear();
    EXPECT_TRUE(context()->startAutoStartZones());
    EXPECT_THAT(ownTexts(log),
                ElementsAre("I ZoneContainerState instance is created", checking("alpha", "1 / 1 / NONE"),
                            checking("bravo", "0 / 0 / NONE"), checking("charlie", "1 / 1 / NONE"),
                            "I ZoneContainerState instance is destroyed"));
    EXPECT_FALSE(context()->getZone("bravo")->autoStartRequested.load());
}
