#include "tests/ZoneCore/ZoneFixtures.h"

#include "tests/support/unit/Eventually.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <utility>

namespace fs = std::filesystem;

namespace ZoneTest {

namespace {

constexpr const char* SMACK_ATTRIBUTE = "security.SMACK64";
constexpr const char* WRITABLE_PREFIX = "/opt";
constexpr const char* LAUNCHER = "/zone/config/zone-launcher";

} // namespace

void requirePrivateRoot()
{
    if (!fs::exists("/run/.private-root")) {
        static_cast<void>(std::fputs(
            "These tests change system directories: run them by way of scripts/private-root.\n", stderr));
        std::exit(EXIT_FAILURE);
    }
}

void writeFile(const fs::path& path, const std::string& text)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

void setLabel(const fs::path& path, const std::string& label)
{
    ASSERT_EQ(setxattr(path.c_str(), SMACK_ATTRIBUTE, label.data(), label.size(), 0), 0) << path;
}

std::string labelOf(const fs::path& path)
{
    std::string label(65536, '\0');
    const ssize_t length = getxattr(path.c_str(), SMACK_ATTRIBUTE, label.data(), label.size());
    if (length < 0) {
        return "(none)";
    }
    label.resize(static_cast<std::size_t>(length));
    return label;
}

ReadOnlyMount::ReadOnlyMount(std::string directory) : target(std::move(directory))
{
    EXPECT_EQ(mount(target.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
}

ReadOnlyMount::~ReadOnlyMount()
{
    EXPECT_EQ(umount(target.c_str()), 0);
}

void makeZoneDirectories(const std::string& zone)
{
    const fs::path root = fs::path(BASE_PATH) / zone;
    const fs::path writable = WRITABLE_PREFIX + root.string();
    for (const fs::path& path : {root, writable, writable / "opt"}) {
        fs::create_directories(path);
        setLabel(path, "_");
    }
}

FakeLxcControl::FakeLxcControl()
{
    requirePrivateRoot();
    std::string name = "/tmp/fake-lxc-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no control directory");
    }
    directory = name;
    setenv("FAKE_LXC_DIR", name.c_str(), 1);
    set("lxcpath", BASE_PATH);
    fs::create_directories(fs::path(LAUNCHER).parent_path());
    fs::copy_file(FAKE_LAUNCHER_FILE, LAUNCHER, fs::copy_options::overwrite_existing);
    fs::create_directories(WRITABLE_PREFIX + std::string(BASE_PATH));
}

FakeLxcControl::~FakeLxcControl()
{
    fs::remove_all(directory);
    fs::remove_all(BASE_PATH);
    fs::remove_all(WRITABLE_PREFIX + std::string(BASE_PATH));
}

void FakeLxcControl::set(const std::string& file, const std::string& value) const
{
    writeFile(directory / file, value);
}

void FakeLxcControl::remove(const std::string& file) const
{
    fs::remove_all(directory / file);
}

bool FakeLxcControl::has(const std::string& file) const
{
    return fs::exists(directory / file);
}

std::string FakeLxcControl::text(const std::string& file) const
{
    const auto lines = linesOf(file);
    return lines.empty() ? "" : lines.front();
}

void FakeLxcControl::define(const std::string& name, int type) const
{
    const std::string container = "containers/" + name + "/";
    set(container + "type", std::to_string(type));
    set(container + "rootfs", "/srv/" + name);
    makeZoneDirectories(name);
}

std::vector<std::string> FakeLxcControl::linesOf(const std::string& file) const
{
    std::vector<std::string> result;
    std::ifstream stream(directory / file);
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line);
    }
    return result;
}

std::vector<std::string> FakeLxcControl::calls() const
{
    return linesOf("calls");
}

std::size_t FakeLxcControl::launches() const
{
    return linesOf("launches").size();
}

ZoneCore::ZoneMonitor* runningMonitor()
{
    auto* monitor = new Driven<ZoneCore::ZoneMonitor>;
    EXPECT_TRUE(monitor->Thread::initialize(false, "zone-monitor"));
    monitor->countAsRunning();
    return monitor;
}

ManagerFixture::ManagerFixture()
{
    // The manager's end drops a reference of the default context that it never took.
    static_cast<void>(g_main_context_ref(g_main_context_default()));
    manager = ZoneCore::ZoneManager::singleton();
    EXPECT_TRUE(manager->Thread::initialize(true, "zone-manager"));
    EXPECT_TRUE(manager->createEventQueue());
    EXPECT_TRUE(manager->attachEventSource());
}

ManagerFixture::~ManagerFixture()
{
    manager->destroyEventQueue();
    setMonitor(nullptr);
    ZoneCore::ZoneManager::deleteSingleton();
}

void ManagerFixture::setMonitor(ZoneCore::ZoneMonitor* monitor) const
{
    delete std::exchange(manager->zoneMonitor, monitor);
}

std::vector<std::string> ManagerFixture::whileRunning(LogCapture& log,
                                                      const std::function<void()>& step) const
{
    struct Turn
    {
        ZoneCore::ZoneManager* manager;
        LogCapture& log;
        const std::function<void()>& step;
        std::vector<std::string> texts{};
    } turn{manager, log, step};

    g_idle_add_full(
        G_PRIORITY_HIGH,
        [](gpointer data) -> gboolean {
            auto* self = static_cast<Turn*>(data);
            self->log.clear();
            self->step();
            return G_SOURCE_REMOVE;
        },
        &turn, nullptr);
    // Comes after everything that is ready by then.
    g_idle_add_full(
        G_PRIORITY_LOW,
        [](gpointer data) -> gboolean {
            auto* self = static_cast<Turn*>(data);
            self->texts = ownTexts(self->log);
            self->manager->terminate();
            return G_SOURCE_REMOVE;
        },
        &turn, nullptr);
    EXPECT_TRUE(manager->run());
    return turn.texts;
}

RegistryFixture::RegistryFixture(const std::vector<std::string>& zones)
{
    auto* registry = ZoneCore::ZoneContext::singleton();
    EXPECT_TRUE(registry->initialize());
    for (const std::string& name : zones) {
        const ZoneCore::Zone* zone = registry->getZone(name);
        EXPECT_NE(zone, nullptr) << name;
        EXPECT_TRUE(zone != nullptr && eventually([&] { return zone->isRunning(); })) << name;
    }
}

RegistryFixture::~RegistryFixture()
{
    destroyRegistry();
}

void destroyRegistry()
{
    auto* registry = ZoneCore::ZoneContext::singleton();
    EXPECT_TRUE(eventually([&] {
        registry->destroy();
        return registry->isEmpty();
    }));
    ZoneCore::ZoneContext::deleteSingleton();
}

std::vector<std::string> ownTexts(const LogCapture& log)
{
    std::vector<std::string> result;
    for (const LogRecord& record : log.records()) {
        if (record.thread == ZoneCore::currentThreadId()) {
            result.push_back(std::string(1, record.level) + " " + record.body);
        }
    }
    return result;
}

std::string atThread(const std::string& threadName)
{
    return "(thread name : " + threadName + ", tid : " + std::to_string(ZoneCore::currentThreadId()) + ")";
}

std::string byThread(const std::string& threadName)
{
    return "[" + threadName + ":" + std::to_string(ZoneCore::currentThreadId()) + "] ";
}

} // namespace ZoneTest
