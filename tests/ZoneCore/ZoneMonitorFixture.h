#pragma once

#include "ZoneCore/ZoneMonitor.h"
#include "tests/ZoneCore/MonitorCalls.h"
#include "tests/ZoneCore/ZoneFixtures.h"

#include "Common/Handles.h"
#include "Common/ProcessSignals.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

/// What the tests of the monitor share.
namespace ZoneTest {

constexpr const char* LIBRARY = "/zone/config/liblxc.so.1";
constexpr const char* RUN_DIRECTORY = "/run/lxc";
constexpr const char* FIFO = "/run/lxc//zone-test/monitor-fifo";
constexpr const char* SUBSCRIBERS = "test-subscribers"; ///< the publisher's abstract name
constexpr const char* QUERIES = "zonemanager_socket";
constexpr int STATE = 0;
constexpr int PRIORITY = 1;
constexpr int EXIT = 2;
constexpr int LXC_STOPPED = 0;
constexpr int LXC_RUNNING = 2;
constexpr int LXC_FROZEN = 6;
constexpr const char* NUMBER = "[0-9]+";

inline std::string by(const std::string& level, const std::string& text)
{
    return level + " " + byThread("zone-monitor") + text;
}

/// A record of the monitor, its text given as for printf.
__attribute__((format(printf, 2, 3))) inline std::string said(const char* level, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    gchar* text = g_strdup_vprintf(format, arguments);
    va_end(arguments);
    const std::string result = by(level, text);
    g_free(text);
    return result;
}

/// A record of the monitor in which each # stands for a number.
inline testing::Matcher<std::string> line(const std::string& level, const std::string& text)
{
    std::string expression;
    for (const char character : by(level, text)) {
        if (character == '#') {
            expression += NUMBER;
        } else if (std::strchr("[]().*+?|\\^$", character) != nullptr) {
            expression += std::string("\\") + character;
        } else {
            expression += character;
        }
    }
    return testing::MatchesRegex(expression);
}

/// A call of the monitor that takes numbers, as it is traced.
template <typename... Numbers>
std::string called(const std::string& function, int first, Numbers... others)
{
    return "D " + function + "(" + std::to_string(first) +
           (std::string() + ... + (", " + std::to_string(others))) + ")";
}

/// The number that follows the last occurrence of a text in the records; -1 without one.
inline int numberAfter(const LogCapture& log, std::string_view text)
{
    int number = -1;
    for (const std::string& record : log.texts()) {
        const auto found = record.find(text);
        if (found != std::string::npos) {
            number = std::atoi(record.c_str() + found + text.size());
        }
    }
    return number;
}

inline std::vector<int> openDescriptors()
{
    std::vector<int> all;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        all.push_back(std::atoi(entry.path().filename().c_str()));
    }
    return all;
}

/// Where this process listens at an abstract name; -1 when it does not.
inline int listenerAt(const std::string& name)
{
    for (const int fd : openDescriptors()) {
        sockaddr_un address{};
        socklen_t length = sizeof(address);
        int listens = 0;
        socklen_t size = sizeof(listens);
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens == 1 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
            address.sun_path + 1 == name) {
            return fd;
        }
    }
    return -1;
}

/// Where this process has opened a file for reading and writing; -1 when it has not.
inline int opened(const char* path)
{
    struct stat wanted = {};
    EXPECT_EQ(stat(path, &wanted), 0);
    for (const int fd : openDescriptors()) {
        struct stat status = {};
        if (fstat(fd, &status) == 0 && status.st_ino == wanted.st_ino && status.st_dev == wanted.st_dev &&
            (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR) {
            return fd;
        }
    }
    return -1;
}

/// Replaces the library by another file: one that is mapped must not change.
inline void installLibrary(const char* file)
{
    std::filesystem::create_directories(std::filesystem::path(LIBRARY).parent_path());
    const std::string copy = std::string(LIBRARY) + ".new";
    std::filesystem::copy_file(file, copy, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::rename(copy, LIBRARY);
}

/// A stream socket, connected to an abstract name.
/// @param length of the address; 0: just the name
inline ZoneCore::UniqueFd connectTo(const std::string& name, socklen_t length = 0)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof(address.sun_path) - 1);
    const auto exact = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ZoneCore::UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    EXPECT_EQ(
        connect(client.get(), reinterpret_cast<const sockaddr*>(&address), length == 0 ? exact : length), 0)
        << name;
    return client;
}

/// What there is to read without waiting; nothing at the end of the stream as well.
inline std::string received(const ZoneCore::UniqueFd& socket)
{
    std::string all;
    std::array<char, 4096> buffer{};
    for (ssize_t length = 0; (length = read(socket.get(), buffer.data(), buffer.size())) > 0;) {
        all.append(buffer.data(), static_cast<std::size_t>(length));
    }
    return all;
}

