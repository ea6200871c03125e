#pragma once

#include "Common/Thread.h"
#include "Common/ZoneTypes.h"

#include <glib.h>

#include <cstdint>
#include <list>
#include <string>
#include <sys/un.h>

namespace ZoneCore {

/// LXC's monitor message, as it comes out of the FIFO and goes on to every subscriber, byte for byte.
struct lxc_msg
{
    int32_t type;   ///< 0 state change, 1 priority, 2 exit
    char name[256]; ///< container name, NUL-terminated
    int32_t value;  ///< LXC's state number, or the raw wait status of the container's init process
};
static_assert(sizeof(lxc_msg) == 264);

/// The event thread that takes LXC's stream of state changes for itself: it reads the monitor FIFO and passes
/// each change on to the zone's thread, the bus, the subscribers and the zone manager; it serves the
/// subscribers' socket and the socket for init-pid queries.
///
/// Threads: set-up and teardown run on the main thread while the loop does not run, all callbacks on the
/// monitor's own thread. So no field needs a lock: each is written by the main thread before the loop runs,
/// but clientChannels, which belongs to the monitor's thread while the loop runs.
class ZoneMonitor : public Thread
{
public:
    ZoneMonitor();
    ~ZoneMonitor() override;

    using Thread::initialize;
    /// Prepares everything but the thread itself.
    /// @param path the LXC path
    /// @return false after a failure; what exists by then is left to ZoneManager::destroyZoneMonitor
    [[nodiscard]] bool initialize(std::string path);

    // The teardown's steps, on the main thread, once the monitor's thread is out of the way.
    void removeAllClientConnections();
    void destroyStateIOChannels();
    void closeMonitorInterfaceHandle();

    /// The FIFO can be read: takes one message. @return false ends the relay for the rest of the run
    static gboolean stateChangeIOEventCallback(GIOChannel* channel, GIOCondition condition, gpointer data);
    /// A subscriber connects.
    static gboolean serverIOEventCallback(GIOChannel* channel, GIOCondition condition, gpointer data);
    /// A subscriber writes or hangs up.
    static gboolean clientIOEventCallback(GIOChannel* channel, GIOCondition condition, gpointer data);
    /// Somebody asks for an init pid. @return false ends the service for the rest of the run
    static gboolean initPidResponseCallback(GIOChannel* channel, GIOCondition condition, gpointer data);

private:
    /// The functions of liblxc that are loaded by name, under liblxc's own signatures.
    struct MonitorInterface
    {
        int (*fifoName)(const char* lxcpath, char* buffer, size_t size, int makeDirectories);
        int (*socketName)(const char* lxcpath, sockaddr_un* address);
        int (*openAbstractSocket)(const char* path, int type, int flags);
        const char* (*stateToString)(int state);
    };

    void initMonitorInterfaceHandle();
    [[nodiscard]] bool createMonitorInterfaceHandle();
    [[nodiscard]] bool loadMonitorInterfaceSymbols();
    template <typename Function>
    [[nodiscard]] bool loadSymbol(Function& function, const char* symbol);

    [[nodiscard]] int createStateChangeMonitor();
    [[nodiscard]] int createFIFONode(const std::string& path);
    [[nodiscard]] bool setFIFOFLock(int fd, short type, short whence, off_t start, off_t length);

    [[nodiscard]] bool createStateIOChannels(int fifoFd);
    [[nodiscard]] bool createServerChannel();
    [[nodiscard]] bool createResponseChannel();
    [[nodiscard]] int createServer();
    [[nodiscard]] int createResponseServer();
    void destroyChannel(GIOChannel*& channel);

    [[nodiscard]] bool registerStateIOWatchers();
    [[nodiscard]] bool addIOWatcherToContext(GIOChannel* channel, GIOCondition condition, GIOFunc func,
                                             gpointer data);
    void destroyGIOChannel(GIOChannel* channel);

    /// The word of a message's state, for the log.
    [[nodiscard]] const char* wordOf(const lxc_msg& message) const;
    void handleExitMessage(const lxc_msg& message);
    void notifyZoneStateChange(lxc_msg* message);
    [[nodiscard]] bool emitStateChangedSignal(const std::string& zone, const char* word);
    void notifySubscribers(const lxc_msg& message, const char* word);
    [[nodiscard]] bool sendRestartEvent(lxc_msg* message, const ZoneState& state);
    [[nodiscard]] bool sendCheckAutoStartEvent();

    void acceptClient(int listenFd);
    [[nodiscard]] bool addClient(int listenFd, GIOChannel* channel);
    [[nodiscard]] bool setGIOFlags(GIOChannel* channel, GIOFlags flags);
    bool removeClientConnection(GIOChannel* channel);
    void answerInitPidQuery(int clientFd);

    std::string lxcPath;
    std::string fifoPath;
    GIOChannel* stateChannel = nullptr;
    GIOChannel* serverChannel = nullptr;
    GIOChannel* responseChannel = nullptr;
    void* interfaceHandle = nullptr;
    MonitorInterface interface {};
    std::list<GIOChannel*> clientChannels;
};

} // namespace ZoneCore
