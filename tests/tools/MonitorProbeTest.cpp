#include "Device/MonitorProbe.h"

#include "Daemon/Names.h"
#include "tests/support/unit/PrivateRoot.h"

#include <cerrno>
#include <filesystem>
#include <sys/wait.h>

namespace fs = std::filesystem;
using namespace Zonectl;

namespace {

/// The tests' own liblxc in the place of the daemon's, with the containers "blue" and "red".
class AskMonitors : public ZoneTest::InPrivateRoot
{
protected:
    void SetUp() override
    {
        InPrivateRoot::SetUp();
        fs::create_directories("/zone/config");
        fs::copy_file(FAKE_LXC_FILE, Names::LXC_LIBRARY, fs::copy_options::overwrite_existing);
        control("lxcpath", "/var/lib/lxc");
        for (const char* name : {"blue", "red"}) {
            control(std::string("containers/") + name + "/state", "RUNNING");
        }
    }
    void TearDown() override
    {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left behind";
        EXPECT_EQ(errno, ECHILD);
        fs::remove_all("/run/fake-lxc");
        fs::remove(Names::LXC_LIBRARY);
    }

    /// Writes a control file of that library.
    static void control(const std::string& name, const std::string& text)
    {
        const fs::path file = fs::path("/run/fake-lxc") / name;
        fs::create_directories(file.parent_path());
        ZoneTest::writeFile(file, text);
    }
    static void delay(const std::string& function) { control("delays/" + function, "60000"); }

    [[nodiscard]] static std::map<std::string, MonitorVoice> both(MonitorVoice voice)
    {
        return {{"blue", voice}, {"red", voice}};
    }
};

} // namespace

// The first one: a library that has been loaded stays in the process.
TEST_F(AskMonitors, WithoutTheLibraryNothingIsKnown)
{
    fs::remove(Names::LXC_LIBRARY);
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
