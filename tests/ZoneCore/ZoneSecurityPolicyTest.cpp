#include "ZoneCore/ZoneSecurityPolicy.h"
#include "tests/ZoneCore/ZoneFixtures.h"
#include "tests/support/unit/Seam.h"

#include "Common/Handles.h"

#include <gtest/gtest.h>

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using ZoneCore::UniqueFd;
using ZoneCore::ZoneSecurityPolicy;
using ZoneTest::labelOf;
using ZoneTest::LogCapture;
using ZoneTest::ReadOnlyMount;
using ZoneTest::setLabel;

namespace {

constexpr const char* DIRECTORY = "/policy-test";
constexpr const char* RUN_DIRECTORY = "/var/run/lxc";
constexpr const char* PID_DIRECTORY = "/var/run/lxc/pid";
constexpr const char* UNLABELLED = "No data available";
constexpr const char* MISSING = "No such file or directory";

/// Runs in a directory of its own, without a runtime directory.
class ZoneSecurityPolicyTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ZoneTest::requirePrivateRoot();
        fs::create_directories(DIRECTORY);
        fs::remove_all(RUN_DIRECTORY);
    }
    void TearDown() override
    {
        fs::remove_all(DIRECTORY);
        fs::remove_all(RUN_DIRECTORY);
    }

    std::string path = std::string(DIRECTORY) + "/path";
    ZoneSecurityPolicy policy;
};

/// What happens right after a label has been written; empty for nothing.
std::function<void()> afterTheWrite;
/// The flags of the last write.
int flagsOfTheWrite = -1;

mode_t modeOf(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

/// All that the policy says of the runtime directory when it has its label.
const std::string RUN_LABEL = "I \"/var/run/lxc\" smack label is \"!\"(1)";
const std::string RUN_LABEL_IS_SET = "I \"/var/run/lxc\" smack label is already set as \"!\"";

} // namespace

// Takes the place of the C library's in this program.
extern "C" int setxattr(const char* path, const char* name, const void* value, size_t size,
                        int flags) noexcept
{
    flagsOfTheWrite = flags;
    const auto genuine = ZoneTest::genuine(&setxattr, "setxattr");
    const int result = genuine(path, name, value, size, flags);
    if (const auto action = std::exchange(afterTheWrite, nullptr)) {
        action();
    }
    return result;
}

// Labels.

TEST_F(ZoneSecurityPolicyTest, ReadsALabelWithoutAWord)
{
    fs::create_directory(path);
    setLabel(path, "System");
    const LogCapture log;
    EXPECT_EQ(policy.getContainerSmackLabel(path), "System");
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ZoneSecurityPolicyTest, ReadsNoLabelFromAMissingPath)
{
    const LogCapture log;
    EXPECT_EQ(policy.getContainerSmackLabel(path), "");
    EXPECT_THAT(log.texts(),
                ElementsAre("E Failed to get smack label of \"" + path + "\" - \"" + MISSING + "\""));
}

TEST_F(ZoneSecurityPolicyTest, ReadsNoLabelFromAnEmptyAttribute)
{
    fs::create_directory(path);
    setLabel(path, "");
    const LogCapture log;
    EXPECT_EQ(policy.getContainerSmackLabel(path), "");
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get smack label of \"" + path + "\" - \"Success\""));
}

TEST_F(ZoneSecurityPolicyTest, ReadsALabelUpToItsFirstZeroByte)
{
    fs::create_directory(path);
    setLabel(path, std::string("System\0rest", 11));
    EXPECT_EQ(policy.getContainerSmackLabel(path), "System");
}

TEST_F(ZoneSecurityPolicyTest, ReadsALabelThatJustFillsTheBuffer)
{
    fs::create_directory(path);
    for (const std::size_t length : {4095U, 4096U}) {
        const std::string label(length, 'x');
        setLabel(path, label);
        if (labelOf(path) != label) {
            GTEST_SKIP() << "this file system takes no label of " << length << " bytes";
        }
        EXPECT_EQ(policy.getContainerSmackLabel(path), label);
    }
}

TEST_F(ZoneSecurityPolicyTest, TakesALabelThatDoesNotFitForUnreadable)
{
    fs::create_directory(path);
    setLabel(path, std::string(4097, 'x'));
    if (labelOf(path).size() != 4097) {
        GTEST_SKIP() << "this file system takes no label of that length";
    }
    const LogCapture log;
    EXPECT_EQ(policy.getContainerSmackLabel(path), "");
    EXPECT_FALSE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get smack label of \"" + path +
                                             "\" - \"Numerical result out of range\"",
                                         "E Failed to get smack label of \"" + path +
                                             "\"(\"System\") - \"Numerical result out of range\""));
}

