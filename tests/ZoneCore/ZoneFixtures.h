#pragma once

#include "Common/ThreadId.h"
#include "ZoneCore/ZoneContext.h"
#include "ZoneCore/ZoneManager.h"
#include "ZoneCore/ZoneMonitor.h"
#include "tests/support/unit/LogCapture.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

/// What the tests of the zones, the monitor and the bus service share. They write to the daemon's compiled-in
/// paths and therefore run in a private root only.
namespace ZoneTest {

/// The LXC path of the tests.
constexpr const char* BASE_PATH = "/zone-test";

/// Ends the test program with a message when it does not run in a private root.
void requirePrivateRoot();

void writeFile(const std::filesystem::path& path, const std::string& text);

/// Gives a path a Smack label. Fails the test when it cannot.
void setLabel(const std::filesystem::path& path, const std::string& label);
/// A path's whole label; "(none)" without one.
[[nodiscard]] std::string labelOf(const std::filesystem::path& path);

/// Makes a directory read-only, which stops even root, as long as the object lives.
class ReadOnlyMount
{
public:
    explicit ReadOnlyMount(std::string directory);
    ~ReadOnlyMount();
    ReadOnlyMount(const ReadOnlyMount&) = delete;
    ReadOnlyMount& operator=(const ReadOnlyMount&) = delete;

private:
    std::string target;
};

/// The zone's root below BASE_PATH and its writable directories, all labelled "_".
void makeZoneDirectories(const std::string& zone);

/// An empty control directory for the fake liblxc and its launcher, the launcher itself, and no zone
/// directories, as long as the object lives.
class FakeLxcControl
{
public:
    FakeLxcControl();
    ~FakeLxcControl();
    FakeLxcControl(const FakeLxcControl&) = delete;
    FakeLxcControl& operator=(const FakeLxcControl&) = delete;

    /// Writes a control file, such as "lxcpath" or "containers/alpha/state".
    void set(const std::string& file, const std::string& value = "") const;
    void remove(const std::string& file) const;
    [[nodiscard]] bool has(const std::string& file) const;
    [[nodiscard]] std::string text(const std::string& file) const;

    /// A container of this kind, stopped, with a root file system and labelled directories.
    void define(const std::string& name, int type) const;

    /// The recorded calls of liblxc, "FUNCTION CONTAINER REFERENCES DETAIL" each.
    [[nodiscard]] std::vector<std::string> calls() const;
    /// The launcher's runs so far.
    [[nodiscard]] std::size_t launches() const;

private:
    [[nodiscard]] std::vector<std::string> linesOf(const std::string& file) const;

    std::filesystem::path directory;
};

/// A thread object with a context of its own whose loop counts as running while the test iterates that
/// context itself: no second thread, no waiting for poll timeouts.
template <typename Base>
class Driven : public Base
{
public:
    /// Makes context, queue and event source, under this thread name.
    void setUp(const std::string& name)
    {
        EXPECT_TRUE(this->Thread::initialize(false, name));
        EXPECT_TRUE(this->createEventQueue());
        EXPECT_TRUE(this->attachEventSource());
        countAsRunning();
    }
    void countAsRunning()
    {
        g_main_loop_unref(this->mainLoop);
        this->mainLoop = g_main_loop_new(this->mainContext, TRUE);
    }
    /// Dispatches what is ready. @return how often something was
    int drain()
    {
        int count = 0;
        while (count < LIMIT && g_main_context_iteration(this->mainContext, FALSE) != FALSE) {
            ++count;
        }
        return count;
    }
    [[nodiscard]] GSource* source() const { return this->eventSource; }
    [[nodiscard]] GMainContext* context() const { return this->mainContext; }

private:
    static constexpr int LIMIT = 1000; ///< a source that is ready for ever fails its test
};

/// A monitor that counts as running and does nothing.
[[nodiscard]] ZoneCore::ZoneMonitor* runningMonitor();

/// The zone manager on the default context, without a registry, a monitor or a bus service.
class ManagerFixture
{
public:
    ManagerFixture();
    ~ManagerFixture();
    ManagerFixture(const ManagerFixture&) = delete;
    ManagerFixture& operator=(const ManagerFixture&) = delete;

    [[nodiscard]] ZoneCore::ZoneManager* operator->() const { return manager; }
    [[nodiscard]] ZoneCore::ZoneManager* get() const { return manager; }

    /// Gives the manager a monitor, its to delete.
    void setMonitor(ZoneCore::ZoneMonitor* monitor) const;

    /// Clears the log and runs the main loop until the step has run and all that it queued has been
    /// dispatched.
    /// @return the calling thread's log texts, as far as the step has not cleared them
    std::vector<std::string> whileRunning(LogCapture& log, const std::function<void()>& step) const;

private:
    ZoneCore::ZoneManager* manager;
};

/// The registry, built from the fake's containers, with every zone's thread running.
class RegistryFixture
{
public:
    /// @param zones the names of those that are expected to be made
    explicit RegistryFixture(const std::vector<std::string>& zones);
    ~RegistryFixture();
    RegistryFixture(const RegistryFixture&) = delete;
    RegistryFixture& operator=(const RegistryFixture&) = delete;

    [[nodiscard]] ZoneCore::ZoneContext* operator->() const { return ZoneCore::ZoneContext::singleton(); }
};

/// Empties and deletes the registry, and waits for zones that are busy.
void destroyRegistry();

/// The log texts that the calling thread wrote.
[[nodiscard]] std::vector<std::string> ownTexts(const LogCapture& log);

/// The end of most messages: "(thread name : NAME, tid : ID)".
[[nodiscard]] std::string atThread(const std::string& threadName);
/// The beginning of many: "[NAME:ID] ".
[[nodiscard]] std::string byThread(const std::string& threadName);

} // namespace ZoneTest
