#include "ZoneCore/ZoneFactory.h"

#include "Common/Log.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/support/unit/Eventually.h"
#include "tests/support/unit/Failure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace ZoneCore;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;
using ZoneTest::eventually;
using ZoneTest::Failure;
using ZoneTest::FakeLxcControl;
using ZoneTest::LogCapture;

ZONE_TEST_MAY_FAIL(GMainContext*, g_main_context_new, (), ())
ZONE_TEST_MAY_FAIL(GAsyncQueue*, g_async_queue_new, (), ())
ZONE_TEST_MAY_FAIL(GSource*, g_source_new, (GSourceFuncs * functions, guint size), (functions, size))
ZONE_TEST_MAY_FAIL(GThread*, g_thread_new, (const gchar* name, GThreadFunc entry, gpointer data),
                   (name, entry, data))

namespace {
thread_local bool everyLoopRuns = false;
}

extern "C" gboolean g_main_loop_is_running(GMainLoop* loop)
{
    return everyLoopRuns || ZoneTest::genuine(&g_main_loop_is_running, "g_main_loop_is_running")(loop);
}

namespace {

constexpr const char* NAME = "alpha";

using Query = decltype(lxc_container::get_config_item);
Query answer = nullptr; ///< what a told query is answered by

/// Writes each query into the log, where it takes its place among the factory's records.
int tellQuery(lxc_container* container, const char* key, char* buffer, int size)
{
    ZLOGD("query %s[%s / %d]", key, buffer == nullptr ? "-" : "buffer", size);
    return answer(container, key, buffer, size);
}

constexpr const char* ASKED_FOR_KIND = "D query lxc.container_type[- / 0]";
constexpr const char* ASKED_FOR_AUTO_START = "D query lxc.start.auto[- / 0]";
constexpr const char* READ_AUTO_START = "D query lxc.start.auto[buffer / 4096]";
constexpr const char* READ_ROOTFS = "D query lxc.rootfs.path[buffer / 4096]";
constexpr const char* MARKED = "I auto start flag is true...alpha";
constexpr const char* CREATED = "I HybridZone object is created...[type : 2]";
constexpr const char* DESCRIBED = "I [Zone Name : alpha] / [Zone Base Path : /zone-test] / [Zone Type : 2]";
constexpr const char* INITIALIZE_FAILED = "E Failed to initialize the zone object...alpha";
constexpr const char* ZONE_DESTROYED = "I Zone object is destroyed(zone name : alpha)";

/// The end of a line of the making thread's that is about the zone's.
std::string here()
{
    return "(thread name : alpha, thread id : " + std::to_string(currentThreadId()) + ")";
}

std::string released()
{
    return "I release the event source from the main context" + here();
}

const std::string DESTROYED =
    "I HybridZone zone is destroyed...[type : 2, thread name : alpha, thread id : " +
    std::to_string(currentThreadId()) + "]";

/// The steps of a zone whose labels are as they must be, and those that follow.
std::vector<std::string> madeAnd(const std::vector<std::string>& further)
{
    std::vector<std::string> result = {ASKED_FOR_KIND, CREATED, DESCRIBED,
                                       "I " + ZoneTest::byThread(NAME) +
                                           "\"alpha\" is Hybrid Zone...It is permitted..."};
    result.insert(result.end(), further.begin(), further.end());
    return result;
}

/// Ends a zone as the registry does: nothing is deleted while its thread could still touch it.
struct EndZone
{
    void operator()(Zone* zone) const
    {
        EXPECT_TRUE(eventually([zone] { return zone->isRunning(); }));
        zone->terminate();
        EXPECT_TRUE(eventually([zone] { return zone->closeGate(); }));
        static_cast<void>(lxc_container_put(zone->container->getHandle()));
        delete zone;
    }
};
using ZonePtr = std::unique_ptr<Zone, EndZone>;

class ZoneFactoryTest : public testing::Test
{
protected:
    void SetUp() override { control.define(NAME, ZUP::ZONE_TYPE_HYBRID); }