TEST_F(ZoneSecurityPolicyTest, ChangesALabel)
{
    fs::create_directory(path);
    setLabel(path, "User");
    const LogCapture log;
    EXPECT_TRUE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_EQ(labelOf(path), "System"); // without a terminating zero
    EXPECT_THAT(log.texts(),
                ElementsAre("I \"" + path + "\" smack label is \"User\"(4)",
                            "I \"" + path + "\" smack label is changed to \"System\" successfully"));
    EXPECT_EQ(flagsOfTheWrite, 0);
}

TEST_F(ZoneSecurityPolicyTest, TellsTheLabelThatIsThereAfterTheWrite)
{
    fs::create_directory(path);
    setLabel(path, "User");
    afterTheWrite = [&] { setLabel(path, "Quick"); };
    const LogCapture log;
    EXPECT_TRUE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_THAT(log.texts(),
                ElementsAre("I \"" + path + "\" smack label is \"User\"(4)",
                            "I \"" + path + "\" smack label is changed to \"Quick\" successfully"));
}

TEST_F(ZoneSecurityPolicyTest, LeavesTheWantedLabelAsItIs)
{
    fs::create_directory(path);
    setLabel(path, "System");
    const ReadOnlyMount mounted(DIRECTORY); // a write would fail
    const LogCapture log;
    EXPECT_TRUE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_THAT(log.texts(), ElementsAre("I \"" + path + "\" smack label is \"System\"(6)",
                                         "I \"" + path + "\" smack label is already set as \"System\""));
}

TEST_F(ZoneSecurityPolicyTest, TakesALeadingPartForTheWantedLabel)
{
    fs::create_directory(path);
    setLabel(path, "Sys");
    const LogCapture log;
    EXPECT_TRUE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_EQ(labelOf(path), "Sys");
    EXPECT_THAT(log.texts(), ElementsAre("I \"" + path + "\" smack label is \"Sys\"(3)",
                                         "I \"" + path + "\" smack label is already set as \"System\""));
}

TEST_F(ZoneSecurityPolicyTest, ChangesALabelThatOnlyBeginsLikeTheWantedOne)
{
    fs::create_directory(path);
    setLabel(path, "System::Shared");
    EXPECT_TRUE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_EQ(labelOf(path), "System");
}

TEST_F(ZoneSecurityPolicyTest, NeverLabelsAPathWithoutALabel)
{
    fs::create_directory(path);
    const LogCapture log;
    EXPECT_FALSE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_EQ(labelOf(path), "(none)");
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get smack label of \"" + path + "\"(\"System\") - \"" +
                                         UNLABELLED + "\""));
}

TEST_F(ZoneSecurityPolicyTest, NeverLabelsAPathWithAnEmptyLabel)
{
    fs::create_directory(path);
    setLabel(path, "");
    const LogCapture log;
    EXPECT_FALSE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_EQ(labelOf(path), "");
    EXPECT_THAT(log.texts(),
                ElementsAre("E Failed to get smack label of \"" + path + "\"(\"System\") - \"Success\""));
}

TEST_F(ZoneSecurityPolicyTest, TakesTheTextUpToAZeroByteForTheLabel)
{
    fs::create_directory(path);
    setLabel(path, std::string("System\0User", 11));
    const LogCapture log;
    EXPECT_TRUE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_THAT(log.texts(), ElementsAre("I \"" + path + "\" smack label is \"System\"(11)",
                                         "I \"" + path + "\" smack label is already set as \"System\""));
}

TEST_F(ZoneSecurityPolicyTest, ReportsALabelThatCannotBeWritten)
{
    fs::create_directory(path);
    setLabel(path, "User");
    const ReadOnlyMount mounted(DIRECTORY);
    const LogCapture log;
    EXPECT_FALSE(policy.setContainerSmackLabel(path, "System"));
    EXPECT_THAT(log.texts(), ElementsAre("I \"" + path + "\" smack label is \"User\"(4)",
                                         "E Failed to set smack label of \"" + path +
                                             "\" to \"System\" - \"Read-only file system\""));
}

// One directory.

