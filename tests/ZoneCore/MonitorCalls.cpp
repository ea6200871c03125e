#include "tests/ZoneCore/MonitorCalls.h"

#include "Common/Log.h"
#include "Common/ThreadId.h"

#include <gio/gio.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <optional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/// What happens to a call instead of its being passed on.
struct Rule
{
    std::string call;
    int spared = 0;
    std::optional<int> result{}; ///< what a call gives that is carried out; none: it fails
    int error = 0;
};

std::atomic<pid_t> owner{0}; ///< the thread whose calls count
bool tracing = false;
std::vector<Rule> rules;
int lastError = 0; ///< of a call that failed, until dlerror() has told it

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    gchar* formatted = g_strdup_vprintf(format, arguments);
    va_end(arguments);
    std::string result = formatted;
    g_free(formatted);
    return result;
}

/// The rule for this call, if there is one.
const Rule* enter(const std::string& call)
{
    if (ZoneCore::currentThreadId() != owner.load()) {
        return nullptr;
    }
    if (tracing) {
        ZLOGD("%s", call.c_str());
    }
    for (Rule& rule : rules) {
        if (call.rfind(rule.call, 0) == 0 && rule.spared-- == 0) {
            return &rule;
        }
    }
    return nullptr;
}

template <typename Function, typename... Arguments>
auto pass(const std::string& call, Function genuine, Arguments... arguments)
{
    using Result = decltype(genuine(arguments...));
    const Rule* rule = enter(call);
    if (rule == nullptr) {
        return genuine(arguments...);
    }
    if constexpr (!std::is_pointer_v<Result>) {
        if (rule->result) {
            static_cast<void>(genuine(arguments...));
            return static_cast<Result>(*rule->result);
        }
    }
    errno = lastError = rule->error;
    if constexpr (std::is_integral_v<Result>) {
        return static_cast<Result>(-1);
    } else {
        return Result{}; // a null pointer, G_IO_STATUS_ERROR
    }
}

// The functions of the loaded library.

int (*genuineFifoName)(const char*, char*, std::size_t, int) = nullptr;
int (*genuineSocketName)(const char*, sockaddr_un*) = nullptr;
int (*genuineOpenSocket)(const char*, int, int) = nullptr;
const char* (*genuineStateToString)(int) = nullptr;

int fifoName(const char* path, char* buffer, std::size_t size, int makeDirectories)
{
    return pass(text("lxc_monitor_fifo_name(%s, %zu, %d)", path, size, makeDirectories), genuineFifoName,
                path, buffer, size, makeDirectories);
}

int socketName(const char* path, sockaddr_un* address)
{
    return pass(text("lxc_monitor_sock_name(%s)", path), genuineSocketName, path, address);
}

int openSocket(const char* path, int type, int flags)
{
    return pass(text("lxc_abstract_unix_open(%s, %d, %d)", path + 1, type, flags), genuineOpenSocket, path,
                type, flags);
}

const char* stateToString(int state)
{
    return pass(text("lxc_state2str(%d)", state), genuineStateToString, state);
}

/// Puts a function of ours in front of one that has been looked up.
template <typename Function>
void* inFrontOf(void* found, Function*& genuine, Function* ours)
{
    genuine = reinterpret_cast<Function*>(found);
    return reinterpret_cast<void*>(ours);
}

} // namespace

namespace ZoneTest {

MonitorCalls::MonitorCalls()
{
    owner = ZoneCore::currentThreadId();
}

MonitorCalls::~MonitorCalls()
{
    owner = 0;
    reset();
}

void MonitorCalls::reset() const
{
    tracing = false;
    rules.clear();
    lastError = 0;
}

void MonitorCalls::trace() const
{
    tracing = true;
}

void MonitorCalls::fail(const std::string& call, int error, int spared) const
{
    rules.push_back({call, spared, std::nullopt, error});
}

void MonitorCalls::give(const std::string& call, int result) const
{
    rules.push_back({call, 0, result, 0});
}

} // namespace ZoneTest

// The linker sends each call of NAME to __wrap_NAME, and each of __real_NAME to NAME itself.
#define GENUINE(function) decltype(function) __real_##function // NOLINT(bugprone-macro-parentheses)

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

GENUINE(dlopen);
void* __wrap_dlopen(const char* file, int flags)
{
    return pass(text("dlopen(%s, %d)", file, flags), __real_dlopen, file, flags);
}

GENUINE(dlsym);
void* __wrap_dlsym(void* handle, const char* symbol)
{
    void* found = pass(text("dlsym(%s)", symbol), __real_dlsym, handle, symbol);
    const std::string name = found == nullptr ? "" : symbol;
    if (name == "lxc_monitor_fifo_name") {
        return inFrontOf(found, genuineFifoName, fifoName);
    }
    if (name == "lxc_monitor_sock_name") {
        return inFrontOf(found, genuineSocketName, socketName);
    }
    if (name == "lxc_abstract_unix_open") {
        return inFrontOf(found, genuineOpenSocket, openSocket);
    }
    if (name == "lxc_state2str") {
        return inFrontOf(found, genuineStateToString, stateToString);
    }
    return found;
}

GENUINE(dlclose);
int __wrap_dlclose(void* handle)
{
    return pass("dlclose()", __real_dlclose, handle);
}

GENUINE(dlerror);
char* __wrap_dlerror()
{
    const int error = std::exchange(lastError, 0);
    return error == 0 ? __real_dlerror() : std::strerror(error);
}

GENUINE(mknod);
int __wrap_mknod(const char* path, mode_t mode, dev_t device)
{
    return pass(text("mknod(%s, %o, %d)", path, mode, static_cast<int>(device)), __real_mknod, path, mode,
                device);
}

