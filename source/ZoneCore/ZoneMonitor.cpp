#include "ZoneCore/ZoneMonitor.h"

#include "Common/Handles.h"
#include "Common/Log.h"
#include "Common/SystemError.h"
#include "Common/ThreadId.h"
#include "DBusCore/ZoneManagerDBusInterface.h"
#include "ZoneCore/RuntimePaths.h"
#include "ZoneCore/ZoneContainerState.h"
#include "ZoneCore/ZoneContext.h"
#include "ZoneCore/ZoneManager.h"
#include "ZoneCore/ZoneSecurityPolicy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace ZoneCore {

namespace {

constexpr const char* THREAD_NAME = "zone-monitor";
constexpr const char* INTERFACE_LIBRARY = "/zone/config/liblxc.so.1";
constexpr const char* LXC_DIRECTORY = "lxc"; // the FIFO path's part up to which it is labelled
constexpr int PUBLISHER_FLAGS = 512;
constexpr char RESPONSE_SOCKET_NAME[] = "zonemanager_socket";
constexpr int RESPONSE_BACKLOG = 100;
constexpr size_t RESPONSE_BUFFER_SIZE = 64;
constexpr size_t CLIENT_READ_SIZE = 4;

constexpr auto WATCH_INPUT = static_cast<GIOCondition>(G_IO_IN | G_IO_PRI);
constexpr auto WATCH_CLIENT = static_cast<GIOCondition>(G_IO_IN | G_IO_PRI | G_IO_HUP);

/// The types of lxc_msg.
enum MessageType
{
    MESSAGE_STATE = 0,
    MESSAGE_PRIORITY = 1,
    MESSAGE_EXIT = 2,
};

/// The container's name, whether or not the message terminated it.
std::string nameOf(const lxc_msg& message)
{
    return {message.name, strnlen(message.name, sizeof(message.name))};
}

} // namespace

ZoneMonitor::ZoneMonitor()
{
    ZLOGI("[tid : %d] zone monitor instance is created", currentThreadId());
}

ZoneMonitor::~ZoneMonitor()
{
    ZLOGI("[tid : %d] zone monitor instance is destroyed", currentThreadId());
}

// Set-up, on the main thread.

bool ZoneMonitor::initialize(std::string path)
{
    lxcPath = std::move(path);
    initMonitorInterfaceHandle();
    if (!Thread::initialize(false, THREAD_NAME)) {
        ZLOGE("[%s:%d] Failed to initialize the thread - %s", threadName.c_str(), currentThreadId(),
              lxcPath.c_str());
        return false;
    }
    if (!createMonitorInterfaceHandle() || !loadMonitorInterfaceSymbols()) {
        return false;
    }
    const int fifoFd = createStateChangeMonitor();
    return fifoFd >= 0 && createStateIOChannels(fifoFd) && registerStateIOWatchers();
}

void ZoneMonitor::initMonitorInterfaceHandle()
{
    ZLOGI("[%s:%d] Monitor Interface Handle is initialized", threadName.c_str(), currentThreadId());
    interfaceHandle = nullptr;
    interface = {};
}

bool ZoneMonitor::createMonitorInterfaceHandle()
{
    interfaceHandle = dlopen(INTERFACE_LIBRARY, RTLD_LAZY);
    if (interfaceHandle == nullptr) {
        ZLOGE("[%s:%d] Failed to dlopen for %s - %s", threadName.c_str(), currentThreadId(),
              INTERFACE_LIBRARY, dlerror());
        return false;
    }
    ZLOGI("[%s:%d] Monitor Interface Handle is opened(%s)", threadName.c_str(), currentThreadId(),
          INTERFACE_LIBRARY);
    return true;
}

bool ZoneMonitor::loadMonitorInterfaceSymbols()
{
    if (interfaceHandle == nullptr) {
        ZLOGE("[%s:%d] Monitor Interface Handle is invalid", threadName.c_str(), currentThreadId());
        return false;
    }
    if (!loadSymbol(interface.fifoName, "lxc_monitor_fifo_name") ||
        !loadSymbol(interface.socketName, "lxc_monitor_sock_name") ||
        !loadSymbol(interface.openAbstractSocket, "lxc_abstract_unix_open") ||
        !loadSymbol(interface.stateToString, "lxc_state2str")) {
        return false;
    }
    ZLOGI("[%s:%d] Monitor Interface Symbols are set", threadName.c_str(), currentThreadId());
    return true;
}

