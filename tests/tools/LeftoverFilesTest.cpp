#include "Leftovers/Leftovers.h"

#include "MachineTree.h"

#include <array>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace Zonectl;

namespace {

constexpr pid_t PROCESS = 4711;
constexpr const char* PID_FILE = "/run/lxc/pid/red.pid";
constexpr const char* FREEZER = "/sys/fs/cgroup/freezer/lxc.payload/red";
constexpr const char* UNIFIED = "/sys/fs/cgroup/unified/lxc.payload/red";
constexpr const char* FIFO = "/run/lxc/var/lib/lxc/monitor-fifo";
constexpr const char* LOCK = "/run/lxc/lock/zone-manager.lock";

[[nodiscard]] std::vector<Leftover> search(const MachineTree& tree)
{
    const Machine machine(tree.root());
    return findLeftovers(machine, listFromFiles(machine), std::chrono::milliseconds(0));
}

/// The leftovers of one kind.
[[nodiscard]] std::vector<Leftover> search(const MachineTree& tree, LeftoverKind kind)
{
    std::vector<Leftover> found;
    for (Leftover& leftover : search(tree)) {
        if (leftover.kind == kind) {
            found.push_back(std::move(leftover));
        }
    }
    return found;
}

/// Writes a pid file of "red" that is as old as the processes of the tree, but for some seconds.
void writePidFile(const MachineTree& tree, const std::string& text, std::int64_t later = 0)
{
    tree.write(PID_FILE, text);
    const std::int64_t started =
        MachineTree::BOOT_TIME + static_cast<std::int64_t>(MachineTree::START_TICKS) / sysconf(_SC_CLK_TCK);
    const timespec time{.tv_sec = static_cast<std::time_t>(started + later), .tv_nsec = 0};
    const std::array<timespec, 2> both = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, (tree.root() + PID_FILE).c_str(), both.data(), 0), 0);
}

/// A container with a process in its payload groups, and with a monitor or without.
void addZone(const MachineTree& tree, bool monitor)
{
    tree.addContainer("red");
    tree.addProcess({.pid = PROCESS, .rootOf = "red"});
    tree.addGroup("freezer", "lxc.payload/red", {PROCESS});
    tree.addGroup("unified", "lxc.payload/red", {PROCESS});
    if (monitor) {
        tree.addProcess({.pid = PROCESS + 1, .title = "[lxc monitor] /var/lib/lxc red"});
    }
}

void setFreezer(const MachineTree& tree, const std::string& state, bool asked)
{
    tree.write(std::string(FREEZER) + "/freezer.state", state + "\n");
    tree.write(std::string(FREEZER) + "/freezer.self_freezing", asked ? "1\n" : "0\n");
}

/// Reads one thing of a file: that it was opened.
class OpenWatch
{
public:
    explicit OpenWatch(const std::string& path) : queue(inotify_init1(IN_CLOEXEC))
    {
        EXPECT_GE(inotify_add_watch(queue, path.c_str(), IN_OPEN), 0);
    }
    ~OpenWatch() { close(queue); }
    OpenWatch(const OpenWatch&) = delete;
    OpenWatch& operator=(const OpenWatch&) = delete;

    /// Whether it was, within some seconds.
    [[nodiscard]] bool wait() const
    {
        constexpr int LIMIT_MS = 10000;
        pollfd event{.fd = queue, .events = POLLIN, .revents = 0};
        return poll(&event, 1, LIMIT_MS) == 1;
    }

private:
    int queue;
};

/// The line of /proc/locks for a file of the tree.
[[nodiscard]] std::string lockLine(const MachineTree& tree, const std::string& path)
{
    const auto status = Machine(tree.root()).status(path);
    std::array<char, 100> line{};
    static_cast<void>(std::snprintf(
        line.data(), line.size(), "1: FLOCK  ADVISORY  WRITE 389 %02x:%02x:%llu 0 EOF\n", status->deviceMajor,
        status->deviceMinor, static_cast<unsigned long long>(status->inode)));
    return line.data();
}

} // namespace

TEST(LeftoverPidFiles, OfAProcessThatIsGone)
{
    const MachineTree tree;
    tree.addContainer("red");
    writePidFile(tree, "4711");
    const auto found = search(tree);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].kind, LeftoverKind::PidFile);
    EXPECT_EQ(found[0].container, "red");
    EXPECT_EQ(found[0].paths, std::vector<std::string>{PID_FILE});
    EXPECT_EQ(found[0].why, "process 4711 is gone");
}

