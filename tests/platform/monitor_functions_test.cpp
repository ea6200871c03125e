#include "platform/lxc_adapter/monitor_functions.h"

#include "tests/platform/no_memory.h"
#include "tests/support/unit/Seam.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// An LXC path below which the test makes nothing but FIFO directories, removed with it.
class ScratchLxcPath
{
public:
    ScratchLxcPath() : path("/zone-test-" + std::to_string(getpid()) + "/lxc/path") {}
    ScratchLxcPath(const ScratchLxcPath&) = delete;
    ScratchLxcPath& operator=(const ScratchLxcPath&) = delete;
    ~ScratchLxcPath() { fs::remove_all("/run/lxc/zone-test-" + std::to_string(getpid())); }

    const std::string path;
};

std::string abstractName(const char* lxcPath)
{
    sockaddr_un address;
    std::memset(&address, 'x', sizeof(address));
    EXPECT_EQ(lxc_monitor_sock_name(lxcPath, &address), 0);
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_EQ(address.sun_path[0], '\0');
    return address.sun_path + 1;
}

bool listenFails = false;

} // namespace

// Takes the place of the C library's in this program.
extern "C" int listen(int descriptor, int backlog) noexcept
{
    if (listenFails) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return ZoneTest::genuine(&listen, "listen")(descriptor, backlog);
}

TEST(MonitorFunctions, TheFifoIsBelowTheRunDirectory)
{
    std::array<char, 4096> buffer{};
    EXPECT_EQ(lxc_monitor_fifo_name("/var/lib/lxc", buffer.data(), buffer.size(), 0), 0);
    EXPECT_STREQ(buffer.data(), "/run/lxc//var/lib/lxc/monitor-fifo");
}

TEST(MonitorFunctions, TheFifoDirectoriesAreMadeWhenAsked)
{
    const ScratchLxcPath scratch;
    const std::string directory = "/run/lxc/" + scratch.path;
    std::array<char, 4096> buffer{};
    ASSERT_EQ(lxc_monitor_fifo_name(scratch.path.c_str(), buffer.data(), buffer.size(), 0), 0);
    EXPECT_FALSE(fs::exists(directory));

    const mode_t mask = umask(0);
    for (int round = 0; round < 2; ++round) { // the second finds them
        ASSERT_EQ(lxc_monitor_fifo_name(scratch.path.c_str(), buffer.data(), buffer.size(), 1), 0);
    }
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
    EXPECT_FALSE(fs::exists(buffer.data()));
}

TEST(MonitorFunctions, AFifoPathThatDoesNotFitOrCannotBeMadeFails)
{
    const std::string path = "/run/lxc//var/lib/lxc/monitor-fifo";
    std::array<char, 4096> buffer{};
    EXPECT_EQ(lxc_monitor_fifo_name("/var/lib/lxc", buffer.data(), path.size(), 0), -1);
    EXPECT_EQ(lxc_monitor_fifo_name("/var/lib/lxc", buffer.data(), path.size() + 1, 0), 0);
    const std::string tooLong = "/" + std::string(300, 'x');
    EXPECT_EQ(lxc_monitor_fifo_name(tooLong.c_str(), buffer.data(), buffer.size(), 1), -1);
}

TEST(MonitorFunctions, TheSocketNameIsTheHashAndThePath)
{
    // What the distribution's lxc-monitor connects to.
    EXPECT_EQ(abstractName("/var/lib/lxc"), "lxc/ad055575fe28ddd5//var/lib/lxc");
}

TEST(MonitorFunctions, WithoutMemoryThereAreNoNames)
{
    std::array<char, 4096> buffer{};
    sockaddr_un address = {};
    int fifo = 0;
    int socket = 0;
    {
        const PlatformTest::NoMemory none;
        fifo = lxc_monitor_fifo_name("/var/lib/lxc", buffer.data(), buffer.size(), 0);
        socket = lxc_monitor_sock_name("/var/lib/lxc", &address);
    }
    EXPECT_EQ(fifo, -1);
    EXPECT_EQ(socket, -1);
}

TEST(MonitorFunctions, ALongSocketNameIsCut)
{
    const std::string path = "/" + std::string(200, 'p');
    const std::string name = abstractName(path.c_str());
    EXPECT_EQ(name.size(), 105U);
    EXPECT_TRUE(name.ends_with("/" + std::string(83, 'p')));
    EXPECT_NE(name, abstractName((path + "q").c_str()));
}