template <typename Function>
bool ZoneMonitor::loadSymbol(Function& function, const char* symbol)
{
    function = reinterpret_cast<Function>(dlsym(interfaceHandle, symbol));
    if (function == nullptr) {
        const char* reason = dlerror();
        ZLOGE("[%s:%d] Failed to get symbol of %s - %s", threadName.c_str(), currentThreadId(), symbol,
              reason == nullptr ? "" : reason);
    }
    return function != nullptr;
}

int ZoneMonitor::createStateChangeMonitor()
{
    std::array<char, PATH_MAX> path{};
    if (interface.fifoName(lxcPath.c_str(), path.data(), path.size(), 1) < 0) {
        ZLOGE("[%s:%d] Failed to create the name of fifo path for state events - %s / %s", threadName.c_str(),
              currentThreadId(), lxcPath.c_str(), path.data());
        return -1;
    }
    UniqueFd fd(createFIFONode(path.data()));
    if (!fd) {
        return -1;
    }
    if (!setFIFOFLock(fd.get(), F_WRLCK, SEEK_SET, 0, 0)) {
        unlink(path.data());
        return -1;
    }
    fifoPath = path.data();
    ZLOGI("[%s:%d] State Change Monitor(fifo) is created - %s / %s[%d]", threadName.c_str(),
          currentThreadId(), lxcPath.c_str(), fifoPath.c_str(), fd.get());
    return fd.release();
}

int ZoneMonitor::createFIFONode(const std::string& path)
{
    const auto policy = std::make_shared<ZoneSecurityPolicy>();
    if (mknod(path.c_str(), S_IFIFO | 0600, 0) < 0 && errno != EEXIST) {
        ZLOGE("[%s:%d] Failed to create the node for monitor fifo - %s / %s(ref count : %ld)",
              threadName.c_str(), currentThreadId(), lxcPath.c_str(), path.c_str(), policy.use_count());
        return -1;
    }
    const auto found = path.find(LXC_DIRECTORY);
    if (found == std::string::npos) {
        ZLOGE("[%s:%d] Can not find string(%s) - %s(ref count : %ld)", threadName.c_str(), currentThreadId(),
              LXC_DIRECTORY, path.c_str(), policy.use_count());
        unlink(path.c_str());
        return -1;
    }
    const std::string labelled = path.substr(0, found + std::strlen(LXC_DIRECTORY));
    if (!policy->setContainerSmackLabel(labelled, LABEL_PRIVATE)) {
        ZLOGE("[%s:%d] Failed to set container access label - %s / %s(ref count : %ld)", threadName.c_str(),
              currentThreadId(), lxcPath.c_str(), path.c_str(), policy.use_count());
        unlink(path.c_str());
        return -1;
    }
    // For writing, too: without a writer of our own the FIFO would be at its end whenever no container
    // writes.
    const int fd = open(path.c_str(), O_RDWR);
    if (fd < 0) {
        ZLOGE("[%s:%d] Failed to open the monitor fifo - %s / %s(ref count : %ld)", threadName.c_str(),
              currentThreadId(), lxcPath.c_str(), path.c_str(), policy.use_count());
        unlink(path.c_str());
        return -1;
    }
    ZLOGI("[%s:%d] FIFO node is created to %s for %s[%d](ref count : %ld)", threadName.c_str(),
          currentThreadId(), path.c_str(), lxcPath.c_str(), fd, policy.use_count());
    return fd;
}

bool ZoneMonitor::setFIFOFLock(int fd, short type, short whence, off_t start, off_t length)
{
    struct flock lock
    {};
    lock.l_type = type;
    lock.l_whence = whence;
    lock.l_start = start;
    lock.l_len = length;
    if (fcntl(fd, F_SETLK, &lock) < 0) {
        ZLOGE("[%s:%d] Failed to set flock for monitor fifo - %s / [%d]", threadName.c_str(),
              currentThreadId(), lxcPath.c_str(), fd);
        return false;
    }
    ZLOGI("[%s:%d] FLock is set for fifo [%d]", threadName.c_str(), currentThreadId(), fd);
    return true;
}