TEST(LeftoverPidFiles, OfAProcessThatIsDeadAndStillCounted)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addProcess({.pid = PROCESS, .state = 'Z'});
    writePidFile(tree, "4711");
    ASSERT_EQ(search(tree).size(), 1U);
    EXPECT_EQ(search(tree)[0].why, "process 4711 is gone");
}

TEST(LeftoverPidFiles, OfAProcessThatLivesIsNone)
{
    for (const std::int64_t later : {-3, 0, 1, 3}) {
        const MachineTree tree;
        tree.addContainer("red");
        tree.addProcess({.pid = PROCESS});
        writePidFile(tree, "4711", later);
        EXPECT_TRUE(search(tree).empty()) << later;
    }
}

TEST(LeftoverPidFiles, OfAProcessWithAnotherStart)
{
    for (const std::int64_t later : {-1000, -4, 4, 1000}) {
        const MachineTree tree;
        tree.addContainer("red");
        tree.addProcess({.pid = PROCESS});
        writePidFile(tree, "4711", later);
        ASSERT_EQ(search(tree).size(), 1U) << later;
        EXPECT_TRUE(search(tree)[0].why.starts_with("process 4711 is another one by now")) << later;
    }
}

TEST(LeftoverPidFiles, OneLiveProcessAmongThemIsEnough)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addProcess({.pid = PROCESS});
    writePidFile(tree, "99999 4711\n");
    EXPECT_TRUE(search(tree).empty());
}

TEST(LeftoverPidFiles, WithoutAnyNumber)
{
    for (const char* text : {"", "words\n"}) {
        const MachineTree tree;
        tree.addContainer("red");
        writePidFile(tree, text);
        ASSERT_EQ(search(tree).size(), 1U) << text;
        EXPECT_EQ(search(tree)[0].why, "names no process");
    }
}

TEST(LeftoverPidFiles, OfAContainerThatRunsIsNeverStale)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addProcess({.pid = PROCESS, .title = "[lxc monitor] /var/lib/lxc red"});
    writePidFile(tree, "99999");
    EXPECT_TRUE(search(tree).empty());
}

TEST(LeftoverPidFiles, OfAnUnknownContainerIsNotOurs)
{
    const MachineTree tree;
    writePidFile(tree, "99999");
    tree.write("/run/lxc/pid/red", "99999");
    EXPECT_TRUE(search(tree).empty());
}

TEST(LeftoverFreezer, FrozenWithoutAMonitor)
{
    for (const char* state : {"FROZEN", "FREEZING"}) {
        const MachineTree tree;
        addZone(tree, false);
        setFreezer(tree, state, true);
        const auto found = search(tree, LeftoverKind::Frozen);
        ASSERT_EQ(found.size(), 1U) << state;
        EXPECT_EQ(found[0].paths, std::vector<std::string>{FREEZER});
        EXPECT_TRUE(found[0].removable);
        ASSERT_EQ(found[0].thaws.size(), 1U);
        EXPECT_EQ(found[0].thaws[0].first, std::string(FREEZER) + "/freezer.state");
        EXPECT_EQ(found[0].thaws[0].second, "THAWED");
    }
}

TEST(LeftoverFreezer, AnInitIsThawedWithItsEnd)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addProcess({.pid = PROCESS, .namespaceInit = true, .rootOf = "red"});
    tree.addGroup("freezer", "lxc.payload/red", {PROCESS});
    setFreezer(tree, "FROZEN", true);
    EXPECT_TRUE(search(tree, LeftoverKind::Frozen).empty());
    const auto inits = search(tree, LeftoverKind::Init);
    ASSERT_EQ(inits.size(), 1U);
    EXPECT_EQ(inits[0].thaws.size(), 1U);
}

TEST(LeftoverFreezer, AContainerThatWasFrozenOnRequestIsNone)
{
    const MachineTree tree;
    addZone(tree, true);
    setFreezer(tree, "FROZEN", true);
    EXPECT_TRUE(search(tree).empty());
    setFreezer(tree, "THAWED", false);
    EXPECT_TRUE(search(tree).empty());
}

TEST(LeftoverFreezer, AContainerThatIsStuckOnTheWay)
{
    const MachineTree tree;
    addZone(tree, true);
    setFreezer(tree, "FREEZING", true);
    const auto found = search(tree);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].kind, LeftoverKind::Frozen);
    EXPECT_TRUE(found[0].removable);
}

TEST(LeftoverFreezer, AContainerThatNobodyAskedToFreezeIsOnlyNamed)
{
    const MachineTree tree;
    addZone(tree, true);
    setFreezer(tree, "FROZEN", false);
    const auto found = search(tree);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_FALSE(found[0].removable) << "a group above it is frozen, with all other zones";
}

