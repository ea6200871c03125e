#include "Device/Machine.h"

#include "TemporaryTree.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace Zonectl;

namespace {

/// A root with "/data/file", and with links that another root would follow elsewhere.
class OtherRoot : public testing::Test
{
protected:
    OtherRoot() { tree.write("/data/file", "inside"); }

    /// Makes a symbolic link and returns its path.
    std::string link(const std::string& path, const std::string& target) const
    {
        tree.makeDirectory(fs::path(path).parent_path().string());
        fs::create_symlink(target, tree.root() + path);
        return path;
    }

    TemporaryTree tree;
    const Machine machine{tree.root()};
};

} // namespace

TEST_F(OtherRoot, AnAbsoluteLinkLeadsToAFileOfTheSameRoot)
{
    const std::string path = link("/etc/config", "/data/file");
    EXPECT_EQ(machine.read(path), "inside");
    EXPECT_TRUE(machine.exists(path));
    ASSERT_TRUE(machine.status(path));
    EXPECT_TRUE(machine.status(path)->sameFileAs(machine.status("/data/file").value_or(FileStatus())));
}

TEST_F(OtherRoot, SoDoesALinkOnTheWay)
{
    link("/var/lib", "/data");
    link("/srv/far", "../../../../data");
    for (const char* directory : {"/var/lib", "/srv/far"}) {
        EXPECT_TRUE(machine.isDirectory(directory)) << directory;
        EXPECT_EQ(machine.entries(directory), std::vector<std::string>{"file"});
        EXPECT_EQ(machine.read(std::string(directory) + "/file"), "inside");
    }
}

TEST_F(OtherRoot, WhatOnlyThisSystemHasIsNotThere)
{
    const TemporaryTree outside;
    outside.write("/program", "outside");
    fs::permissions(outside.root() + "/program", fs::perms::owner_all);
    const std::string program = link("/bin/program", outside.root() + "/program");
    const std::string directory = link("/lib", outside.root());
    EXPECT_FALSE(machine.exists(program));
    EXPECT_FALSE(machine.isProgram(program));
    EXPECT_FALSE(machine.read(program));
    EXPECT_FALSE(machine.status(directory));
    EXPECT_FALSE(machine.freeSpace(directory));
    EXPECT_TRUE(machine.entries(directory).empty());
    EXPECT_FALSE(machine.exists("/../../" + outside.root()));
    EXPECT_FALSE(machine.exists(""));
}

TEST_F(OtherRoot, ALinkItselfIsThereWhereverItLeads)
{
    const std::string path = link("/etc/dangling", "/nowhere");
    EXPECT_TRUE(machine.entryExists(path));
    EXPECT_FALSE(machine.exists(path));
    EXPECT_EQ(machine.linkTarget(path), "/nowhere");
    EXPECT_EQ(machine.linkTarget("/data/file"), "");
    EXPECT_EQ(machine.linkTarget("/nowhere"), "");
}

TEST_F(OtherRoot, OfALoopNothingIsKnown)
{
    const std::string path = link("/data/loop", "/data/./loop");
    EXPECT_TRUE(machine.entryExists(path));
    EXPECT_FALSE(machine.exists(path));
    EXPECT_FALSE(machine.read(path));
}

TEST_F(OtherRoot, FreeSpaceIsThatOfTheFileSystem)
{
    const auto space = machine.freeSpace("/data");
    EXPECT_FALSE(machine.freeSpace("/nowhere"));
    EXPECT_TRUE(space && space->bytes > 0);
    EXPECT_FALSE(machine.onReadOnlyMount("/data"));
}

TEST_F(OtherRoot, EmptyFilesAndDirectoriesAreReadAsSuch)
{
    tree.write("/data/empty", "");
    EXPECT_EQ(machine.read("/data/empty"), "");
    EXPECT_FALSE(machine.read("/data"));
    EXPECT_TRUE(machine.entries("/data/file").empty());
}

TEST_F(OtherRoot, ALongFileIsReadWhole)
{
    const std::string text(100000, 'x');
    tree.write("/data/long", text);
    EXPECT_EQ(machine.read("/data/long"), text);
}

TEST_F(OtherRoot, WhatIsInAFifoIsLeftToItsReader)
{
    const std::string path = tree.root() + "/data/fifo";
    ASSERT_EQ(mkfifo(path.c_str(), S_IRUSR | S_IWUSR), 0);
    EXPECT_FALSE(machine.read("/data/fifo")) << "which nobody writes to";
    const ZoneCore::UniqueFd fifo(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    ASSERT_EQ(write(fifo.get(), "x", 1), 1);
    EXPECT_FALSE(machine.read("/data/fifo"));
    EXPECT_FALSE(Machine("").read(path));
    EXPECT_TRUE(machine.status("/data/fifo").value_or(FileStatus()).isFifo);
    char byte = 0;
    EXPECT_EQ(read(fifo.get(), &byte, 1), 1);
}

TEST(RunningMachine, FilesOfTheKernelAreRead)
{
    const Machine machine("");
    EXPECT_NE(machine.read("/proc/self/status").value_or("").find("NSpid:"), std::string::npos);
    EXPECT_NE(machine.read("/proc/self/exe").value_or("").find("FilesOfTheKernelAreRead"), std::string::npos);
    EXPECT_EQ(machine.linkTarget("/proc/self/exe"), fs::read_symlink("/proc/self/exe").string());
    EXPECT_FALSE(machine.entries("/proc/self/fd").empty());
    EXPECT_FALSE(machine.exists(""));
}