bool ZoneMonitor::createStateIOChannels(int fifoFd)
{
    stateChannel = g_io_channel_unix_new(fifoFd);
    if (stateChannel == nullptr) {
        ZLOGE("[%s:%d] Failed to gio channel for fifo - %s[fifofd : %d]", threadName.c_str(),
              currentThreadId(), lxcPath.c_str(), fifoFd);
        close(fifoFd);
        unlink(fifoPath.c_str());
        return false;
    }
    if (!createServerChannel() || !createResponseChannel()) {
        destroyChannel(stateChannel);
        destroyChannel(serverChannel);
        unlink(fifoPath.c_str());
        return false;
    }
    ZLOGI("[%s:%d] GIO Channels for state change monitor & server are created - %s[%d / %d]",
          threadName.c_str(), currentThreadId(), lxcPath.c_str(), g_io_channel_unix_get_fd(stateChannel),
          g_io_channel_unix_get_fd(serverChannel));
    return true;
}

bool ZoneMonitor::createServerChannel()
{
    UniqueFd fd(createServer());
    if (!fd) {
        return false;
    }
    serverChannel = g_io_channel_unix_new(fd.get());
    if (serverChannel == nullptr) {
        ZLOGE("[%s:%d] Failed to gio channel for socket - %s[%d]", threadName.c_str(), currentThreadId(),
              lxcPath.c_str(), fd.get());
        return false;
    }
    static_cast<void>(fd.release()); // the channel's now
    return true;
}

bool ZoneMonitor::createResponseChannel()
{
    UniqueFd fd(createResponseServer());
    if (!fd) {
        return false;
    }
    responseChannel = g_io_channel_unix_new(fd.get());
    if (responseChannel == nullptr) {
        ZLOGE("[%s:%d] Failed to gio channel for socket - %s[%d]", threadName.c_str(), currentThreadId(),
              RESPONSE_SOCKET_NAME, fd.get());
        return false;
    }
    static_cast<void>(fd.release()); // the channel's now
    return true;
}

int ZoneMonitor::createServer()
{
    sockaddr_un address{};
    if (interface.socketName(lxcPath.c_str(), &address) < 0) {
        ZLOGE("[%s:%d] Failed to create the socket name - %s", threadName.c_str(), currentThreadId(),
              lxcPath.c_str());
        return -1;
    }
    // An abstract name: the text begins behind the zero byte. It may fill the address to its end.
    const std::string name(address.sun_path + 1, strnlen(address.sun_path + 1, sizeof(address.sun_path) - 1));
    const int fd = interface.openAbstractSocket(address.sun_path, SOCK_STREAM, PUBLISHER_FLAGS);
    if (fd < 0) {
        ZLOGE("[%s:%d] Failed to open the unix domain socket for monitor publisher - %s / %s",
              threadName.c_str(), currentThreadId(), lxcPath.c_str(), name.c_str());
        return -1;
    }
    ZLOGI("[%s:%d] Server is created - %s / %s[%d]", threadName.c_str(), currentThreadId(), lxcPath.c_str(),
          name.c_str(), fd);
    return fd;
}

int ZoneMonitor::createResponseServer()
{
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
    if (!fd) {
        ZLOGE("[%s:%d]Failed to createResponseServer", threadName.c_str(), currentThreadId());
        return -1;
    }
    // The name is the whole of sun_path with its zeros, since the address is bound in its full length.
    sockaddr_un address{};
    static_assert(sizeof(address) == 110);
    static_assert(sizeof(RESPONSE_SOCKET_NAME) <= sizeof(address.sun_path) - 1);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, RESPONSE_SOCKET_NAME, sizeof(RESPONSE_SOCKET_NAME));
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        ZLOGE("[%s:%d] Failed to bind", threadName.c_str(), currentThreadId());
        return -1;
    }
    if (listen(fd.get(), RESPONSE_BACKLOG) < 0) {
        ZLOGE("[%s:%d] Failed to listen", threadName.c_str(), currentThreadId());
        return -1;
    }
    ZLOGI("[%s:%d] Server is created - %s[%d]", threadName.c_str(), currentThreadId(), RESPONSE_SOCKET_NAME,
          fd.get());
    return fd.release();
}