TEST(LeftoverFreezer, AContainerOfAnotherPathIsNotOurs)
{
    const MachineTree tree;
    tree.addContainer("red");
    tree.addContainer("blue");
    tree.addProcess({.pid = PROCESS, .namespaceInit = true, .rootOf = "blue"});
    tree.addGroup("freezer", "lxc.payload/red", {PROCESS});
    setFreezer(tree, "FREEZING", true);
    EXPECT_TRUE(search(tree).empty());
    tree.addProcess({.pid = PROCESS + 1, .title = "[lxc monitor] /home/me red"});
    EXPECT_TRUE(search(tree).empty());
}

TEST(LeftoverFreezer, AContainerWhoseRootCannotBeComparedIsOnlyNamed)
{
    const MachineTree tree;
    addZone(tree, true);
    tree.addProcess({.pid = PROCESS + 2, .parent = PROCESS + 1, .namespaceInit = true, .rootOf = "red"});
    tree.addGroup("freezer", "lxc.payload/red", {PROCESS, PROCESS + 2});
    setFreezer(tree, "FREEZING", true);
    ASSERT_EQ(search(tree).size(), 1U);
    EXPECT_TRUE(search(tree)[0].removable);
    tree.write("/var/lib/lxc/red/config", "lxc.rootfs.path = loop:/images/red.img\n");
    ASSERT_EQ(search(tree).size(), 1U);
    EXPECT_FALSE(search(tree)[0].removable);
}

TEST(LeftoverFreezer, WhatStartsDuringTheWaitForItIsNoLeftover)
{
    const MachineTree tree;
    addZone(tree, true);
    setFreezer(tree, "FREEZING", true);
    tree.addContainer("blue");
    const OpenWatch looked(tree.root() + FREEZER + "/freezer.state");
    std::thread starter([&] {
        EXPECT_TRUE(looked.wait());
        tree.addGroup("cpu", "lxc.payload/blue", {});
        tree.addProcess({.pid = PROCESS + 3, .title = "[lxc monitor] /var/lib/lxc blue"});
        tree.write("/run/lxc/pid/blue.pid", std::to_string(PROCESS + 3));
        tree.write(std::string(FREEZER) + "/freezer.state", "FROZEN\n");
    });
    const Machine machine(tree.root());
    const auto found = findLeftovers(machine, listFromFiles(machine), std::chrono::seconds(10));
    starter.join();
    EXPECT_TRUE(found.empty()) << placeOf(found.front()) << ": " << found.front().why;
}

TEST(LeftoverFreezer, VersionTwo)
{
    const MachineTree tree;
    addZone(tree, true);
    tree.write(std::string(UNIFIED) + "/cgroup.freeze", "1\n");
    tree.write(std::string(UNIFIED) + "/cgroup.events", "populated 1\nfrozen 1\n");
    EXPECT_TRUE(search(tree).empty());
    tree.write(std::string(UNIFIED) + "/cgroup.events", "populated 1\nfrozen 0\n");
    const auto found = search(tree);
    ASSERT_EQ(found.size(), 1U);
    ASSERT_EQ(found[0].thaws.size(), 1U);
    EXPECT_EQ(found[0].thaws[0].first, std::string(UNIFIED) + "/cgroup.freeze");
    EXPECT_EQ(found[0].thaws[0].second, "0");
    tree.write(std::string(UNIFIED) + "/cgroup.freeze", "0\n");
    EXPECT_TRUE(search(tree).empty());
}

TEST(LeftoverLocks, AFifoThatNobodyHoldsIsHarmless)
{
    const MachineTree tree;
    tree.makeDirectory("/run/lxc/var/lib/lxc");
    ASSERT_EQ(mkfifo((tree.root() + FIFO).c_str(), 0600), 0);
    const auto found = search(tree);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].kind, LeftoverKind::MonitorFifo);
    EXPECT_TRUE(found[0].harmless);
    tree.write("/proc/locks", lockLine(tree, FIFO));
    EXPECT_TRUE(search(tree).empty());
}

TEST(LeftoverLocks, AnInstanceLockThatNobodyHoldsIsHarmless)
{
    const MachineTree tree;
    tree.write(LOCK, "");
    tree.write("/run/lxc/lock/other", "");
    tree.write("/proc/locks", lockLine(tree, "/run/lxc/lock/other"));
    const auto found = search(tree);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].kind, LeftoverKind::InstanceLock);
    EXPECT_TRUE(found[0].harmless);
    tree.write("/proc/locks", lockLine(tree, "/run/lxc/lock/other") + lockLine(tree, LOCK));
    EXPECT_TRUE(search(tree).empty());
}
