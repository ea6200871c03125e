#include "Output/Terminal.h"

#include <gtest/gtest.h>

using namespace Zonectl;

TEST(TextWidth, CountsColumns)
{
    EXPECT_EQ(textWidth(""), 0U);
    EXPECT_EQ(textWidth("abc"), 3U);
    EXPECT_EQ(textWidth("zö\xc3\xa4"), 3U);
    EXPECT_EQ(textWidth("\xe5\x8c\xba"), 2U) << "a wide character";
    EXPECT_EQ(textWidth("e\xcc\x81"), 1U) << "a combining character";
    EXPECT_EQ(textWidth("\033[1;31mred\033[0m"), 3U);
    EXPECT_EQ(textWidth("a\xff"
                        "b\xe5"),
              4U)
        << "not UTF-8";
}

TEST(Clipped, KeepsWhatFits)
{
    EXPECT_EQ(clipped("abc", 5), "abc");
    EXPECT_EQ(clipped("abc", 3), "abc");
    EXPECT_EQ(clipped("abc", 2), "ab");
    EXPECT_EQ(clipped("abc", 0), "");
    EXPECT_EQ(clipped("a\xe5\x8c\xba"
                      "c",
                      2),
              "a")
        << "nothing is left behind a character that is too wide";
}

TEST(Clipped, BringsColoursToTheirEnd)
{
    EXPECT_EQ(clipped("\033[31mred\033[0m", 1), "\033[31mr\033[0m");
    EXPECT_EQ(clipped("\033[31mred", 9), "\033[31mred");
    EXPECT_EQ(clipped("ab\033[3", 1), "a\033[3");
}
