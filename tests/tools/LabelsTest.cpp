#include "Doctor/Labels.h"

#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

const LabelRule ENFORCED = {"/p/x", "System", true, "/p", Consequence::ZoneRefused, "x"};
const LabelRule LENIENT = {"/p/x", "_", false, "/p", Consequence::ZoneRefused, "x"};
const LabelRule NEVER_MADE = {"/p/x", "!", true, "", Consequence::ZoneRefused, "x"};

struct JudgeCase
{
    const char* what;
    LabelRule rule;
    PathFacts facts;
    bool smack;
    LabelVerdict verdict;
};

const JudgeCase CASES[] = {
    {"equal", ENFORCED, {true, "System", false, true}, false, LabelVerdict::Satisfied},
    {"leading part", ENFORCED, {true, "Sys", false, true}, false, LabelVerdict::Satisfied},
    {"longer than wanted", ENFORCED, {true, "System::Shared", false, true}, false, LabelVerdict::WillBeSet},
    {"different", ENFORCED, {true, "_", false, true}, false, LabelVerdict::WillBeSet},
    {"different, read-only", ENFORCED, {true, "_", true, true}, false, LabelVerdict::ReadOnly},
    {"equal, read-only", ENFORCED, {true, "System", true, true}, false, LabelVerdict::Satisfied},
    {"no label", ENFORCED, {true, {}, false, true}, false, LabelVerdict::NoLabel},
    {"made with Smack", ENFORCED, {false, {}, false, true}, true, LabelVerdict::WillBeCreated},
    {"made without Smack", ENFORCED, {false, {}, false, true}, false, LabelVerdict::NoLabel},
    {"nowhere to make it", ENFORCED, {false, {}, false, false}, true, LabelVerdict::Missing},
    {"made on a read-only mount", ENFORCED, {false, {}, true, true}, true, LabelVerdict::ReadOnly},
    {"lenient, no label", LENIENT, {true, {}, false, true}, false, LabelVerdict::NotEnforced},
    {"lenient, other label", LENIENT, {true, "x", true, true}, false, LabelVerdict::NotEnforced},
    {"lenient, made", LENIENT, {false, {}, false, true}, false, LabelVerdict::WillBeCreated},
    {"never made", NEVER_MADE, {false, {}, false, false}, true, LabelVerdict::Missing},
    {"not to be seen", ENFORCED, {false, {}, false, false, true}, true, LabelVerdict::Unknown},
};

} // namespace

TEST(Judge, FollowsTheDaemon)
{
    for (const JudgeCase& test : CASES) {
        EXPECT_EQ(judge(test.rule, test.facts, test.smack), test.verdict) << test.what;
    }
}

TEST(Judge, EveryVerdictHasAText)
{
    for (int value = 0; value <= static_cast<int>(LabelVerdict::Unknown); ++value) {
        EXPECT_FALSE(verdictText(static_cast<LabelVerdict>(value)).empty()) << value;
    }
    EXPECT_TRUE(isGood(LabelVerdict::WillBeSet));
    EXPECT_FALSE(isGood(LabelVerdict::NoLabel));
}

TEST(ZoneRules, AreThoseOfTheKind)
{
    ContainerInfo container;
    container.name = "x";
    EXPECT_TRUE(zoneRules("/var/lib/lxc", container).empty());

    struct Expectation
    {
        ZUP::ZoneType kind;
        const char* labels[3];
        bool enforced[3];
    };
    const Expectation expectations[] = {
        {ZUP::ZONE_TYPE_HYBRID, {"_", "_", "_"}, {false, false, false}},
        {ZUP::ZONE_TYPE_ISOLATION, {"_", "System", "_"}, {false, true, true}},
        {ZUP::ZONE_TYPE_PROTECTION, {"!", "!", "_"}, {true, true, true}},
    };
    const char* paths[] = {"/var/lib/lxc/x", "/opt/var/lib/lxc/x", "/opt/var/lib/lxc/x/opt"};
    for (const Expectation& expected : expectations) {
        container.kind = expected.kind;
        const std::vector<LabelRule> rules = zoneRules("/var/lib/lxc", container);
        ASSERT_EQ(rules.size(), 3U);
        for (std::size_t i = 0; i < rules.size(); ++i) {
            EXPECT_EQ(rules[i].path, paths[i]);
            EXPECT_EQ(rules[i].wanted, expected.labels[i]) << expected.kind << rules[i].path;
            EXPECT_EQ(rules[i].enforced, expected.enforced[i]) << expected.kind << rules[i].path;
        }
        EXPECT_TRUE(rules[0].creatable.empty()) << "the read-only root is never made";
    }
}