bool ZoneMonitor::registerStateIOWatchers()
{
    if (!addIOWatcherToContext(serverChannel, WATCH_INPUT, serverIOEventCallback, this)) {
        ZLOGE("[%s:%d] Failed to add subscriber watcher to thread context - %s", threadName.c_str(),
              currentThreadId(), lxcPath.c_str());
        return false;
    }
    if (!addIOWatcherToContext(stateChannel, WATCH_INPUT, stateChangeIOEventCallback, this)) {
        ZLOGE("[%s:%d] Failed to add publisher watcher to thread context - %s", threadName.c_str(),
              currentThreadId(), lxcPath.c_str());
        return false;
    }
    if (!addIOWatcherToContext(responseChannel, WATCH_INPUT, initPidResponseCallback, this)) {
        ZLOGE("[%s:%d] Failed to add subscriber watcher to thread context - %s", threadName.c_str(),
              currentThreadId(), lxcPath.c_str());
        return false;
    }
    ZLOGI("[%s:%d] GIO Watchers are added to thread context - %s[%d / %d]", threadName.c_str(),
          currentThreadId(), lxcPath.c_str(), g_io_channel_unix_get_fd(stateChannel),
          g_io_channel_unix_get_fd(serverChannel));
    return true;
}

bool ZoneMonitor::addIOWatcherToContext(GIOChannel* channel, GIOCondition condition, GIOFunc func,
                                        gpointer data)
{
    if (channel == nullptr) {
        ZLOGE("[%s:%d] Failed to add watcher to thread context - %s", threadName.c_str(), currentThreadId(),
              lxcPath.c_str());
        return false;
    }
    GSource* source = g_io_create_watch(channel, condition);
    if (source == nullptr) {
        ZLOGE("[%s:%d] Failed to create gsource for io watch - %s", threadName.c_str(), currentThreadId(),
              lxcPath.c_str());
        return false;
    }
    g_source_set_callback(source, G_SOURCE_FUNC(func), data, nullptr);
    static_cast<void>(g_source_attach(source, mainContext));
    g_source_unref(source); // the context keeps it
    ZLOGI("[%s:%d] IO(%d) watcher is added to Thread Context", threadName.c_str(), currentThreadId(),
          g_io_channel_unix_get_fd(channel));
    return true;
}

// Teardown, on the main thread.

void ZoneMonitor::destroyGIOChannel(GIOChannel* channel)
{
    const int fd = g_io_channel_unix_get_fd(channel);
    g_io_channel_unref(channel);
    close(fd);
    ZLOGI("[%s:%d] GIO Channel is destroyed[fd : %d]", threadName.c_str(), currentThreadId(), fd);
}

void ZoneMonitor::destroyChannel(GIOChannel*& channel)
{
    if (channel != nullptr) {
        destroyGIOChannel(channel);
        channel = nullptr;
    }
}

void ZoneMonitor::removeAllClientConnections()
{
    ZLOGI("[%s:%d] Remove all client connections[count : %d]", threadName.c_str(), currentThreadId(),
          static_cast<int>(clientChannels.size()));
    while (!clientChannels.empty()) {
        GIOChannel* channel = clientChannels.front();
        ZLOGI("[%s:%d] Found client connection from client GIO List[client socket : %d]", threadName.c_str(),
              currentThreadId(), channel == nullptr ? -1 : g_io_channel_unix_get_fd(channel));
        destroyChannel(channel);
        clientChannels.pop_front();
    }
    ZLOGI("[%s:%d] All client connections are removed", threadName.c_str(), currentThreadId());
}

void ZoneMonitor::destroyStateIOChannels()
{
    ZLOGI("[%s:%d] State GIO Channels are destroyed - %s[fifo : %d / socket : %d]", threadName.c_str(),
          currentThreadId(), lxcPath.c_str(),
          stateChannel == nullptr ? -1 : g_io_channel_unix_get_fd(stateChannel),
          serverChannel == nullptr ? -1 : g_io_channel_unix_get_fd(serverChannel));
    destroyChannel(stateChannel);
    destroyChannel(serverChannel);
    destroyChannel(responseChannel);
}

void ZoneMonitor::closeMonitorInterfaceHandle()
{
    if (interfaceHandle != nullptr) {
        if (dlclose(interfaceHandle) != 0) {
            ZLOGE("[%s:%d] Failed to close Mointor Interface Handle of %s - %s", threadName.c_str(),
                  currentThreadId(), INTERFACE_LIBRARY, dlerror());
        }
        initMonitorInterfaceHandle();
    }
    ZLOGI("[%s:%d] Monitor Interface Handle is closed(%s)", threadName.c_str(), currentThreadId(),
          INTERFACE_LIBRARY);
}