GENUINE(open);
int __wrap_open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        std::va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return pass(text("open(%s, %d)", path, flags), __real_open, path, flags, mode);
}

GENUINE(close);
int __wrap_close(int fd)
{
    return pass(text("close(%d)", fd), __real_close, fd);
}

GENUINE(unlink);
int __wrap_unlink(const char* path)
{
    return pass(text("unlink(%s)", path), __real_unlink, path);
}

GENUINE(fcntl);
int __wrap_fcntl(int fd, int command, ...)
{
    std::va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    std::string detail;
    if (command == F_SETLK || command == F_SETLKW) {
        const auto* lock = static_cast<const struct flock*>(argument);
        detail = text(", %d, %d, %jd, %jd", lock->l_type, lock->l_whence, std::intmax_t{lock->l_start},
                      std::intmax_t{lock->l_len});
    } else if (command == F_SETFD) {
        detail = text(", %d", static_cast<int>(reinterpret_cast<std::intptr_t>(argument)));
    }
    return pass(text("fcntl(%d, %d%s)", fd, command, detail.c_str()), __real_fcntl, fd, command, argument);
}

GENUINE(read);
ssize_t __wrap_read(int fd, void* buffer, std::size_t size)
{
    return pass(text("read(%d, %zu)", fd, size), __real_read, fd, buffer, size);
}

GENUINE(write);
ssize_t __wrap_write(int fd, const void* data, std::size_t size)
{
    // The log itself is written to standard error.
    return fd == STDERR_FILENO ? __real_write(fd, data, size)
                               : pass(text("write(%d, %zu)", fd, size), __real_write, fd, data, size);
}

GENUINE(socket);
int __wrap_socket(int domain, int type, int protocol)
{
    return pass(text("socket(%d, %d, %d)", domain, type, protocol), __real_socket, domain, type, protocol);
}

GENUINE(bind);
int __wrap_bind(int fd, const sockaddr* address, socklen_t length)
{
    return pass(text("bind(%d, %u)", fd, length), __real_bind, fd, address, length);
}

GENUINE(listen);
int __wrap_listen(int fd, int backlog)
{
    return pass(text("listen(%d, %d)", fd, backlog), __real_listen, fd, backlog);
}

GENUINE(accept);
int __wrap_accept(int fd, sockaddr* address, socklen_t* length)
{
    return pass(text("accept(%d)", fd), __real_accept, fd, address, length);
}

GENUINE(recv);
ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags)
{
    return pass(text("recv(%d, %zu, %d)", fd, size, flags), __real_recv, fd, buffer, size, flags);
}

GENUINE(send);
ssize_t __wrap_send(int fd, const void* data, std::size_t size, int flags)
{
    return pass(text("send(%d, %zu, %d)", fd, size, flags), __real_send, fd, data, size, flags);
}

GENUINE(g_main_context_new);
GMainContext* __wrap_g_main_context_new()
{
    return pass("g_main_context_new()", __real_g_main_context_new);
}

GENUINE(g_source_attach);
guint __wrap_g_source_attach(GSource* source, GMainContext* context)
{
    return pass("g_source_attach()", __real_g_source_attach, source, context);
}

GENUINE(g_source_unref);
void __wrap_g_source_unref(GSource* source)
{
    static_cast<void>(enter("g_source_unref()"));
    __real_g_source_unref(source);
}

GENUINE(g_io_channel_unix_new);
GIOChannel* __wrap_g_io_channel_unix_new(int fd)
{
    return pass(text("g_io_channel_unix_new(%d)", fd), __real_g_io_channel_unix_new, fd);
}

GENUINE(g_io_channel_unref);
void __wrap_g_io_channel_unref(GIOChannel* channel)
{
    static_cast<void>(enter(text("g_io_channel_unref(%d)", g_io_channel_unix_get_fd(channel))));
    __real_g_io_channel_unref(channel);
}

GENUINE(g_io_create_watch);
GSource* __wrap_g_io_create_watch(GIOChannel* channel, GIOCondition condition)
{
    return pass(text("g_io_create_watch(%d, %d)", g_io_channel_unix_get_fd(channel), condition),
                __real_g_io_create_watch, channel, condition);
}

GENUINE(g_io_channel_get_flags);
GIOFlags __wrap_g_io_channel_get_flags(GIOChannel* channel)
{
    return pass("g_io_channel_get_flags()", __real_g_io_channel_get_flags, channel);
}

GENUINE(g_io_channel_set_flags);
GIOStatus __wrap_g_io_channel_set_flags(GIOChannel* channel, GIOFlags flags, GError** error)
{
    const GIOStatus status =
        pass(text("g_io_channel_set_flags(%d)", flags), __real_g_io_channel_set_flags, channel, flags, error);
    if (lastError != 0) {
        g_set_error_literal(error, G_IO_CHANNEL_ERROR, G_IO_CHANNEL_ERROR_FAILED,
                            std::strerror(std::exchange(lastError, 0)));
    }
    return status;
}

// There is no bus in these programs: a signal that does not fail counts as sent.
gboolean __wrap_g_dbus_connection_emit_signal(GDBusConnection* /*connection*/, const gchar* /*destination*/,
                                              const gchar* /*path*/, const gchar* /*interface*/,
                                              const gchar* signal, GVariant* parameters, GError** /*error*/)
{
    gchar* arguments = g_variant_print(parameters, FALSE);
    static_cast<void>(enter(text("%s%s", signal, arguments)));
    g_free(arguments);
    return TRUE;
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
