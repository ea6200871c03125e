#include "Watch/TopTable.h"
#include "Output/Screen.h"

#include <gtest/gtest.h>

using namespace Zonectl;

TEST(ProcessorShares, AreThoseSinceTheLookBefore)
{
    ProcessorShares shares;
    EXPECT_FALSE(shares.knows("red"));
    EXPECT_EQ(shares.next("red", 1000000, 500), std::nullopt);
    EXPECT_TRUE(shares.knows("red"));
    EXPECT_EQ(shares.next("red", 2000000, 250500), 250);
    EXPECT_EQ(shares.next("blue", 2000000, 0), std::nullopt) << "another zone";
    EXPECT_EQ(shares.next("red", 3000000, 2250500), 2000) << "two processors";
    EXPECT_EQ(shares.next("red", 4000000, 2250500), 0);
}

TEST(ProcessorShares, BeginAnewWithNewGroups)
{
    ProcessorShares shares;
    static_cast<void>(shares.next("red", 1000000, 900000));
    EXPECT_EQ(shares.next("red", 2000000, 100), std::nullopt);
    EXPECT_EQ(shares.next("red", 3000000, 100100), 100);
    EXPECT_EQ(shares.next("red", 4000000, std::nullopt), std::nullopt);
    EXPECT_EQ(shares.next("red", 5000000, 200100), std::nullopt);
    EXPECT_EQ(shares.next("red", 5000000, 200200), std::nullopt) << "no time has passed";
}

TEST(UptimeText, HasDaysWhereThereAreSome)
{
    EXPECT_EQ(uptimeText(0), "00:00:00");
    EXPECT_EQ(uptimeText(86399), "23:59:59");
    EXPECT_EQ(uptimeText(3 * 86400 + 4 * 3600 + 5 * 60 + 6), "3d 04:05:06");
}

TEST(BytesText, TakesTheUnitThatFits)
{
    constexpr std::int64_t MEBI = 1048576;
    EXPECT_EQ(bytesText(0), "0.0 KiB");
    EXPECT_EQ(bytesText(1536), "1.5 KiB");
    EXPECT_EQ(bytesText(MEBI - 1), "1023.9 KiB");
    EXPECT_EQ(bytesText(MEBI), "1.0 MiB");
    EXPECT_EQ(bytesText(5 * MEBI * MEBI), "5120.0 GiB");
}

TEST(TopText, ShowsWhatIsKnown)
{
    const std::vector<TopRow> rows = {{.name = "red",
                                       .state = "RUNNING",
                                       .toldByDaemon = true,
                                       .permille = 123,
                                       .uptimeSeconds = 61,
                                       .memoryBytes = 2048,
                                       .processes = 3}};
    EXPECT_EQ(topText(rows, Style(false)), "ZONE  STATE    UPTIME    CPU %  MEMORY   PROCESSES\n"
                                           "red   RUNNING  00:01:01  12.3   2.0 KiB  3\n");
}

TEST(TopText, MarksTheStatesThatTheDaemonDidNotTell)
{
    EXPECT_EQ(topText({{.name = "red", .state = "STOPPED"}}, Style(false)),
              "ZONE  STATE     UPTIME  CPU %  MEMORY  PROCESSES\n"
              "red   STOPPED*  -       -      -       -\n"
              "* as its control groups tell it: the zone manager did not\n");
}

TEST(TopJson, IsOneArrayOnALine)
{
    EXPECT_EQ(topJson({{.name = "red", .state = "STOPPED", .permille = 5}}),
              R"([{"name":"red","state":"STOPPED","state_source":"control-groups","uptime_seconds":null,)"
              R"("cpu_permille":5,"memory_bytes":null,"processes":null}])"
              "\n");
    EXPECT_EQ(topJson({}), "[]\n");
}

TEST(Picture, LeavesNothingOfWhatWasThere)
{
    EXPECT_EQ(picture("one\ntwo\n", {.columns = 10, .rows = 5}), "\033[Hone\033[K\ntwo\033[K\n\033[J");
}

TEST(Picture, IsCutToTheScreen)
{
    EXPECT_EQ(picture("abcdef\ntwo\nthree\n", {.columns = 4, .rows = 2}), "\033[Habcd\033[K\ntwo\033[K");
}