// State changes, on the monitor's thread.

gboolean ZoneMonitor::stateChangeIOEventCallback(GIOChannel* channel, GIOCondition /*condition*/,
                                                 gpointer data)
{
    const ThreadGate::Pass pass;
    if (!pass) {
        return G_SOURCE_REMOVE;
    }
    auto* monitor = static_cast<ZoneMonitor*>(data);
    if (monitor == nullptr) {
        ZLOGE("Failed to get ZoneMonitor instance");
        return G_SOURCE_REMOVE;
    }
    const char* threadName = monitor->threadName.c_str();
    if (channel == nullptr) {
        ZLOGE("[%s:%d] GIOChannel source is invalid", threadName, currentThreadId());
        return G_SOURCE_REMOVE;
    }
    const int fd = g_io_channel_unix_get_fd(channel);
    ZLOGI("[%s:%d] state change IO event is received[fd : %d, count : %d]", threadName, currentThreadId(), fd,
          static_cast<int>(monitor->clientChannels.size()));
    lxc_msg message{};
    if (read(fd, &message, sizeof(message)) != static_cast<ssize_t>(sizeof(message))) {
        ZLOGE("[%s:%d] Failed to read state messages from container", threadName, currentThreadId());
        return G_SOURCE_REMOVE;
    }
    switch (message.type) {
    case MESSAGE_PRIORITY:
        ZLOGI("[%s:%d] priority message is received", threadName, currentThreadId());
        break;
    case MESSAGE_EXIT:
        monitor->handleExitMessage(message);
        break;
    case MESSAGE_STATE:
        ZLOGI("[%s:%d] The state of %s is changed to %s", threadName, currentThreadId(),
              nameOf(message).c_str(), monitor->wordOf(message));
        monitor->notifyZoneStateChange(&message);
        break;
    default:
        ZLOGE("[%s:%d] case error", threadName, currentThreadId());
    }
    return G_SOURCE_CONTINUE;
}

const char* ZoneMonitor::wordOf(const lxc_msg& message) const
{
    const char* word = interface.stateToString(message.value);
    return word == nullptr ? "(null)" : word;
}

void ZoneMonitor::handleExitMessage(const lxc_msg& message)
{
    const std::string name = nameOf(message);
    const int exitStatus = (message.value >> 8) & 0xff;
    ZLOGI("[%s:%d] exit message is received - %s is exited with status code : %d", threadName.c_str(),
          currentThreadId(), name.c_str(), exitStatus);
    const ZUP::ZoneOperationType operation = ZoneContext::singleton()->zoneOperationType(name);
    const bool meantToRun = operation != ZUP::ZONE_OPERATION_NONE && operation != ZUP::ZONE_OPERATION_STOP;
    ZoneContext::singleton()->setZoneRestartFlag(name, meantToRun);
}

void ZoneMonitor::notifyZoneStateChange(lxc_msg* message)
{
    const char* word = interface.stateToString(message->value);
    if (word == nullptr) {
        ZLOGW("[%s:%d] Invalid zone state value - %d", threadName.c_str(), currentThreadId(), message->value);
        return;
    }
    const std::string name = nameOf(*message);
    const ZoneState state = std::make_shared<ZoneContainerState>()->stateToEnum(word);
    if (!ZoneContext::singleton()->sendEventToZone(name, eZONE_EVENT_CHANGE_STATE, state, nullptr)) {
        ZLOGW("[%s:%d] Failed to send zone event to \"%s : %s\"", threadName.c_str(), currentThreadId(),
              name.c_str(), word);
    }
    ZLOGI("[%s:%d] Request broadcasting signals for changing container state [zone name : %s / %s]",
          threadName.c_str(), currentThreadId(), name.c_str(), word);
    if (!emitStateChangedSignal(name, word)) {
        ZLOGW("[%s:%d] Failed to send signal for changing state [zone name : %s]", threadName.c_str(),
              currentThreadId(), name.c_str());
    }
    notifySubscribers(*message, word);
    if (state == RUNNING && !sendCheckAutoStartEvent()) {
        ZLOGE("[%s:%d] Failed to send check auto start event for \"%s : %s\"", threadName.c_str(),
              currentThreadId(), name.c_str(), word);
    }
    if (state == STOPPED && !sendRestartEvent(message, state)) {
        ZLOGE("[%s:%d] Failed to send Re-start event for \"%s : %s\"", threadName.c_str(), currentThreadId(),
              name.c_str(), word);
    }
}

