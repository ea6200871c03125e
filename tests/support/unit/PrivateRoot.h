#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace ZoneTest {

/// The base of tests that write to the daemon's own paths: they run in a private copy of the file system
/// only.
class InPrivateRoot : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(access("/run/.private-root", F_OK), 0) << "run this program by scripts/private-root";
    }
};

inline void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    file << text;
    file.close();
    EXPECT_TRUE(file.good()) << path;
}

inline std::string readFile(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

} // namespace ZoneTest
