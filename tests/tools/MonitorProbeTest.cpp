#include "Device/MonitorProbe.h"

#include "tests/tools/WithFakeLxc.h"

using namespace Zonectl;

namespace {

class AskMonitors : public WithFakeLxc
{
protected:
    [[nodiscard]] static std::map<std::string, MonitorVoice> both(MonitorVoice voice)
    {
        return {{"blue", voice}, {"red", voice}};
    }
};

} // namespace

// The first one: a library that has been loaded stays in the process.
TEST_F(AskMonitors, WithoutTheLibraryNothingIsKnown)
{
    std::filesystem::remove(Names::LXC_LIBRARY);
    EXPECT_TRUE(askMonitors({"blue", "red"}).empty());
}

TEST_F(AskMonitors, MonitorsThatAnswer)
{
    EXPECT_EQ(askMonitors({"blue", "red"}), both(MonitorVoice::Answers));
    EXPECT_TRUE(askMonitors({}).empty());
}

TEST_F(AskMonitors, MonitorsThatAreSilentAreGivenUp)
{
    delay("state");
    EXPECT_EQ(askMonitors({"blue", "red"}), both(MonitorVoice::Silent));
}

TEST_F(AskMonitors, ALibraryThatDoesNotComeToTheQuestionIsSilenceToo)
{
    delay("list_defined_containers");
    EXPECT_EQ(askMonitors({"blue", "red"}), both(MonitorVoice::Silent));
}

TEST_F(AskMonitors, WhatTheLibraryDoesNotTellIsUnknown)
{
    control("containers/red/state_null", "");
    const auto voices = askMonitors({"blue", "red", "green"});
    EXPECT_EQ(voices.at("blue"), MonitorVoice::Answers);
    EXPECT_EQ(voices.at("red"), MonitorVoice::Unknown);
    EXPECT_EQ(voices.at("green"), MonitorVoice::Unknown) << "it is not defined";
}