bool ZoneMonitor::emitStateChangedSignal(const std::string& zone, const char* word)
{
    // The first messages may come before start-up has made the bus service.
    auto* service = ZoneManager::singleton()->dbusInterface.load(std::memory_order_acquire);
    return service != nullptr && service->emitStateChangedSignal(zone.c_str(), word);
}

void ZoneMonitor::notifySubscribers(const lxc_msg& message, const char* word)
{
    if (clientChannels.empty()) {
        return;
    }
    const std::string name = nameOf(message);
    for (GIOChannel* channel : clientChannels) {
        const int fd = g_io_channel_unix_get_fd(channel);
        if (write(fd, &message, sizeof(message)) < 0) {
            const SystemErrorText error;
            ZLOGW("[%s:%d] Failed to write the state change event to subscribers - %s => %s - \"%s\"",
                  threadName.c_str(), currentThreadId(), name.c_str(), word, error.c_str());
        }
        ZLOGI("[%s:%d] %s => %s message is notified to [fd : %d, count : %d]", threadName.c_str(),
              currentThreadId(), name.c_str(), word, fd, static_cast<int>(clientChannels.size()));
    }
    ZLOGI("[%s:%d] State Change Event is notified to all subscribers - %s => %s", threadName.c_str(),
          currentThreadId(), name.c_str(), word);
}

bool ZoneMonitor::sendCheckAutoStartEvent()
{
    if (!ZoneManager::singleton()->sendEvent(eZONE_EVENT_CHECK_AUTO_START, NONE, nullptr)) {
        ZLOGE("[%s:%d] Failed to send check auto start event", threadName.c_str(), currentThreadId());
        return false;
    }
    ZLOGI("[%s:%d] Check Auto Start event is sent to Zone Manager", threadName.c_str(), currentThreadId());
    return true;
}

bool ZoneMonitor::sendRestartEvent(lxc_msg* message, const ZoneState& state)
{
    const std::string name = nameOf(*message);
    if (ZoneContext::singleton()->zoneRestartFlag(name)) {
        auto payload = std::make_unique<std::string>(name);
        if (!ZoneManager::singleton()->sendEvent(eZONE_EVENT_RESTART, state, payload.get())) {
            ZLOGE("[%s:%d] Failed to send restart event[zone name : %s]", threadName.c_str(),
                  currentThreadId(), name.c_str());
            return false;
        }
        static_cast<void>(payload.release()); // the manager's now
    }
    // Written whenever nothing failed, also when there was nothing to send.
    ZLOGI("[%s:%d] Restart event for %s is sent to Zone Manager", threadName.c_str(), currentThreadId(),
          name.c_str());
    return true;
}

// Subscribers, on the monitor's thread.

gboolean ZoneMonitor::serverIOEventCallback(GIOChannel* channel, GIOCondition /*condition*/, gpointer data)
{
    const ThreadGate::Pass pass;
    if (!pass) {
        return G_SOURCE_REMOVE;
    }
    auto* monitor = static_cast<ZoneMonitor*>(data);
    if (monitor == nullptr) {
        ZLOGE("Failed to get ZoneMonitor instance");
        return G_SOURCE_REMOVE;
    }
    if (channel == nullptr) {
        ZLOGE("[%s:%d] GIOChannel source is invalid", monitor->threadName.c_str(), currentThreadId());
        return G_SOURCE_REMOVE;
    }
    const int fd = g_io_channel_unix_get_fd(channel);
    ZLOGI("[%s:%d] server accept IO event is received[fd : %d, count : %d]", monitor->threadName.c_str(),
          currentThreadId(), fd, static_cast<int>(monitor->clientChannels.size()));
    monitor->acceptClient(fd);
    return G_SOURCE_CONTINUE;
}