TEST_F(ZoneSecurityPolicyTest, IsSilentAboutAWritableDirectory)
{
    fs::create_directory(path);
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerPath(path, 0755));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ZoneSecurityPolicyTest, MakesAMissingDirectory)
{
    const mode_t before = umask(0);
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerPath(path, 0755));
    umask(before);
    EXPECT_EQ(modeOf(path), 0755U);
    EXPECT_THAT(log.texts(),
                ElementsAre("D The contianer path(" + path + ") does not exist - \"" + MISSING + "\""));
}

TEST_F(ZoneSecurityPolicyTest, TakesAReadOnlyDirectoryForExisting)
{
    fs::create_directory(path);
    const ReadOnlyMount mounted(DIRECTORY);
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerPath(path, 0755));
    EXPECT_THAT(log.texts(),
                ElementsAre("D The contianer path(" + path + ") does not exist - \"Read-only file system\"",
                            "I The container path(" + path + ") does exist"));
}

TEST_F(ZoneSecurityPolicyTest, MakesTheLastComponentOnly)
{
    const LogCapture log;
    const std::string deep = path + "/deep";
    EXPECT_FALSE(policy.ensureContainerPath(deep, 0755));
    EXPECT_THAT(log.texts(),
                ElementsAre("D The contianer path(" + deep + ") does not exist - \"" + MISSING + "\"",
                            "E Failed to create the container path(" + deep + ") - \"" + MISSING + "\""));
}

// The runtime directories.

TEST_F(ZoneSecurityPolicyTest, LabelsTheRuntimeDirectory)
{
    fs::create_directories(RUN_DIRECTORY);
    setLabel(RUN_DIRECTORY, "_");
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerRunPath());
    EXPECT_EQ(labelOf(RUN_DIRECTORY), "!");
    EXPECT_THAT(log.texts(), ElementsAre("I \"/var/run/lxc\" smack label is \"_\"(1)",
                                         "I \"/var/run/lxc\" smack label is changed to \"!\" successfully"));
}

TEST_F(ZoneSecurityPolicyTest, MakesTheRuntimeDirectoryButCannotLabelANewOneWithoutSmack)
{
    const mode_t before = umask(0);
    const LogCapture log;
    EXPECT_FALSE(policy.ensureContainerRunPath());
    umask(before);
    EXPECT_EQ(modeOf(RUN_DIRECTORY), 0755U);
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            "D The contianer run path(/var/run/lxc) does not exist - \"No such file or directory\"",
            "E Failed to get smack label of \"/var/run/lxc\"(\"!\") - \"No data available\"",
            "E Failed to set container access label(!) to the basepath of container running(/var/run/lxc)"));
}

TEST_F(ZoneSecurityPolicyTest, AcceptsAReadOnlyRuntimeDirectoryWithItsLabel)
{
    fs::create_directories(RUN_DIRECTORY);
    setLabel(RUN_DIRECTORY, "!");
    const ReadOnlyMount mounted(RUN_DIRECTORY);
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerRunPath());
    EXPECT_THAT(
        log.texts(),
        ElementsAre("D The contianer run path(/var/run/lxc) does not exist - \"Read-only file system\"",
                    "I The container run path(/var/run/lxc) does exist",
                    "I \"/var/run/lxc\" smack label is \"!\"(1)",
                    "I \"/var/run/lxc\" smack label is already set as \"!\""));
}

TEST_F(ZoneSecurityPolicyTest, ReportsARuntimeDirectoryThatCannotBeMade)
{
    const ReadOnlyMount mounted("/run");
    const LogCapture log;
    EXPECT_FALSE(policy.ensureContainerPIDFilePath());
    EXPECT_THAT(
        log.texts(),
        ElementsAre("D The contianer run path(/var/run/lxc) does not exist - \"No such file or directory\"",
                    "E Failed to create the container run path(/var/run/lxc) - \"Read-only file system\"",
                    "E Failed to ensure Container Run Path(/var/run/lxc)"));
}

TEST_F(ZoneSecurityPolicyTest, MakesThePidFileDirectoryWithoutALabel)
{
    fs::create_directories(RUN_DIRECTORY);
    setLabel(RUN_DIRECTORY, "!");
    const mode_t before = umask(0);
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerPIDFilePath());
    umask(before);
    EXPECT_EQ(modeOf(PID_DIRECTORY), 0755U);
    EXPECT_EQ(labelOf(PID_DIRECTORY), "(none)");
    EXPECT_THAT(log.texts(),
                ElementsAre("I \"/var/run/lxc\" smack label is \"!\"(1)",
                            "I \"/var/run/lxc\" smack label is already set as \"!\"",
                            "D The contianer pidfile path(/var/run/lxc/pid) does not exist - \"No such "
                            "file or directory\""));
}