    /// A zone of the container as it is defined now.
    [[nodiscard]] ZonePtr make()
    {
        handle = lxc_container_new(NAME, basePath.c_str());
        answer = std::exchange(handle->get_config_item, tellQuery);
        log.clear();
        return ZonePtr(ZoneFactory().getZone(handle, basePath));
    }
    /// A zone whose handle answers queries by this function.
    [[nodiscard]] ZonePtr makeWith(Query function)
    {
        handle = lxc_container_new(NAME, basePath.c_str());
        handle->get_config_item = function;
        log.clear();
        return ZonePtr(ZoneFactory().getZone(handle, basePath));
    }
    /// What the making thread has written, in order, without what the base classes, the container
    /// and the policy say.
    [[nodiscard]] std::vector<std::string> steps() const
    {
        std::vector<std::string> result;
        for (const ZoneTest::LogRecord& record : log.records()) {
            const bool own = record.thread == currentThreadId();
            const bool ofABase =
                record.body == "Thread is created" || record.body == "Zone object is created";
            const bool ofOnePath = record.body.find(" path : ") != std::string::npos;
            if (own && !ofABase && !ofOnePath && record.file != "Container.cpp" &&
                record.file != "ZoneSecurityPolicy.cpp") {
                result.push_back(std::string(1, record.level) + " " + record.body);
            }
        }
        return result;
    }
    void container(const std::string& file, const std::string& value = "") const
    {
        control.set(std::string("containers/") + NAME + "/" + file, value);
    }
    /// The count of references to the container after the last call that changed it.
    [[nodiscard]] std::string lastReferenceCall() const
    {
        std::string last;
        for (const std::string& call : control.calls()) {
            if (call.rfind("lxc_container_", 0) == 0) {
                last = call;
            }
        }
        return last;
    }

    LogCapture log;
    FakeLxcControl control;
    std::string basePath = ZoneTest::BASE_PATH;
    lxc_container* handle = nullptr; ///< dangling after a failure that put it
};

struct KindRow
{
    int type;
    const char* word;
    const char* label; ///< of the root
};

class ZoneFactoryKind : public ZoneFactoryTest, public testing::WithParamInterface<KindRow>
{};

class ZoneFactoryNoKind : public ZoneFactoryTest, public testing::WithParamInterface<const char*>
{};

class ZoneFactoryNoAutoStart : public ZoneFactoryTest, public testing::WithParamInterface<std::string>
{};

} // namespace

TEST_F(ZoneFactoryTest, RefusesANullHandle)
{
    log.clear();
    EXPECT_EQ(ZoneFactory().getZone(nullptr, basePath), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("E Invalid lxc container object..."));
}

TEST_P(ZoneFactoryKind, MakesAZoneOfTheKind)
{
    const KindRow& row = GetParam();
    container("type", std::to_string(row.type));
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_EQ(zone->getZoneType(), row.type);
    EXPECT_THAT(log.texts(), testing::IsSupersetOf(
                                 {std::string("I ") + row.word +
                                      "Zone object is created...[type : " + std::to_string(row.type) + "]",
                                  "I [Zone Name : alpha] / [Zone Base Path : /zone-test] / [Zone Type : " +
                                      std::to_string(row.type) + "]",
                                  std::string("I Start the zone thread for \"alpha\"")}));
    EXPECT_EQ(ZoneTest::labelOf("/zone-test/alpha"), row.label);
}

INSTANTIATE_TEST_SUITE_P(All, ZoneFactoryKind,
                         testing::Values(KindRow{1, "Isolate", "_"}, KindRow{2, "Hybrid", "_"},
                                         KindRow{3, "Protect", "!"}));

TEST_F(ZoneFactoryTest, FillsTheZoneAndStartsItsThread)
{
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_EQ(zone->zoneName, NAME);
    EXPECT_EQ(zone->name(), NAME);
    EXPECT_EQ(zone->basePath, ZoneTest::BASE_PATH);
    EXPECT_EQ(zone->rootfsPath, "/srv/alpha");
    EXPECT_FALSE(zone->autoStart);
    EXPECT_EQ(zone->state.load(), NONE);
    EXPECT_TRUE(zone->hasEventQueue());
    EXPECT_FALSE(zone->usesDefaultContext());
    EXPECT_EQ(zone->container->getHandle(), handle);
    EXPECT_EQ(lastReferenceCall(), "lxc_container_get alpha 2 -");
    EXPECT_TRUE(eventually([&] { return zone->isRunning(); }));
    const auto own = ZoneTest::ownTexts(log);
    EXPECT_EQ(own.back(), "I Start the zone thread for \"alpha\"");
    // The watchdog's values show when the thread registers itself.
    EXPECT_TRUE(eventually([&] {
        const auto texts = log.texts();
        return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
            return text.rfind("I Watchdog Is registered[360 / 15000](thread name : alpha, tid : ", 0) == 0;
        });
    }));
}

TEST_P(ZoneFactoryNoKind, MakesNoZone)
{
    container("type", GetParam());
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre(ASKED_FOR_KIND, "I container_type : " + std::string(GetParam()),
                                         "E Failed to create the zone object...alpha"));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_new alpha 1 /zone-test");
    static_cast<void>(lxc_container_put(handle));
}

INSTANTIATE_TEST_SUITE_P(All, ZoneFactoryNoKind, testing::Values("-1", "0", "4"));

