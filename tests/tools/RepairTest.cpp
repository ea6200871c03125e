#include "Doctor/Repair.h"

#include "Daemon/Names.h"
#include "Device/Machine.h"
#include "TemporaryTree.h"
#include "tests/support/unit/Emulation.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Zonectl;
using Kind = Repair::Kind;

namespace {

/// A tree with a configuration, a program and a directory.
class RepairTree : public TemporaryTree
{
public:
    RepairTree()
    {
        write("/etc/config", "# first\n  lxc.start.auto=yes\nlxc.x = 1");
        write("/bin/program", "");
        makeDirectory("/run/lxc");
        chmod((root() + "/bin/program").c_str(), 0644);
        chmod((root() + "/run/lxc").c_str(), 0777);
    }

    [[nodiscard]] std::string text(const std::string& path) const
    {
        std::ostringstream text;
        text << std::ifstream(root() + path).rdbuf();
        return text.str();
    }
    [[nodiscard]] mode_t mode(const std::string& path) const
    {
        struct stat status = {};
        return stat((root() + path).c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
    }
    [[nodiscard]] std::set<std::string> names(const std::string& path) const
    {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(root() + path)) {
            found.insert(entry.path().filename().string());
        }
        return found;
    }
    [[nodiscard]] bool exists(const std::string& path) const
    {
        return std::filesystem::exists(root() + path);
    }
};

const Repair APPEND = {.kind = Kind::AppendLines, .path = "/etc/config", .value = "a = 'b'\nc = d\n"};
const Repair REPLACE = {
    .kind = Kind::ReplaceKey, .path = "/etc/config", .value = "lxc.start.auto = 1", .key = "lxc.start.auto"};

constexpr std::size_t ROOM = 4096;

/// Makes the change where no file can grow beyond ROOM.
[[nodiscard]] std::string carryOutWithoutRoom(const std::string& root, const Repair& repair)
{
    rlimit before = {};
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit small = before;
    small.rlim_cur = ROOM;
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN); // so that the write fails
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    std::string problem = carryOut(root, repair);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    static_cast<void>(std::signal(SIGXFSZ, handler));
    return problem;
}

/// Makes the change here, or lets the shell make it.
enum class By
{
    Program,
    Shell,
};

void apply(By by, const RepairTree& tree, const Repair& repair)
{
    if (by == By::Program) {
        EXPECT_EQ(carryOut(tree.root(), repair), "");
    } else {
        const std::string command = shellCommand(tree.root(), {repair});
        EXPECT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(cert-env33-c): that is what is tested
    }
}

constexpr const char* NO_OPENAT2 = "qemu-user does not know the system call openat2";

class BothWays : public testing::TestWithParam<By>
{
protected:
    void SetUp() override
    {
        if (GetParam() == By::Program) {
            ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
        }
    }

    RepairTree tree;
};

} // namespace

TEST_P(BothWays, LinesAreAppendedBehindTheLastOne)
{
    const std::string before = tree.text("/etc/config");
    apply(GetParam(), tree, APPEND);
    EXPECT_EQ(tree.text("/etc/config"), before + "\na = 'b'\nc = d\n");
    EXPECT_EQ(tree.text("/etc/config.before-zonectl"), before);
}

TEST_P(BothWays, TheFirstBackupStays)
{
    const std::string before = tree.text("/etc/config");
    apply(GetParam(), tree, APPEND);
    apply(GetParam(), tree, APPEND);
    EXPECT_EQ(tree.text("/etc/config.before-zonectl"), before);
}

TEST_P(BothWays, AKeyIsReplacedWhereverItStands)
{
    chmod((tree.root() + "/etc/config").c_str(), 0640);
    apply(GetParam(), tree, REPLACE);
    EXPECT_TRUE(tree.text("/etc/config").starts_with("# first\nlxc.start.auto = 1\nlxc.x = 1"));
    EXPECT_TRUE(tree.exists("/etc/config.before-zonectl"));
    EXPECT_EQ(tree.mode("/etc/config"), 0640U);
}

TEST_P(BothWays, ADirectoryIsMadeWithThoseAboveIt)
{
    apply(GetParam(), tree, {.kind = Kind::MakeDirectory, .path = "/opt/a/b c/d"});
    EXPECT_TRUE(tree.exists("/opt/a/b c/d"));
    apply(GetParam(), tree, {.kind = Kind::MakeDirectory, .path = "/opt/a/b c/d"});
}

