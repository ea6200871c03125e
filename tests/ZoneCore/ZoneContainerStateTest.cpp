#include "ZoneCore/ZoneContainerState.h"
#include "tests/support/unit/LogCapture.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <memory>
#include <string>

using namespace ZoneCore;
using testing::ElementsAre;
using ZoneTest::LogCapture;

namespace {

struct Row
{
    int value;
    ZoneState state;
    const char* word;
};

constexpr std::array<Row, 9> ROWS{{
    {0, NONE, "NONE"},
    {1, STOPPED, "STOPPED"},
    {2, STARTING, "STARTING"},
    {3, RUNNING, "RUNNING"},
    {4, STOPPING, "STOPPING"},
    {5, ABORTING, "ABORTING"},
    {6, FREEZING, "FREEZING"},
    {7, FROZEN, "FROZEN"},
    {8, THAWED, "THAWED"},
}};

class ZoneContainerStateWord : public testing::TestWithParam<Row>
{};

class ZoneContainerStateNoWord : public testing::TestWithParam<const char*>
{};

class ZoneContainerStateNoValue : public testing::TestWithParam<int>
{};

/// What the process writes when a lookup fails: the object is made, and never goes.
testing::Matcher<const std::string&> failedAssertion(const std::string& signature,
                                                     const std::string& expression)
{
    return testing::AllOf(testing::ContainsRegex("ZoneContainerState instance is created.*"
                                                 "source/ZoneCore/ZoneContainerState\\.cpp:[0-9]+: " +
                                                 signature + ": Assertion `" + expression + "' failed\\."),
                          testing::Not(testing::HasSubstr("is destroyed")));
}

} // namespace

TEST_P(ZoneContainerStateWord, TranslatesBothWays)
{
    const Row& row = GetParam();
    EXPECT_EQ(static_cast<int>(row.state), row.value);
    EXPECT_EQ(ZoneContainerState().stateToEnum(row.word), row.state);
    EXPECT_EQ(ZoneContainerState().stateToString(row.state), row.word);
}

INSTANTIATE_TEST_SUITE_P(All, ZoneContainerStateWord, testing::ValuesIn(ROWS),
                         [](const auto& row) { return std::string(row.param.word); });

TEST(ZoneContainerState, LogsItsLifeAroundATranslation)
{
    const LogCapture log;
    {
        const auto states = std::make_shared<ZoneContainerState>();
        EXPECT_THAT(log.texts(), ElementsAre("I ZoneContainerState instance is created"));
        EXPECT_EQ(states->stateToEnum("RUNNING"), RUNNING);
        EXPECT_EQ(states->stateToString(FROZEN), "FROZEN");
        EXPECT_THAT(log.texts(), ElementsAre("I ZoneContainerState instance is created"));
    }
    EXPECT_THAT(log.texts(), ElementsAre("I ZoneContainerState instance is created",
                                         "I ZoneContainerState instance is destroyed"));
}

TEST_P(ZoneContainerStateNoWord, EndsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(static_cast<void>(ZoneContainerState().stateToEnum(GetParam())),
                testing::KilledBySignal(SIGABRT),
                failedAssertion("ZoneCore::ZoneState ZoneCore::ZoneContainerState::stateToEnum\\(const "
                                "string&\\)",
                                "stateToEnumMap\\.find\\(state\\) != stateToEnumMap\\.end\\(\\)"));
}

INSTANTIATE_TEST_SUITE_P(All, ZoneContainerStateNoWord,
                         testing::Values("", "running", "RUNNING ", "RUN", "INVALID STATE"));

TEST_P(ZoneContainerStateNoValue, EndsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto state = static_cast<ZoneState>(GetParam());
    EXPECT_EXIT(static_cast<void>(ZoneContainerState().stateToString(state)),
                testing::KilledBySignal(SIGABRT),
                failedAssertion("std::string ZoneCore::ZoneContainerState::stateToString\\(const "
                                "ZoneCore::ZoneState&\\)",
                                "stateToStringMap\\.find\\(state\\) != stateToStringMap\\.end\\(\\)"));
}

INSTANTIATE_TEST_SUITE_P(All, ZoneContainerStateNoValue, testing::Values(9, 15));
