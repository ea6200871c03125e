// A liblxc of the tests' own: all that the daemon uses of it, answered from the control directory
// (ControlDirectory.h).
//
// Control files; one that is missing means the answer in brackets:
//   lxcpath                  global item "lxc.lxcpath" [null]
//   version                  lxc_get_version [4.0.12]
//   order                    names in listing order, one a line [byte-wise]
//   list_fails               list_defined_containers gives -1
//   count_override           the number it gives instead of the true one
//   fifo_name, sock_name     path and abstract name instead of liblxc's own
//   fifo_name_fails, sock_name_fails, unix_open_fails
//   state2str/N              another word for state number N; an empty file makes it a null pointer
//   delays/FUNCTION          milliseconds that a call of FUNCTION takes [0]
//   containers/NAME/type           result of querying "lxc.container_type" [-1]
//   containers/NAME/auto           value of "lxc.start.auto" [no such item]
//   containers/NAME/auto_read      another value for the query that hands over a buffer [the same]
//   containers/NAME/rootfs         value of "lxc.rootfs.path" [no such item]
//   containers/NAME/state          state word [STOPPED]
//   containers/NAME/state_null     the state is a null pointer
//   containers/NAME/running        1 or 0 [1 unless the state is STOPPED]
//   containers/NAME/init_pid       [-1]
//   containers/NAME/may_control    1 or 0 [1]
//   containers/NAME/numthreads     set in each new handle [1]
//   containers/NAME/new_fails, get_fails, freeze_fails, unfreeze_fails
// A freeze or unfreeze that works writes the state FROZEN or RUNNING.
//
// Each call appends a line to `calls`: "FUNCTION CONTAINER REFERENCES DETAIL", with "-" for what a call does
// not have. REFERENCES is the count after the call.

#include "tests/support/fake_liblxc/ControlDirectory.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <lxc/lxccontainer.h>
#include <mutex>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using FakeLxc::ControlDirectory;

