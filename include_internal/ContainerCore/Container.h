#pragma once

#include "Common/ZoneTypes.h"

#include <lxc/lxccontainer.h>

#include <list>
#include <string>
#include <sys/types.h>

namespace ContainerCore {

/// One LXC container as a zone acts on it. Start and stop run the launcher program and wait for it;
/// everything else goes straight to liblxc. Every operation runs on the zone's own thread, but initPID() and
/// state(), which the registry may call on others. None throws: a failure is a result and a log line.
class Container
{
public:
    Container() = default;
    ~Container();
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

    /// Hands the container over; this object owns one of its references from now on. Before the zone's thread
    /// runs.
    void setHandle(lxc_container* container) { handle = container; }
    [[nodiscard]] lxc_container* getHandle() const { return handle; }

    [[nodiscard]] bool mayControl();
    /// @return negative when the container has no running init process
    [[nodiscard]] pid_t initPID();
    /// @return NONE when liblxc cannot tell. A word that is no state's name ends the process.
    [[nodiscard]] ZoneCore::ZoneState state();
    [[nodiscard]] bool isRunning();
    [[nodiscard]] bool freeze();
    [[nodiscard]] bool unfreeze();

    /// Clears away what an earlier run left and starts the container. Blocks until the launcher has ended.
    /// @return whether the container runs then, whatever the launcher said
    [[nodiscard]] bool start();

    /// Stops the container and clears away what it left. Blocks until the launcher has ended.
    [[nodiscard]] bool stop();

    /// Waits for a child to end.
    /// @return its raw wait status, or -1
    [[nodiscard]] static int wait_for_pid_status(pid_t pid);

    /// Ends the processes that a container of this name left behind, and removes its control groups.
    void destroyPreProcess(const std::string& name);

private:
    void killPreProcess(const std::string& path, int waitSteps);
    void killProcessList(std::list<int>& pids);

    /// Set before the zone's thread runs, cleared by the destructor.
    lxc_container* handle = nullptr;
};

} // namespace ContainerCore