TEST_P(BothWays, RightsAreGivenAndTaken)
{
    apply(GetParam(), tree, {.kind = Kind::MakeExecutable, .path = "/bin/program"});
    EXPECT_EQ(tree.mode("/bin/program"), 0755U);
    apply(GetParam(), tree, {.kind = Kind::CloseToOthers, .path = "/run/lxc"});
    EXPECT_EQ(tree.mode("/run/lxc"), 0755U);
}

TEST_P(BothWays, WhatIsInTheWayIsMovedAside)
{
    apply(GetParam(), tree, {.kind = Kind::MoveAside, .path = "/etc/config"});
    EXPECT_FALSE(tree.exists("/etc/config"));
    EXPECT_TRUE(tree.exists("/etc/config.before-zonectl"));
}

TEST_P(BothWays, ALabelIsSet)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root sets labels";
    }
    apply(GetParam(), tree, {.kind = Kind::SetLabel, .path = "/run/lxc", .value = "!"});
    char label[8] = {};
    const std::string path = tree.root() + "/run/lxc";
    ASSERT_EQ(getxattr(path.c_str(), Names::LABEL_ATTRIBUTE, label, sizeof(label)), 1);
    EXPECT_EQ(label[0], '!');
}

TEST_P(BothWays, RootBecomesTheOwner)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root gives files away";
    }
    const std::string path = tree.root() + "/run/lxc";
    ASSERT_EQ(chown(path.c_str(), 1, 1), 0);
    apply(GetParam(), tree, {.kind = Kind::TakeOver, .path = "/run/lxc"});
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_gid, 0U);
}

INSTANTIATE_TEST_SUITE_P(Repair, BothWays, testing::Values(By::Program, By::Shell),
                         [](const auto& by) { return by.param == By::Program ? "Program" : "Shell"; });

TEST(CarryOut, NothingOutsideOfTheRootIsTouched)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
    const RepairTree outside;
    const RepairTree tree;
    const std::string target = outside.root();
    std::filesystem::create_directory_symlink(target + "/run", tree.root() + "/linked");
    std::filesystem::create_symlink(target + "/etc/config", tree.root() + "/etc/link");
    const std::string before = outside.text("/etc/config");
    for (const Repair& repair : {Repair{.kind = Kind::MakeDirectory, .path = "/linked/made"},
                                 Repair{.kind = Kind::CloseToOthers, .path = "/linked/lxc"},
                                 Repair{.kind = Kind::SetLabel, .path = "/linked/lxc", .value = "!"},
                                 Repair{.kind = Kind::MoveAside, .path = "/linked/lxc"},
                                 Repair{.kind = Kind::AppendLines, .path = "/etc/link", .value = "x\n"},
                                 Repair{.kind = Kind::MakeDirectory, .path = "/../../made"},
                                 Repair{.kind = Kind::MakeExecutable, .path = "/etc/link"}}) {
        const std::string problem = carryOut(tree.root(), repair);
        if (repair.path != "/../../made") { // which is "/made" in that root
            EXPECT_NE(problem.find("symbolic link"), std::string::npos) << repair.path << ": " << problem;
        }
    }
    EXPECT_FALSE(outside.exists("/run/made"));
    EXPECT_FALSE(std::filesystem::exists(tree.root() + "/../made"));
    EXPECT_EQ(outside.mode("/run/lxc"), 0777U);
    EXPECT_EQ(outside.text("/etc/config"), before);
    EXPECT_FALSE(outside.exists("/etc/config.before-zonectl"));
}

TEST(CarryOut, NoPartOfABackupStaysWhenThereIsNoRoom)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
    const RepairTree tree;
    const std::string before = "lxc.start.auto=yes\n# " + std::string(ROOM, 'x') + "\n";
    tree.write("/etc/config", before);
    for (const Repair& repair : {REPLACE, APPEND}) {
        EXPECT_NE(carryOutWithoutRoom(tree.root(), repair), "");
        EXPECT_EQ(tree.text("/etc/config"), before);
        EXPECT_EQ(tree.names("/etc"), std::set<std::string>{"config"});
    }
    EXPECT_EQ(carryOut(tree.root(), REPLACE), "");
    EXPECT_EQ(tree.text("/etc/config.before-zonectl"), before);
}

