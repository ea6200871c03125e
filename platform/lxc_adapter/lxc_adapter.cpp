// liblxc for zone-manager on a stock distribution: forwards to the distribution's library and answers the one
// configuration key that library does not know.

#include "platform/lxc_adapter/container_type.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <lxc/lxccontainer.h>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

constexpr char CONTAINER_TYPE_KEY[] = "lxc.container_type";

/// Tells on standard error why nothing will work; one write, so that lines of several threads do not mix.
void complain(const char* library, const char* reason)
{
    char line[1024];
    const int length =
        std::snprintf(line, sizeof(line) - 1, "liblxc adapter: cannot use %s: %s", library, reason);
    const std::size_t end = length < 0 ? 0 : std::min(static_cast<std::size_t>(length), sizeof(line) - 2);
    line[end] = '\n';
    const ssize_t ignored = write(STDERR_FILENO, line, end + 1);
    static_cast<void>(ignored);
}

/// The functions of the distribution's library; all null when it cannot be used. Opened at the first call and
/// never closed: the container handles that were handed out point into it.
struct SystemLibrary
{
    decltype(&::lxc_get_global_config_item) getGlobalConfigItem = nullptr;
    decltype(&::list_defined_containers) listDefinedContainers = nullptr;
    decltype(&::lxc_container_new) containerNew = nullptr;
    decltype(&::lxc_container_get) containerGet = nullptr;
    decltype(&::lxc_container_put) containerPut = nullptr;
    decltype(&::lxc_get_version) getVersion = nullptr;
    bool usable = false;
};

template <typename Function>
bool resolve(void* library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

SystemLibrary openSystemLibrary()
{
    const char* const wished = std::getenv("ZONE_SYSTEM_LIBLXC");
    const char* const path = wished != nullptr && *wished != '\0' ? wished : ZONE_SYSTEM_LIBLXC;
    SystemLibrary library;
    void* const handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        complain(path, dlerror());
        return library;
    }
    const bool complete = resolve(handle, "lxc_get_global_config_item", library.getGlobalConfigItem) &&
                          resolve(handle, "list_defined_containers", library.listDefinedContainers) &&
                          resolve(handle, "lxc_container_new", library.containerNew) &&
                          resolve(handle, "lxc_container_get", library.containerGet) &&
                          resolve(handle, "lxc_container_put", library.containerPut) &&
                          resolve(handle, "lxc_get_version", library.getVersion);
    if (!complete) {
        complain(path, dlerror());
        dlclose(handle);
        return {};
    }
    // A path that leads back here would make every call call itself.
    if (library.getVersion == &::lxc_get_version) {
        complain(path, "it is the adapter itself");
        dlclose(handle);
        return {};
    }
    library.usable = true;
    return library;
}

const SystemLibrary& systemLibrary()
{
    static const SystemLibrary library = openSystemLibrary();
    return library;
}

using GetConfigItem = decltype(lxc_container::get_config_item);

/// The distribution's own get_config_item: the same function in every handle.
std::atomic<GetConfigItem> systemGetConfigItem{nullptr};

int containerType(lxc_container* container)
try {
    const std::unique_ptr<char, decltype(&std::free)> path(container->config_file_name(container),
                                                           &std::free);
    return path ? LxcAdapter::readContainerType(std::string(path.get())) : LxcAdapter::NO_CONTAINER_TYPE;
} catch (const std::exception&) { // no memory left
    return LxcAdapter::NO_CONTAINER_TYPE;
}

/// Stands in each handle for the distribution's function. For the kind the result is its number, not a
/// length.
int getConfigItem(lxc_container* container, const char* key, char* value, int size)
{
    if (container != nullptr && key != nullptr && std::strcmp(key, CONTAINER_TYPE_KEY) == 0) {
        return containerType(container);
    }
    return systemGetConfigItem.load(std::memory_order_acquire)(container, key, value, size);
}

/// Makes a handle answer the kind. A handle may come by twice: the distribution's library may reach its own
/// functions by way of ours, whose names come first in the process.
lxc_container* adapt(lxc_container* container)
{
    if (container != nullptr && container->get_config_item != &getConfigItem) {
        systemGetConfigItem.store(container->get_config_item, std::memory_order_release);
        container->get_config_item = &getConfigItem;
    }
    return container;
}

} // namespace

extern "C" {

const char* lxc_get_global_config_item(const char* key)
{
    const auto& library = systemLibrary();
    return library.usable ? library.getGlobalConfigItem(key) : nullptr;
}

int list_defined_containers(const char* lxcpath, char*** names, struct lxc_container*** cret)
{
    const auto& library = systemLibrary();
    if (!library.usable) {
        return -1;
    }
    const int count = library.listDefinedContainers(lxcpath, names, cret);
    for (int index = 0; cret != nullptr && index < count; ++index) {
        adapt((*cret)[index]);
    }
    return count;
}

struct lxc_container* lxc_container_new(const char* name, const char* configpath)
{
    const auto& library = systemLibrary();
    return library.usable ? adapt(library.containerNew(name, configpath)) : nullptr;
}

int lxc_container_get(struct lxc_container* container)
{
    const auto& library = systemLibrary();
    return library.usable ? library.containerGet(container) : 0;
}

int lxc_container_put(struct lxc_container* container)
{
    const auto& library = systemLibrary();
    return library.usable ? library.containerPut(container) : -1;
}

const char* lxc_get_version(void)
{
    const auto& library = systemLibrary();
    return library.usable ? library.getVersion() : nullptr;
}
}