inline bool atEnd(const ZoneCore::UniqueFd& socket)
{
    char byte = 0;
    return read(socket.get(), &byte, 1) == 0;
}

/// A monitor that is not initialised yet, held by a manager, on a machine where its initialize works.
class ZoneMonitorSetUpTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ZoneCore::ProcessSignals::hold();
        installLibrary(FAKE_LXC_FILE);
        std::filesystem::remove_all(RUN_DIRECTORY);
        std::filesystem::create_directories(RUN_DIRECTORY);
        setLabel(RUN_DIRECTORY, "_");
        control.set("sock_name", SUBSCRIBERS);
        manager = std::make_unique<ManagerFixture>();
        monitor = new Driven<ZoneCore::ZoneMonitor>;
        manager->setMonitor(monitor);
        log.clear();
    }
    void TearDown() override
    {
        manager->get()->destroyZoneMonitor();
        manager.reset();
    }
    bool initialize() { return monitor->initialize(std::string(ZoneTest::BASE_PATH)); }

    /// Has the manager delete the monitor. @return what was written and, if traced, called meanwhile
    std::vector<std::string> tearDown()
    {
        log.clear();
        manager->get()->destroyZoneMonitor();
        calls.reset();
        return log.texts();
    }

    MonitorCalls calls;
    LogCapture log;
    FakeLxcControl control;
    std::unique_ptr<ManagerFixture> manager;
    Driven<ZoneCore::ZoneMonitor>* monitor = nullptr; ///< the manager's
};

/// An initialised monitor whose callbacks run when the test says so, and three zones: "hybrid", "isolation"
/// and "protection".
class ZoneMonitorTest : public ZoneMonitorSetUpTest
{
protected:
    void SetUp() override
    {
        ZoneMonitorSetUpTest::SetUp();
        control.define("isolation", ZUP::ZONE_TYPE_ISOLATION);
        control.define("hybrid", ZUP::ZONE_TYPE_HYBRID);
        control.define("protection", ZUP::ZONE_TYPE_PROTECTION);
        registry =
            std::make_unique<RegistryFixture>(std::vector<std::string>{"isolation", "hybrid", "protection"});
        ASSERT_TRUE(initialize());
        fifo = ZoneCore::UniqueFd(open(FIFO, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(static_cast<bool>(fifo));
        log.clear();
    }
    void TearDown() override
    {
        ZoneMonitorSetUpTest::TearDown();
        registry.reset();
    }

    static ZoneCore::lxc_msg message(int type, const std::string& name, int value)
    {
        ZoneCore::lxc_msg result{};
        result.type = type;
        name.copy(result.name, sizeof(result.name));
        result.value = value;
        return result;
    }
    void send(const ZoneCore::lxc_msg& content) const
    {
        ASSERT_EQ(write(fifo.get(), &content, sizeof(content)), static_cast<ssize_t>(sizeof(content)));
    }
    /// Has a message handled. @return what the monitor wrote, without the line that tells of the wake-up
    std::vector<std::string> relay(int type, const std::string& name, int value)
    {
        log.clear();
        send(message(type, name, value));
        EXPECT_EQ(monitor->drain(), 1);
        auto texts = ownTexts(log);
        EXPECT_THAT(texts.front(), line("I", "state change IO event is received[fd : #, count : #]"));
        texts.erase(texts.begin());
        return texts;
    }
    ZoneCore::UniqueFd subscribe()
    {
        ZoneCore::UniqueFd client = connectTo(SUBSCRIBERS);
        EXPECT_EQ(monitor->drain(), 1);
        subscriberFd = numberAfter(log, "client connection is added to GIO Channel List[client fd : ");
        log.clear();
        return client;
    }
    /// Asks for an init pid. @return the answer, up to the end of the stream
    std::string query(const std::string& name)
    {
        const ZoneCore::UniqueFd client = connectTo(QUERIES, sizeof(sockaddr_un));
        EXPECT_EQ(::send(client.get(), name.data(), name.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(name.size()));
        if (name.empty()) {
            shutdown(client.get(), SHUT_WR);
        }
        log.clear();
        EXPECT_EQ(monitor->drain(), 1);
        std::string answer = received(client);
        EXPECT_TRUE(atEnd(client));
        return answer;
    }

    std::unique_ptr<RegistryFixture> registry;
    ZoneCore::UniqueFd fifo;
    int subscriberFd = -1; ///< the monitor's end of the latest subscription
};

} // namespace ZoneTest
