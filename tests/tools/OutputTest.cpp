#include "Output/Output.h"
#include "Output/Json.h"
#include "Output/Table.h"

#include <gtest/gtest.h>

using namespace Zonectl;

TEST(Table, AlignsColumnsAndLeavesNoTrailingBlanks)
{
    Table table({"NAME", "STATE"});
    table.add({{"a"}, {"RUNNING"}});
    table.add({{"navigation"}, {""}});
    EXPECT_EQ(table.render(Style(false)), "NAME        STATE\n"
                                          "a           RUNNING\n"
                                          "navigation\n");
}

TEST(Table, CountsCharactersAndNotBytes)
{
    Table table({"N", "S"});
    table.add({{"ä"}, {"x"}});
    table.add({{"ab"}, {"y"}});
    EXPECT_EQ(table.render(Style(false)), "N   S\nä   x\nab  y\n");
}

TEST(Table, ColorDoesNotChangeTheColumns)
{
    Table table({"N", "S"});
    table.add({{"a", Tone::Good}, {"x"}});
    EXPECT_EQ(table.render(Style(true)), "\033[2mN\033[0m  \033[2mS\033[0m\n\033[32ma\033[0m  x\n");
}

TEST(Table, FillsShortRows)
{
    Table table({"N", "S"});
    table.add({{"a"}});
    EXPECT_EQ(table.render(Style(false)), "N  S\na\n");
}

TEST(Printable, LetsNoNameSteerTheTerminal)
{
    EXPECT_EQ(printable("a\033[2Jb\n"), "a?[2Jb?");
    EXPECT_EQ(printable("Zoné"), "Zoné");
    EXPECT_EQ(printable("\xff"), "\xef\xbf\xbd");
}

TEST(Style, AlwaysAndNeverAskNobody)
{
    EXPECT_EQ(Style::forStandardOutput(ColorMode::Always).paint(Tone::Bad, "x"), "\033[31mx\033[0m");
    EXPECT_EQ(Style::forStandardOutput(ColorMode::Never).paint(Tone::Bad, "x"), "x");
    EXPECT_EQ(Style(true).paint(Tone::Plain, "x"), "x");
}

TEST(JsonWriter, WritesOneLine)
{
    JsonWriter json;
    json.beginObject().name("a").text("x\"y").name("b").number(-7).name("c").boolean(true);
    json.name("d").null().name("e").beginArray().text("1").endArray().name("f").textOrNull({}).endObject();
    EXPECT_EQ(json.finish(JsonWriter::Layout::OneLine),
              R"({"a":"x\"y","b":-7,"c":true,"d":null,"e":["1"],"f":null})");
}

TEST(JsonWriter, StaysUtf8)
{
    JsonWriter json;
    json.beginArray().text("\xff").endArray();
    EXPECT_EQ(json.finish(JsonWriter::Layout::OneLine), "[\"\xef\xbf\xbd\"]");
}