TEST(MonitorFunctions, AnAbstractSocketHasTheNamesOwnLength)
{
    const std::string name = "zone-test-" + std::to_string(getpid());
    const std::string path = std::string(1, '\0') + name;
    const int server = lxc_abstract_unix_open(path.c_str(), SOCK_STREAM, 512);
    ASSERT_GE(server, 0);
    EXPECT_EQ(fcntl(server, F_GETFD), FD_CLOEXEC);
    sockaddr_un address = {};
    socklen_t length = sizeof(address);
    ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(length, offsetof(sockaddr_un, sun_path) + 1 + name.size());
    EXPECT_EQ(std::string(address.sun_path + 1, name.size()), name);

    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), length), 0);
    close(client);

    EXPECT_EQ(lxc_abstract_unix_open(path.c_str(), SOCK_STREAM, 0), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    close(server);
}

TEST(MonitorFunctions, TheBacklogIsAHundred)
{
    const std::string path = std::string(1, '\0') + "zone-test-backlog-" + std::to_string(getpid());
    const int server = lxc_abstract_unix_open(path.c_str(), SOCK_STREAM, 0);
    ASSERT_GE(server, 0);
    sockaddr_un address = {};
    socklen_t length = sizeof(address);
    getsockname(server, reinterpret_cast<sockaddr*>(&address), &length);
    std::vector<int> clients;
    for (int index = 0; index < 200; ++index) {
        const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (connect(client, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            close(client);
            break;
        }
        clients.push_back(client);
    }
    EXPECT_EQ(clients.size(), 101U); // the kernel takes one more than the backlog
    for (const int client : clients) {
        close(client);
    }
    close(server);
}

TEST(MonitorFunctions, ANameLongerThanAnAddressIsRefusedTheLongestIsNot)
{
    const int longest =
        lxc_abstract_unix_open((std::string(1, '\0') + std::string(107, 'y')).c_str(), SOCK_STREAM, 0);
    EXPECT_GE(longest, 0);
    close(longest);
    EXPECT_EQ(lxc_abstract_unix_open((std::string(1, '\0') + std::string(108, 'y')).c_str(), SOCK_STREAM, 0),
              -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(MonitorFunctions, ANullPathMakesAnUnboundSocket)
{
    const int descriptor = lxc_abstract_unix_open(nullptr, SOCK_DGRAM, 0);
    ASSERT_GE(descriptor, 0);
    sockaddr_un address = {};
    socklen_t length = sizeof(address);
    ASSERT_EQ(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(length, sizeof(sa_family_t));
    close(descriptor);
}

TEST(MonitorFunctions, OnlyAStreamSocketListens)
{
    const std::string path = std::string(1, '\0') + "zone-test-datagram-" + std::to_string(getpid());
    const int descriptor = lxc_abstract_unix_open(path.c_str(), SOCK_DGRAM, 0);
    EXPECT_GE(descriptor, 0); // listening would fail
    close(descriptor);
}

TEST(MonitorFunctions, ATypeThatDoesNotExistIsRefused)
{
    EXPECT_EQ(lxc_abstract_unix_open(std::string(1, '\0').c_str(), 0x7f, 0), -1);
    EXPECT_NE(errno, 0);
}

TEST(MonitorFunctions, ASocketThatDoesNotListenIsClosed)
{
    const std::string path = std::string(1, '\0') + "zone-test-deaf-" + std::to_string(getpid());
    listenFails = true;
    EXPECT_EQ(lxc_abstract_unix_open(path.c_str(), SOCK_STREAM, 0), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    listenFails = false;
    const int again = lxc_abstract_unix_open(path.c_str(), SOCK_STREAM, 0); // the name is free
    EXPECT_GE(again, 0);
    close(again);
}

TEST(MonitorFunctions, StatesHaveTheirWords)
{
    const std::array words{"STOPPED",  "STARTING", "RUNNING", "STOPPING",
                           "ABORTING", "FREEZING", "FROZEN",  "THAWED"};
    for (std::size_t state = 0; state < words.size(); ++state) {
        EXPECT_STREQ(lxc_state2str(static_cast<int>(state)), words[state]);
    }
    EXPECT_EQ(lxc_state2str(-1), nullptr);
    EXPECT_EQ(lxc_state2str(8), nullptr);
}