TEST(CarryOut, AllLinesAreAppendedOrNone)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
    const RepairTree tree;
    const std::string before(ROOM - 3, 'x');
    tree.write("/etc/config", before);
    EXPECT_NE(carryOutWithoutRoom(tree.root(), APPEND), "");
    EXPECT_EQ(tree.text("/etc/config"), before);
    EXPECT_EQ(tree.text("/etc/config.before-zonectl"), before);
}

TEST(CarryOut, AnInterruptedRunIsNoObstacle)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
    const RepairTree tree;
    tree.write("/etc/config.zonectl-new", "half");
    tree.write("/etc/config.before-zonectl.zonectl-new", "half");
    EXPECT_EQ(carryOut(tree.root(), REPLACE), "");
    EXPECT_EQ(tree.names("/etc"), (std::set<std::string>{"config", "config.before-zonectl"}));
}

TEST(CarryOut, LabelsStayWithAFileAndItsBackup)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root sets labels";
    }
    const RepairTree tree;
    ASSERT_EQ(setxattr((tree.root() + "/etc/config").c_str(), Names::LABEL_ATTRIBUTE, "System", 6, 0), 0);
    EXPECT_EQ(carryOut(tree.root(), REPLACE), "");
    for (const char* name : {"/etc/config", "/etc/config.before-zonectl"}) {
        EXPECT_EQ(Machine(tree.root()).label(name), "System") << name;
    }
}

TEST(CarryOut, ALinkOfTheRunningMachineStaysOne)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
    const RepairTree tree;
    const std::string link = tree.root() + "/link";
    std::filesystem::create_symlink("etc/config", link);
    Repair repair = REPLACE;
    repair.path = link;
    EXPECT_EQ(carryOut("", repair), "");
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_TRUE(tree.text("/etc/config").starts_with("# first\nlxc.start.auto = 1\n"));
    EXPECT_TRUE(tree.text("/link.before-zonectl").starts_with("# first\n  lxc.start.auto=yes\n"));
    EXPECT_EQ(tree.names("/etc"), std::set<std::string>{"config"});
}

TEST(CarryOut, ALinkThatSomebodyElseMayHaveMadeIsNotFollowed)
{
    ZONE_TEST_NEEDS_REAL_MACHINE(NO_OPENAT2);
    const RepairTree tree;
    const std::string link = tree.root() + "/opt";
    std::filesystem::create_symlink("run/lxc", link);
    for (const Kind kind : {Kind::MakeDirectory, Kind::SetLabel}) {
        const std::string problem =
            carryOut("", {.kind = kind, .path = link, .value = "_", .refusesLink = true});
        EXPECT_EQ(problem, link + " leads through a symbolic link, which is not followed");
    }
    EXPECT_EQ(Machine(tree.root()).label("/run/lxc"), std::nullopt);
    const Repair made{.kind = Kind::MakeDirectory, .path = tree.root() + "/made", .refusesLink = true};
    EXPECT_EQ(carryOut("", made), "") << "a directory is none";
}

TEST(CarryOut, WhatGoesWrongIsTold)
{
    const RepairTree tree;
    EXPECT_NE(carryOut(tree.root(), {.kind = Kind::AppendLines, .path = "/etc/none", .value = "x\n"}), "");
    EXPECT_NE(carryOut(tree.root(), {.kind = Kind::MakeDirectory, .path = "/etc/config/x"}), "");
    EXPECT_NE(carryOut(tree.root() + "/none", APPEND), "");
    tree.write("/etc/config.before-zonectl", "kept");
    EXPECT_NE(carryOut(tree.root(), {.kind = Kind::MoveAside, .path = "/etc/config"}), "");
    EXPECT_EQ(tree.text("/etc/config.before-zonectl"), "kept");
}

TEST(ShellWord, QuotesWhatTheShellWouldRead)
{
    EXPECT_EQ(shellWord("/var/lib/lxc/a-b_c.d"), "/var/lib/lxc/a-b_c.d");
    EXPECT_EQ(shellWord("a b"), "'a b'");
    EXPECT_EQ(shellWord("it's $(x)"), "'it'\\''s $(x)'");
    EXPECT_EQ(shellWord(""), "''");
}