void ZoneMonitor::acceptClient(int listenFd)
{
    UniqueFd client(accept(listenFd, nullptr, nullptr));
    if (!client) {
        ZLOGE("[%s:%d] Failed to accept client connection[listen socket : %d]", threadName.c_str(),
              currentThreadId(), listenFd);
        return;
    }
    ZLOGI("[%s:%d] Client[fd : %d] is connected[listen socket : %d]", threadName.c_str(), currentThreadId(),
          client.get(), listenFd);
    if (fcntl(client.get(), F_SETFD, FD_CLOEXEC) < 0) {
        ZLOGE("[%s:%d] Failed to set close-on-exec on client connection[listen socket : %d, client socket : "
              "%d]",
              threadName.c_str(), currentThreadId(), listenFd, client.get());
        return;
    }
    if (!std::make_shared<ZoneSecurityPolicy>()->checkProcessPrivilege(client.get())) {
        return;
    }
    GIOChannel* channel = g_io_channel_unix_new(client.get());
    if (channel == nullptr) {
        ZLOGE("[%s:%d] Failed to create GIOChannel for client connection[listen socket : %d, client socket : "
              "%d]",
              threadName.c_str(), currentThreadId(), listenFd, client.get());
        return;
    }
    static_cast<void>(client.release()); // the channel's now
    if (!addClient(listenFd, channel)) {
        destroyGIOChannel(channel);
    }
}

bool ZoneMonitor::addClient(int listenFd, GIOChannel* channel)
{
    const int fd = g_io_channel_unix_get_fd(channel);
    if (!setGIOFlags(channel, G_IO_FLAG_NONBLOCK)) {
        ZLOGE("[%s:%d] Failed to set non blocking socket on client connection[listen socket : %d, client "
              "socket : "
              "%d]",
              threadName.c_str(), currentThreadId(), listenFd, fd);
        return false;
    }
    ZLOGI("[%s:%d] G_IO_FLAG_NONBLOCK flag is set for client connection[client fd : %d, count : %d]",
          threadName.c_str(), currentThreadId(), fd, static_cast<int>(clientChannels.size()));
    if (!addIOWatcherToContext(channel, WATCH_CLIENT, clientIOEventCallback, this)) {
        ZLOGE(
            "[%s:%d] Failed to add client watcher to thread context[listen socket : %d, client socket : %d]",
            threadName.c_str(), currentThreadId(), listenFd, fd);
        return false;
    }
    clientChannels.push_back(channel);
    ZLOGI("[%s:%d] client connection is added to GIO Channel List[client fd : %d, count : %d]",
          threadName.c_str(), currentThreadId(), fd, static_cast<int>(clientChannels.size()));
    return true;
}

bool ZoneMonitor::setGIOFlags(GIOChannel* channel, GIOFlags flags)
{
    const GIOFlags current = g_io_channel_get_flags(channel);
    if ((current & flags) == flags) {
        return true;
    }
    GErrorPtr error;
    const GIOStatus status =
        g_io_channel_set_flags(channel, static_cast<GIOFlags>(current | flags), OutError(error));
    if (status == G_IO_STATUS_NORMAL) {
        return true;
    }
    ZLOGE("[%s:%d] Failed to set flags for GIOChannel[flags : %d, status : %d]", threadName.c_str(),
          currentThreadId(), static_cast<int>(flags), static_cast<int>(status));
    if (error != nullptr) {
        ZLOGE("[%s:%d] Error Message : %s", threadName.c_str(), currentThreadId(), error->message);
    }
    return false;
}

