#include "Watch/WatchOutput.h"

#include <gtest/gtest.h>

using namespace Zonectl;

namespace {

using Kind = WatchEvent::Kind;

const WatchEvent TOLD = {.kind = Kind::Present, .zone = "red", .state = "RUNNING"};
const WatchEvent FOUND = {
    .kind = Kind::Present, .zone = "red", .state = "RUNNING", .note = "monitor silent, from /proc"};
const WatchEvent UNKNOWN = {.kind = Kind::Present, .zone = "red", .note = "monitor silent, from /proc"};

/// What stands behind the time and the zone.
[[nodiscard]] std::string wordsOf(const WatchEvent& event)
{
    const std::string text = watchText(event, 0, Style(false));
    return text.substr(text.find("red"));
}

/// What stands behind the time.
[[nodiscard]] std::string membersOf(const WatchEvent& event)
{
    const std::string line = watchJson(event, 0, "signal");
    return line.substr(line.find("\"name\""));
}

} // namespace

TEST(WatchText, AStateThatTheDaemonDidNotTellIsMarked)
{
    EXPECT_EQ(wordsOf(TOLD), "red  RUNNING (present)\n");
    EXPECT_EQ(wordsOf(FOUND), "red  RUNNING? (present; monitor silent, from /proc)\n");
    EXPECT_EQ(wordsOf(UNKNOWN), "red  unknown (monitor silent, from /proc)\n");
}

TEST(WatchJson, TellsWhereAPresentStateIsFrom)
{
    EXPECT_EQ(membersOf(TOLD), R"("name":"red","state":"RUNNING","source":"query"})"
                               "\n");
    EXPECT_EQ(membersOf(FOUND),
              R"("name":"red","state":"RUNNING","note":"monitor silent, from /proc","source":"proc"})"
              "\n");
    EXPECT_EQ(membersOf(UNKNOWN),
              R"("name":"red","state":null,"note":"monitor silent, from /proc","source":"query"})"
              "\n");
}