TEST_F(ZoneSecurityPolicyTest, IsSilentAboutAWritablePidFileDirectory)
{
    fs::create_directories(PID_DIRECTORY);
    setLabel(RUN_DIRECTORY, "!");
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerPIDFilePath());
    EXPECT_THAT(log.texts(), ElementsAre(RUN_LABEL, RUN_LABEL_IS_SET));
}

TEST_F(ZoneSecurityPolicyTest, AcceptsAReadOnlyPidFileDirectory)
{
    fs::create_directories(PID_DIRECTORY);
    setLabel(RUN_DIRECTORY, "!");
    const ReadOnlyMount mounted(PID_DIRECTORY);
    const LogCapture log;
    EXPECT_TRUE(policy.ensureContainerPIDFilePath());
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            RUN_LABEL, RUN_LABEL_IS_SET,
            "D The contianer pidfile path(/var/run/lxc/pid) does not exist - \"Read-only file system\"",
            "I The container pidfile path(/var/run/lxc/pid) does exist"));
}

TEST_F(ZoneSecurityPolicyTest, ReportsAPidFileDirectoryThatCannotBeMade)
{
    fs::create_directories(RUN_DIRECTORY);
    setLabel(RUN_DIRECTORY, "!");
    const ReadOnlyMount mounted(RUN_DIRECTORY);
    const LogCapture log;
    EXPECT_FALSE(policy.ensureContainerPIDFilePath());
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            "D The contianer run path(/var/run/lxc) does not exist - \"Read-only file system\"",
            "I The container run path(/var/run/lxc) does exist", RUN_LABEL, RUN_LABEL_IS_SET,
            "D The contianer pidfile path(/var/run/lxc/pid) does not exist - \"No such file or directory\"",
            "E Failed to create the container pidfile path(/var/run/lxc/pid) - \"Read-only file system\""));
}

// Who may subscribe.

TEST_F(ZoneSecurityPolicyTest, AdmitsAPeerOfTheSameUser)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    const UniqueFd own(ends[0]);
    const UniqueFd other(ends[1]);
    const LogCapture log;
    EXPECT_TRUE(policy.checkProcessPrivilege(own.get()));
    EXPECT_THAT(log.texts(), ElementsAre("I Process Permission is allowed [0 <-> 0], [fd : " +
                                         std::to_string(own.get()) + "]"));
}

TEST_F(ZoneSecurityPolicyTest, AsksForTheEffectiveUser)
{
    ASSERT_EQ(seteuid(65534), 0);
    std::array<int, 2> ends{};
    const int made = socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data());
    const LogCapture log;
    const bool admitted = policy.checkProcessPrivilege(ends[0]);
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(made, 0);
    const UniqueFd own(ends[0]);
    const UniqueFd other(ends[1]);
    EXPECT_TRUE(admitted);
    EXPECT_THAT(log.texts(), ElementsAre("I Process Permission is allowed [65534 <-> 65534], [fd : " +
                                         std::to_string(own.get()) + "]"));
}

TEST_F(ZoneSecurityPolicyTest, RefusesAPeerOfAnotherUser)
{
    // The credentials are those of the moment in which the pair was made.
    ASSERT_EQ(seteuid(65534), 0);
    std::array<int, 2> ends{};
    const int made = socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data());
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(made, 0);
    const UniqueFd own(ends[0]);
    const UniqueFd other(ends[1]);
    const LogCapture log;
    EXPECT_FALSE(policy.checkProcessPrivilege(own.get()));
    EXPECT_THAT(log.texts(), ElementsAre("E Process Permission is not matched [65534 <-> 0], [fd : " +
                                         std::to_string(own.get()) + "]"));
}

TEST_F(ZoneSecurityPolicyTest, RefusesWhatHasNoCredentials)
{
    const UniqueFd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const LogCapture log;
    EXPECT_FALSE(policy.checkProcessPrivilege(file.get()));
    EXPECT_THAT(log.texts(), ElementsAre("E Failed to get credentials on socket [fd : " +
                                         std::to_string(file.get()) + "]"));
}