gboolean ZoneMonitor::clientIOEventCallback(GIOChannel* channel, GIOCondition condition, gpointer data)
{
    const ThreadGate::Pass pass;
    if (!pass) {
        return G_SOURCE_REMOVE;
    }
    auto* monitor = static_cast<ZoneMonitor*>(data);
    if (monitor == nullptr) {
        ZLOGE("Failed to get ZoneMonitor instance");
        return G_SOURCE_REMOVE;
    }
    const char* threadName = monitor->threadName.c_str();
    if (channel == nullptr) {
        ZLOGE("[%s:%d] GIOChannel source is invalid", threadName, currentThreadId());
        return G_SOURCE_REMOVE;
    }
    const int fd = g_io_channel_unix_get_fd(channel);
    if (fd < 0) {
        ZLOGE("[%s:%d] fd of current GIOChannel source is invalid", threadName, currentThreadId());
        return G_SOURCE_REMOVE;
    }
    ZLOGI("[%s:%d] client IO event is received[fd : %d, count : %d]", threadName, currentThreadId(), fd,
          static_cast<int>(monitor->clientChannels.size()));
    bool sendingSideClosed = false;
    if ((condition & G_IO_IN) != 0) {
        std::array<char, CLIENT_READ_SIZE + 1> bytes{};
        const ssize_t count = read(fd, bytes.data(), CLIENT_READ_SIZE);
        if (count > 0) {
            ZLOGI("[%s:%d] read data from clients[%d] - %s", threadName, currentThreadId(), fd, bytes.data());
        }
        sendingSideClosed = count == 0;
    }
    if ((condition & G_IO_HUP) == 0) {
        // A closed sending side stays readable for ever. Such a subscriber still listens: only its hang-up
        // counts.
        return !(sendingSideClosed &&
                 monitor->addIOWatcherToContext(channel, G_IO_HUP, clientIOEventCallback, monitor));
    }
    ZLOGI("[%s:%d] client socket connection is broken(Hung up)[fd : %d]", threadName, currentThreadId(), fd);
    static_cast<void>(monitor->removeClientConnection(channel));
    monitor->destroyGIOChannel(channel);
    return G_SOURCE_REMOVE;
}

bool ZoneMonitor::removeClientConnection(GIOChannel* channel)
{
    int count = static_cast<int>(clientChannels.size());
    ZLOGI("[%s:%d] Remove client connections[%d] - [count : %d]", threadName.c_str(), currentThreadId(),
          g_io_channel_unix_get_fd(channel), count);
    const auto found = std::find(clientChannels.begin(), clientChannels.end(), channel);
    const bool listed = found != clientChannels.end();
    if (listed) {
        ZLOGI("[%s:%d] Found client connection from client GIO List[client socket : %d]", threadName.c_str(),
              currentThreadId(), g_io_channel_unix_get_fd(channel));
        --count;
        clientChannels.erase(found);
    }
    ZLOGI("[%s:%d] Current client connection count[count : %d]", threadName.c_str(), currentThreadId(),
          count);
    return listed;
}

// Init-pid queries, on the monitor's thread.

gboolean ZoneMonitor::initPidResponseCallback(GIOChannel* channel, GIOCondition /*condition*/, gpointer data)
{
    const ThreadGate::Pass pass;
    if (!pass) {
        return G_SOURCE_REMOVE;
    }
    auto* monitor = static_cast<ZoneMonitor*>(data);
    if (monitor == nullptr) {
        ZLOGE("Failed to get ZoneMonitor instance");
        return G_SOURCE_REMOVE;
    }
    const char* threadName = monitor->threadName.c_str();
    if (channel == nullptr) {
        ZLOGE("[%s:%d] GIOChannel source is invalid", threadName, currentThreadId());
        return G_SOURCE_REMOVE;
    }
    const int listenFd = g_io_channel_unix_get_fd(channel);
    const UniqueFd client(accept(listenFd, nullptr, nullptr));
    if (!client) {
        ZLOGE("[%s:%d] Failed to accept client connection[listen socket : %d]", threadName, currentThreadId(),
              listenFd);
        return G_SOURCE_REMOVE;
    }
    ZLOGI("[%s:%d] Client[fd : %d] is connected[listen socket : %d]", threadName, currentThreadId(),
          client.get(), listenFd);
    monitor->answerInitPidQuery(client.get());
    return G_SOURCE_CONTINUE;
}

void ZoneMonitor::answerInitPidQuery(int clientFd)
{
    std::array<char, RESPONSE_BUFFER_SIZE + 1> request{};
    static_cast<void>(recv(clientFd, request.data(), RESPONSE_BUFFER_SIZE, 0));
    const std::string name = request.data();

    pid_t answer = 0;
    if (ZoneContext::singleton()->getZoneType(name) == ZUP::ZONE_TYPE_ISOLATION) {
        answer = ZoneContext::singleton()->getZoneInitPID(name);
    } else {
        ZLOGE("[%s] There is no access permission to protection zone(%s) - Operation is not permitted",
              threadName.c_str(), name.c_str());
    }
    std::array<char, RESPONSE_BUFFER_SIZE> reply{};
    const int length = std::snprintf(reply.data(), reply.size(), "%d", answer);
    static_cast<void>(send(clientFd, reply.data(), static_cast<size_t>(length), MSG_NOSIGNAL));
}

} // namespace ZoneCore