namespace {

constexpr std::array<const char*, 8> stateWords = {"STOPPED",  "STARTING", "RUNNING", "STOPPING",
                                                   "ABORTING", "FREEZING", "FROZEN",  "THAWED"};
constexpr int listenBacklog = 100;
constexpr std::size_t longestSocketName = 105;

/// What a handle points at; the caller sees the base only.
struct Handle : lxc_container
{
    std::atomic<int> references{1};
};

Handle* handleOf(lxc_container* container)
{
    return static_cast<Handle*>(container);
}

/// liblxc hands out texts that nobody frees: each distinct one is kept for the life of the process.
const char* keep(const std::string& text)
{
    static std::mutex mutex;
    static std::set<std::string> kept;
    const std::lock_guard lock(mutex);
    return kept.insert(text).first->c_str();
}

void record(const char* function, const std::string& container, int references, const std::string& detail)
{
    const ControlDirectory control;
    const std::string count = references < 0 ? "-" : std::to_string(references);
    // A test that did not make the control directory gets no log of calls.
    static_cast<void>(control.append("calls", std::string(function) + " " +
                                                  (container.empty() ? "-" : container) + " " + count + " " +
                                                  (detail.empty() ? "-" : detail)));
    const int delay = control.number(std::string("delays/") + function, 0);
    if (delay > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    }
}

void record(const char* function, lxc_container* container, const std::string& detail = {})
{
    record(function, container->name, handleOf(container)->references.load(), detail);
}

std::string fileOf(const lxc_container* container, const char* file)
{
    return std::string("containers/") + container->name + "/" + file;
}

/// liblxc's rule for values: the length, and as much as fits in a buffer when one is given.
int answer(const std::optional<std::string>& value, char* buffer, int size)
{
    if (!value) {
        return -1;
    }
    if (buffer != nullptr && size > 0) {
        static_cast<void>(std::snprintf(buffer, static_cast<std::size_t>(size), "%s", value->c_str()));
    }
    return static_cast<int>(value->size());
}

int getConfigItem(lxc_container* container, const char* key, char* buffer, int size)
{
    const ControlDirectory control;
    const std::string item = key;
    record("get_config_item", container, item);
    if (item == "lxc.container_type") {
        return control.number(fileOf(container, "type"), -1);
    }
    if (item == "lxc.rootfs.path") {
        return answer(control.text(fileOf(container, "rootfs")), buffer, size);
    }
    if (item == "lxc.start.auto") {
        const bool other = buffer != nullptr && control.has(fileOf(container, "auto_read"));
        return answer(control.text(fileOf(container, other ? "auto_read" : "auto")), buffer, size);
    }
    return -1;
}

std::string stateOf(const lxc_container* container)
{
    return ControlDirectory().text(fileOf(container, "state")).value_or(stateWords.front());
}

const char* state(lxc_container* container)
{
    record("state", container);
    return ControlDirectory().has(fileOf(container, "state_null")) ? nullptr : keep(stateOf(container));
}

bool isRunning(lxc_container* container)
{
    record("is_running", container);
    const int otherwise = stateOf(container) != stateWords.front() ? 1 : 0;
    return ControlDirectory().number(fileOf(container, "running"), otherwise) != 0;
}

bool freeze(lxc_container* container)
{
    record("freeze", container);
    const ControlDirectory control;
    return !control.has(fileOf(container, "freeze_fails")) &&
           control.write(fileOf(container, "state"), "FROZEN");
}

bool unfreeze(lxc_container* container)
{
    record("unfreeze", container);
    const ControlDirectory control;
    return !control.has(fileOf(container, "unfreeze_fails")) &&
           control.write(fileOf(container, "state"), "RUNNING");
}

pid_t initPid(lxc_container* container)
{
    record("init_pid", container);
    return ControlDirectory().number(fileOf(container, "init_pid"), -1);
}

bool mayControl(lxc_container* container)
{
    record("may_control", container);
    return ControlDirectory().number(fileOf(container, "may_control"), 1) != 0;
}

/// The containers in listing order: the names of `order` that are defined, or all of them.
std::vector<std::string> definedNames(const ControlDirectory& control)
{
    const auto order = control.text("order");
    if (!order) {
        return control.entries("containers");
    }
    std::vector<std::string> names;
    std::istringstream lines(*order);
    for (std::string name; std::getline(lines, name);) {
        if (control.has("containers/" + name)) {
            names.push_back(name);
        }
    }
    return names;
}

/// An array as liblxc returns it: from malloc, for the caller to free.
template <typename T>
T* newArray(std::size_t count)
{
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer, and its size is what is meant.
    auto* array = static_cast<T*>(std::malloc(count * sizeof(T)));
    if (array == nullptr) {
        throw std::bad_alloc();
    }
    return array;
}

/// 64-bit FNV-1a.
std::uint64_t hashOf(const std::string& text)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char byte : text) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
    }
    return hash;
}

/// Makes a directory and those above it, with mode 0755.
bool makeDirectories(const std::string& path)
{
    for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
        if (slash == std::string::npos) {
            return true;
        }
    }
}

} // namespace

