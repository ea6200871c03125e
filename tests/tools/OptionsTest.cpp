#include "CommandLine/Options.h"
#include "CommandLine/Failure.h"
#include "Commands.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Zonectl;

TEST(ParseOptions, DefaultsOfAnEmptyLine)
{
    const Options options = parseOptions({});
    EXPECT_TRUE(options.command.empty());
    EXPECT_FALSE(options.json || options.help || options.version || options.wait);
    EXPECT_EQ(options.color, ColorMode::Automatic);
    EXPECT_FALSE(options.timeout);
    EXPECT_EQ(options.patience(), std::chrono::seconds(30));
}

TEST(ParseOptions, OptionsStandBeforeAndBehindTheCommand)
{
    const Options options =
        parseOptions({"--json", "start", "--timeout", "5", "nav", "--wait", "--color=always"});
    EXPECT_EQ(options.command, "start");
    EXPECT_EQ(options.arguments, std::vector<std::string>{"nav"});
    EXPECT_TRUE(options.json && options.wait);
    EXPECT_EQ(options.patience(), std::chrono::seconds(5));
    EXPECT_EQ(options.color, ColorMode::Always);
}

TEST(ParseOptions, ADoubleDashLetsANameBeginWithADash)
{
    const Options options = parseOptions({"status", "--", "-odd"});
    EXPECT_EQ(options.command, "status");
    EXPECT_EQ(options.arguments, std::vector<std::string>{"-odd"});
}

TEST(ParseOptions, ANameThatBeginsWithADashLeavesItsSeparatorToTheCommand)
{
    using Words = std::vector<std::string>;
    const Options odd = parseOptions({"attach", "--", "-z", "--", "ls"});
    EXPECT_EQ(odd.arguments, (Words{"-z", "--", "ls"}));
    EXPECT_TRUE(odd.separated);
    const Options plain = parseOptions({"attach", "a", "--", "--", "-l"});
    EXPECT_EQ(plain.arguments, (Words{"a", "--", "-l"}));
    EXPECT_FALSE(plain.separated);
}

TEST(ParseOptions, ValuesNeedNotBeAscii)
{
    EXPECT_EQ(parseOptions({"explain", "--file", "\xc3\xbc.log"}).file, "\xc3\xbc.log");
    EXPECT_EQ(parseOptions({"doctor", "--root=/tmp/\xc3\xbc"}).root, "/tmp/\xc3\xbc");
    EXPECT_EQ(parseOptions({"watch", "--record", "\xc3\xbc"}).record, "\xc3\xbc");
}

TEST(ParseOptions, TheRootLosesItsTrailingSlashes)
{
    EXPECT_EQ(parseOptions({"doctor", "--root", "/image//"}).root, "/image");
    EXPECT_EQ(parseOptions({"doctor", "--root=/"}).root, "");
}

TEST(ParseOptions, RefusesWhatMakesNoSense)
{
    const std::vector<std::vector<std::string>> lines = {
        {"--unknown"},         {"--timeout"},       {"--timeout", "0"},     {"--timeout", "-3"},
        {"--timeout", "many"}, {"--timeout", "5s"}, {"--timeout", "86401"}, {"--color=blue"},
        {"--root", "image"},   {"--wait=0"},        {"--wait=x"},           {"--record="},
        {"--record=-"},        {"--file="},         {"status", "\xff\xfe"}, {"--timeout=99999999999"},
        {"--root="},
    };
    for (const auto& line : lines) {
        try {
            static_cast<void>(parseOptions(line));
            ADD_FAILURE() << line.front() << " was taken";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.status(), EXIT_USAGE) << line.front();
        }
    }
}

TEST(RunCommand, RefusesWhatACommandDoesNotTake)
{
    const std::vector<std::vector<std::string>> lines = {
        {},
        {"nothing"},
        {"list", "x"},
        {"pid"},
        {"pid", "a", "b"},
        {"status", "a", ""},
        {"wait", "a"},
        {"wait", "a", "ASLEEP"},
        {"attach", "a"},
        {"attach", "", "--", "ls"},
        {"attach", "--", "-z", "--"},
        {"list", "--wait"},
        {"start", "--root=/x", "a"},
    };
    for (const auto& line : lines) {
        try {
            static_cast<void>(runCommand(parseOptions(line)));
            ADD_FAILURE() << "was taken";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.status(), EXIT_USAGE);
        }
    }
}

TEST(HelpText, NamesEveryCommandAndOption)
{
    const std::string text = helpText("");
    for (const char* word :
         {"list", "status", "pid", "start", "stop", "unfreeze", "wait", "attach", "version", "watch",
          "doctor", "labels", "--json", "--timeout", "--color", "--wait", "--root"}) {
        EXPECT_NE(text.find(word), std::string::npos) << word;
    }
    EXPECT_EQ(helpText("stop").find("Usage: zonectl [OPTION...] stop [--wait] NAME...\n"), 0U);
}

TEST(HelpText, ACommandsOwnTellsOnlyOfItsOptions)
{
    const std::string text = helpText("stop");
    EXPECT_NE(text.find("--wait[=SECONDS]   wait until"), std::string::npos) << text;
    EXPECT_EQ(text.find("--clean"), std::string::npos) << text;
}

TEST(HelpText, FitsATerminal)
{
    std::istringstream lines(helpText(""));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80U) << line;
    }
}

TEST(ParseOptions, WaitHasABoundOfItsOwnOrThatOfACall)
{
    const Options bare = parseOptions({"start", "--wait", "nav", "--timeout=7"});
    EXPECT_EQ(bare.arguments, std::vector<std::string>{"nav"}); // not taken for the bound
    EXPECT_TRUE(bare.wait);
    EXPECT_EQ(bare.waitPatience(), std::chrono::seconds(7));
    EXPECT_EQ(parseOptions({"start", "--wait=5", "nav"}).waitPatience(), std::chrono::seconds(5));
    EXPECT_EQ(parseOptions({"attach", "nav", "--", "--wait"}).arguments.back(), "--wait");
}
