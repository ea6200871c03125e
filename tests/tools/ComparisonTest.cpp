#include "Watch/Comparison.h"

#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

constexpr Micros SECOND = 1000000;

/// One letter for each step, all of no known length.
[[nodiscard]] std::vector<Step> steps(const std::string& letters)
{
    std::vector<Step> result;
    for (const char letter : letters) {
        result.push_back({std::string(1, letter), std::nullopt});
    }
    return result;
}

/// "A" for a step of both, "-A" for one of the first alone, "+A" for one of the second alone.
[[nodiscard]] std::string aligned(const std::string& a, const std::string& b)
{
    std::string text;
    for (const StepPair& pair : alignSteps(steps(a), steps(b))) {
        text += pair.inBoth() ? "" : pair.a ? "-" : "+";
        text += (pair.a ? pair.a : pair.b)->state;
    }
    return text;
}

[[nodiscard]] std::optional<std::int64_t> percent(Micros a, Micros b)
{
    return StepPair{Step{"X", a}, Step{"X", b}}.notablePercent();
}

} // namespace

TEST(AlignSteps, FindsWhatIsMissingAndWhatIsNew)
{
    EXPECT_EQ(aligned("", ""), "");
    EXPECT_EQ(aligned("ABC", "ABC"), "ABC");
    EXPECT_EQ(aligned("ABC", "AC"), "A-BC");
    EXPECT_EQ(aligned("AC", "ABC"), "A+BC");
    EXPECT_EQ(aligned("ABC", ""), "-A-B-C");
    EXPECT_EQ(aligned("", "AB"), "+A+B");
    EXPECT_EQ(aligned("ABXCD", "ABYCD"), "AB-X+YCD");
    EXPECT_EQ(aligned("XABCY", "ZABCW"), "-X+ZABC-Y+W");
    EXPECT_EQ(aligned("ABAB", "BABA"), "-ABAB+A");
}

TEST(AlignSteps, GivesUpOnPairsInWhatIsTooLong)
{
    const std::string common(3000, 'C');
    const auto pairs = alignSteps(steps("S" + common + "A"), steps("T" + common + "B"));
    EXPECT_EQ(pairs.size(), 2 * (common.size() + 2));
    EXPECT_FALSE(pairs.front().b);
    EXPECT_FALSE(pairs.back().a);
    EXPECT_EQ(alignSteps(steps(common + common), steps(common + common)).size(), 2 * common.size());
}

TEST(StepPair, TellsWhatTookNotablyLonger)
{
    EXPECT_EQ(percent(SECOND, 2 * SECOND), 200);
    EXPECT_EQ(percent(2 * SECOND, SECOND), 50);
    EXPECT_EQ(percent(SECOND, SECOND + 200001), 120);
    EXPECT_EQ(percent(SECOND, SECOND + 200000), std::nullopt) << "a fifth";
    EXPECT_EQ(percent(10000, 110000), std::nullopt) << "100 ms";
    EXPECT_EQ(percent(10000, 110001), 1100);
    EXPECT_EQ(percent(SECOND, SECOND), std::nullopt);
    EXPECT_TRUE(percent(0, SECOND).has_value());
}

TEST(StepPair, OfAnUnknownLengthIsNotable)
{
    EXPECT_FALSE((StepPair{Step{"X", std::nullopt}, Step{"X", SECOND}}).notablePercent());
    EXPECT_FALSE((StepPair{Step{"X", SECOND}, Step{"X", std::nullopt}}).notablePercent());
    EXPECT_FALSE((StepPair{std::nullopt, Step{"X", SECOND}}).notablePercent());
}

TEST(StepsOf, KnowTheLengthOfWhatWasSeenWhole)
{
    const ZoneTimeline zone = {"red",
                               {{.state = "STOPPED", .from = 0, .to = 5, .endSeen = true},
                                {.state = "STARTING", .from = 5, .to = 9, .beginSeen = true, .endSeen = true},
                                {.state = "RUNNING", .from = 9, .to = 20, .beginSeen = true}}};
    const std::vector<Step> steps = stepsOf(zone);
    ASSERT_EQ(steps.size(), 3U);
    EXPECT_EQ(steps[0].lasted, std::nullopt);
    EXPECT_EQ(steps[1].lasted, 4);
    EXPECT_EQ(steps[2].lasted, std::nullopt);
}

TEST(StepsOf, AStateThatOutlastsAGapIsOne)
{
    const ZoneTimeline zone = {"red",
                               {{.state = "RUNNING", .from = 0, .to = 5, .beginSeen = true},
                                {.state = "RUNNING", .from = 8, .to = 9, .endSeen = true},
                                {.state = "STOPPED", .from = 9, .to = 10, .beginSeen = true},
                                {.state = "RUNNING", .from = 12, .to = 13}}};
    EXPECT_EQ(stepsOf(zone).size(), 3U);
}

TEST(Compare, TakesTheZonesOfBoth)
{
    const Interval running = {.state = "RUNNING", .from = 0, .to = 5, .beginSeen = true};
    const Timeline a = {.zones = {{"blue", {running}}, {"red", {running}}}};
    const Timeline b = {.zones = {{"gold", {running}}, {"red", {running}}}};
    const auto zones = compare(a, b);
    ASSERT_EQ(zones.size(), 3U);
    EXPECT_EQ(zones[0].zone, "blue");
    EXPECT_FALSE(zones[0].same());
    EXPECT_EQ(zones[1].zone, "gold");
    EXPECT_FALSE(zones[1].same());
    EXPECT_EQ(zones[2].zone, "red");
    EXPECT_TRUE(zones[2].same());
}