extern "C" {

const char* lxc_get_version(void)
{
    record("lxc_get_version", "", -1, "");
    return keep(ControlDirectory().text("version").value_or("4.0.12"));
}

const char* lxc_get_global_config_item(const char* key)
{
    record("lxc_get_global_config_item", "", -1, key);
    const auto path = std::string(key) == "lxc.lxcpath" ? ControlDirectory().text("lxcpath") : std::nullopt;
    return path ? keep(*path) : nullptr;
}

lxc_container* lxc_container_new(const char* name, const char* configpath)
{
    const ControlDirectory control;
    if (control.has(std::string("containers/") + name + "/new_fails")) {
        record("lxc_container_new", name, -1, "failed");
        return nullptr;
    }
    auto* handle = new Handle();
    handle->name = strdup(name);
    handle->config_path = strdup(configpath != nullptr ? configpath : "");
    handle->numthreads = control.number(fileOf(handle, "numthreads"), 1);
    handle->get_config_item = getConfigItem;
    handle->state = state;
    handle->is_running = isRunning;
    handle->freeze = freeze;
    handle->unfreeze = unfreeze;
    handle->init_pid = initPid;
    handle->may_control = mayControl;
    record("lxc_container_new", handle, handle->config_path);
    return handle;
}

int lxc_container_get(lxc_container* container)
{
    if (container == nullptr) {
        return 0;
    }
    if (ControlDirectory().has(fileOf(container, "get_fails"))) {
        record("lxc_container_get", container, "failed");
        return 0;
    }
    const int count = ++handleOf(container)->references;
    record("lxc_container_get", container->name, count, "");
    return 1;
}

int lxc_container_put(lxc_container* container)
{
    if (container == nullptr) {
        return -1;
    }
    const std::string name = container->name;
    const int count = --handleOf(container)->references;
    if (count == 0) {
        std::free(container->name);
        std::free(container->config_path);
        delete handleOf(container);
    }
    record("lxc_container_put", name, count, "");
    return count == 0 ? 1 : 0;
}

int list_defined_containers(const char* lxcpath, char*** names, lxc_container*** containers)
{
    const ControlDirectory control;
    record("list_defined_containers", "", -1, lxcpath != nullptr ? lxcpath : "");
    if (control.has("list_fails")) {
        return -1;
    }
    const auto defined = definedNames(control);
    if (names != nullptr) {
        *names = defined.empty() ? nullptr : newArray<char*>(defined.size());
        for (std::size_t index = 0; index < defined.size(); ++index) {
            (*names)[index] = strdup(defined[index].c_str());
        }
    }
    if (containers != nullptr) {
        *containers = defined.empty() ? nullptr : newArray<lxc_container*>(defined.size());
        for (std::size_t index = 0; index < defined.size(); ++index) {
            (*containers)[index] = lxc_container_new(defined[index].c_str(), lxcpath);
        }
    }
    return control.number("count_override", static_cast<int>(defined.size()));
}

int lxc_monitor_fifo_name(const char* lxcpath, char* buffer, std::size_t size, int makeParents)
{
    const ControlDirectory control;
    record("lxc_monitor_fifo_name", "", -1, lxcpath);
    if (control.has("fifo_name_fails")) {
        return -1;
    }
    const std::string path = FakeLxc::fifoPath(control, lxcpath);
    if (makeParents != 0 && !makeDirectories(path.substr(0, path.rfind('/')))) {
        return -1;
    }
    const int length = std::snprintf(buffer, size, "%s", path.c_str());
    return length < 0 || static_cast<std::size_t>(length) >= size ? -1 : 0;
}

int lxc_monitor_sock_name(const char* lxcpath, sockaddr_un* address)
{
    const ControlDirectory control;
    record("lxc_monitor_sock_name", "", -1, lxcpath);
    if (control.has("sock_name_fails")) {
        return -1;
    }
    const std::string path = lxcpath;
    std::array<char, 24> prefix{};
    static_cast<void>(
        std::snprintf(prefix.data(), prefix.size(), "lxc/%016llx/",
                      static_cast<unsigned long long>(hashOf("lxc/" + path + "/monitor-sock"))));
    std::string name = control.text("sock_name").value_or(prefix.data() + path);
    name.resize(std::min(name.size(), longestSocketName));
    *address = {};
    address->sun_family = AF_UNIX;
    name.copy(address->sun_path + 1, name.size());
    return 0;
}

int lxc_abstract_unix_open(const char* path, int type, int flags)
{
    record("lxc_abstract_unix_open", "", -1, std::to_string(type) + "," + std::to_string(flags));
    if (ControlDirectory().has("unix_open_fails")) {
        errno = EADDRINUSE;
        return -1;
    }
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // The leading zero byte of an abstract name hides the rest from strlen.
    const std::size_t length = strnlen(path + 1, sizeof(address.sun_path) - 1);
    std::memcpy(address.sun_path + 1, path + 1, length);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        (type == SOCK_STREAM && listen(fd, listenBacklog) != 0)) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

#ifndef FAKE_LXC_INCOMPLETE
const char* lxc_state2str(int number)
{
    record("lxc_state2str", "", -1, std::to_string(number));
    const auto word = ControlDirectory().text("state2str/" + std::to_string(number));
    if (word) {
        return word->empty() ? nullptr : keep(*word);
    }
    return number >= 0 && number < static_cast<int>(stateWords.size())
               ? stateWords[static_cast<std::size_t>(number)]
               : nullptr;
}
#endif

} // extern "C"