TEST_F(ZoneFactoryTest, RefusesAZoneWhoseLabelsAreRefused)
{
    container("type", "3");
    std::filesystem::remove_all("/zone-test/alpha");
    EXPECT_EQ(make(), nullptr);
    const auto texts = log.texts();
    const auto refusal =
        std::find(texts.begin(), texts.end(), "E The smack label(!) of zone(alpha) is invalid...");
    ASSERT_NE(refusal, texts.end());
    // The half-made zone ends, and with it a container that never got its handle.
    EXPECT_THAT(std::vector<std::string>(refusal, texts.end()),
                testing::IsSupersetOf({std::string("I Container object is destroyed..."),
                                       std::string("I Zone object is destroyed(zone name : alpha)")}));
    EXPECT_THAT(texts, Not(Contains(HasSubstr("thread count of container"))));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_new alpha 1 /zone-test");
    static_cast<void>(lxc_container_put(handle));
}

TEST_F(ZoneFactoryTest, RefusesAContainerWithoutARootFileSystem)
{
    control.remove("containers/alpha/rootfs");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(steps(),
                ElementsAreArray(madeAnd(
                    {ASKED_FOR_AUTO_START, READ_ROOTFS, "E Failed to get \"lxc.rootfs\" value...alpha",
                     DESTROYED, ZONE_DESTROYED, released(), released(), "I Thread is destroyed" + here()})));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_put alpha 0 -"); // both references
}

TEST_F(ZoneFactoryTest, MarksAZoneForAutomaticStart)
{
    container("auto", "1");
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_TRUE(zone->autoStart);
    EXPECT_FALSE(zone->autoStartRequested.load());
    EXPECT_THAT(log.texts(), Contains("I auto start flag is true...alpha"));
}

TEST_P(ZoneFactoryNoAutoStart, LeavesTheZoneUnmarked)
{
    container("auto", GetParam());
    const ZonePtr zone = make();
    ASSERT_NE(zone, nullptr);
    EXPECT_FALSE(zone->autoStart);
    EXPECT_THAT(log.texts(), Not(Contains(HasSubstr("auto start flag"))));
}

INSTANTIATE_TEST_SUITE_P(All, ZoneFactoryNoAutoStart,
                         testing::Values("", "0", "11", " 1", "1 ", "true", std::string(4096, '1')));

// The steps in their order, with the queries in between.

TEST_F(ZoneFactoryTest, TakesItsStepsInOrder)
{
    container("auto", "1");
    const ZonePtr zone = make();
    EXPECT_THAT(steps(), ElementsAreArray(madeAnd({ASKED_FOR_AUTO_START, READ_AUTO_START, MARKED, READ_ROOTFS,
                                                   "I thread is created" + here(),
                                                   "I Start the zone thread for \"alpha\""})));
    EXPECT_THAT(
        control.calls(),
        ElementsAre("lxc_container_new alpha 1 /zone-test", "get_config_item alpha 1 lxc.container_type",
                    "lxc_container_get alpha 2 -", "get_config_item alpha 2 lxc.start.auto",
                    "get_config_item alpha 2 lxc.start.auto", "get_config_item alpha 2 lxc.rootfs.path"));
}

TEST_F(ZoneFactoryTest, LooksAtTheLabelsBeforeItTakesTheContainer)
{
    container("get_fails");
    container("type", "3");
    std::filesystem::remove_all("/zone-test/alpha");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(control.calls(), ElementsAre("lxc_container_new alpha 1 /zone-test",
                                             "get_config_item alpha 1 lxc.container_type"));
    static_cast<void>(lxc_container_put(handle));
}

TEST_F(ZoneFactoryTest, TakesAReferenceBeforeItReadsTheItems)
{
    container("get_fails");
    control.remove("containers/alpha/rootfs");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(steps(), ElementsAreArray(madeAnd({"E Failed to get the container reference...alpha",
                                                   DESTROYED, ZONE_DESTROYED, released(), released(),
                                                   "I Thread is destroyed" + here()})));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_put alpha 0 -");
}

TEST_F(ZoneFactoryTest, GivesUpWithoutAContext)
{
    const Failure failure("g_main_context_new");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(steps(), ElementsAre(ASKED_FOR_KIND, CREATED, DESCRIBED,
                                     "E [Thread Context] Failed to create the thread context" + here(),
                                     INITIALIZE_FAILED, INITIALIZE_FAILED, DESTROYED, ZONE_DESTROYED,
                                     released(), "I Thread is destroyed" + here()));
    static_cast<void>(lxc_container_put(handle));
}

