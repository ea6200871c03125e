#pragma once

#include "Daemon/Names.h"
#include "tests/support/unit/PrivateRoot.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>

namespace Zonectl {

/// The tests' own liblxc in the place of the daemon's, with the containers "blue" and "red".
class WithFakeLxc : public ZoneTest::InPrivateRoot
{
protected:
    void SetUp() override
    {
        InPrivateRoot::SetUp();
        std::filesystem::create_directories("/zone/config");
        std::filesystem::copy_file(FAKE_LXC_FILE, Names::LXC_LIBRARY,
                                   std::filesystem::copy_options::overwrite_existing);
        setenv("FAKE_LXC_DIR", CONTROL_DIRECTORY, 1);
        control("lxcpath", "/var/lib/lxc");
        for (const char* name : {"blue", "red"}) {
            control(std::string("containers/") + name + "/state", "RUNNING");
        }
    }
    void TearDown() override
    {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left behind";
        EXPECT_EQ(errno, ECHILD);
        std::filesystem::remove_all(CONTROL_DIRECTORY);
        std::filesystem::remove(Names::LXC_LIBRARY);
    }

    /// Writes a control file of that library.
    static void control(const std::string& name, const std::string& text)
    {
        const std::filesystem::path file = std::filesystem::path(CONTROL_DIRECTORY) / name;
        std::filesystem::create_directories(file.parent_path());
        ZoneTest::writeFile(file, text);
    }
    static void delay(const std::string& function) { control("delays/" + function, "60000"); }

private:
    static constexpr const char* CONTROL_DIRECTORY = "/var/fake-lxc"; // not below /run, which is covered
};

} // namespace Zonectl
