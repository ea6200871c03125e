#include "Explain/MessageForm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Zonectl;
using testing::ElementsAre;

TEST(MessageForm, GivesTheValuesOfTheConversions)
{
    MessageValues values;
    ASSERT_TRUE(matchesForm("[%s:%d] The state of %s is changed to %s",
                            "[zone-monitor:9] The state of red is changed to RUNNING", values));
    EXPECT_THAT(values, ElementsAre("zone-monitor", "9", "red", "RUNNING"));
    ASSERT_TRUE(matchesForm("Zone count is set to [%d / %zu]", "Zone count is set to [2 / 1]", values));
    EXPECT_THAT(values, ElementsAre("2", "1"));
}

TEST(MessageForm, WithoutConversionsItIsTheWholeText)
{
    MessageValues values;
    EXPECT_TRUE(matchesForm("thread is NULL", "thread is NULL", values));
    EXPECT_FALSE(matchesForm("thread is NULL", "thread is NULL!", values));
    EXPECT_FALSE(matchesForm("thread is NULL", "thread", values));
}

TEST(MessageForm, TheLastTextEndsTheMessage)
{
    MessageValues values;
    ASSERT_TRUE(matchesForm("No \"%s\" object", "No \"a\" object\" object", values));
    EXPECT_THAT(values, ElementsAre("a\" object"));
    EXPECT_FALSE(matchesForm("No \"%s\" object", "No \"a\" object.", values));
    EXPECT_FALSE(matchesForm("%s ran for %d s", "it ran s", values));
}