TEST_F(ZoneFactoryTest, GivesUpWithoutAQueue)
{
    const Failure failure("g_async_queue_new");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(steps(),
                ElementsAre(ASKED_FOR_KIND, CREATED, DESCRIBED,
                            "E Failed to create the async queue of thread" + here(),
                            "E Failed to create the async event queue...alpha", INITIALIZE_FAILED, DESTROYED,
                            ZONE_DESTROYED, released(), "I Thread is destroyed" + here()));
    static_cast<void>(lxc_container_put(handle));
}

TEST_F(ZoneFactoryTest, GivesItsQueueBackWithoutAnEventSource)
{
    const Failure failure("g_source_new");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(steps(),
                ElementsAre(ASKED_FOR_KIND, CREATED, DESCRIBED, "E Failed to attach the event source...alpha",
                            "I destroy the async event queue" + here(), INITIALIZE_FAILED, DESTROYED,
                            ZONE_DESTROYED, released(), "I Thread is destroyed" + here()));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_new alpha 1 /zone-test");
    static_cast<void>(lxc_container_put(handle));
}

TEST_F(ZoneFactoryTest, GivesItsReferenceBackWithoutAThread)
{
    const Failure failure("g_thread_new");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(steps(), ElementsAreArray(
                             madeAnd({ASKED_FOR_AUTO_START, READ_ROOTFS,
                                      "E Failed to create gthread object(thread name : alpha)",
                                      "E Failed to run the zone thread...alpha", DESTROYED, ZONE_DESTROYED,
                                      released(), released(), "I Thread is destroyed" + here()})));
    EXPECT_EQ(lastReferenceCall(), "lxc_container_put alpha 0 -"); // both references
}

// The queries.

TEST_F(ZoneFactoryTest, ReadsTheMarkOnlyWhenItFits)
{
    struct Row
    {
        std::string value;
        bool isRead;
    };
    for (const Row& row : {Row{"", false}, Row{"0", true}, Row{std::string(4095, '1'), true},
                           Row{std::string(4096, '1'), false}}) {
        container("auto", row.value);
        const ZonePtr zone = make();
        ASSERT_NE(zone, nullptr);
        EXPECT_FALSE(zone->autoStart);
        const auto lines = steps();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), READ_AUTO_START), row.isRead ? 1 : 0)
            << row.value.size();
    }
}

TEST_F(ZoneFactoryTest, BelievesTheSecondReadOfTheMark)
{
    container("auto", "1");
    for (const char* second : {"0", "2", "", "12"}) {
        container("auto_read", second);
        EXPECT_FALSE(make()->autoStart) << second;
    }
    container("auto", "0");
    container("auto_read", "1");
    EXPECT_TRUE(make()->autoStart);
}

TEST_F(ZoneFactoryTest, RefusesAnEmptyRootFileSystem)
{
    container("rootfs", "");
    EXPECT_EQ(make(), nullptr);
    EXPECT_THAT(steps(), Contains("E Failed to get \"lxc.rootfs\" value...alpha"));
}

TEST_F(ZoneFactoryTest, TakesTheShortestRootFileSystem)
{
    container("rootfs", "/");
    EXPECT_EQ(make()->rootfsPath, "/");
}

// A library that ends no value it writes. The mark is the one character, since the buffer was zeroed before.
TEST_F(ZoneFactoryTest, ReadsIntoZeroedBuffersAndNeverPastThem)
{
    const ZonePtr zone = makeWith([](lxc_container*, const char* key, char* buffer, int size) {
        const std::string item = key;
        if (item == "lxc.container_type") {
            return 2;
        }
        const int length = item == "lxc.start.auto" ? 1 : size;
        if (buffer != nullptr) {
            EXPECT_EQ(std::count(buffer, buffer + size, '\0'), size);
            std::memset(buffer, '1', static_cast<size_t>(length));
        }
        return length;
    });
    ASSERT_NE(zone, nullptr);
    EXPECT_TRUE(zone->autoStart);
    EXPECT_EQ(zone->rootfsPath, std::string(4095, '1'));
}

TEST_F(ZoneFactoryTest, StartsNoThreadThatRunsAlready)
{
    const ZonePtr zone = makeWith([](lxc_container*, const char* key, char* buffer, int) {
        if (std::string(key) != "lxc.rootfs.path") {
            return std::string(key) == "lxc.container_type" ? 2 : -1;
        }
        std::strcpy(buffer, "/");
        everyLoopRuns = true;
        return 1;
    });
    everyLoopRuns = false;
    ASSERT_NE(zone, nullptr);
    EXPECT_THAT(steps(), ElementsAre(CREATED, DESCRIBED, HasSubstr("It is permitted..."),
                                     "I Start the zone thread for \"alpha\""));
    EXPECT_TRUE(zone->run()); // for the end of the test
}
