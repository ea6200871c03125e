#include "Device/LxcLibrary.h"

#include "Daemon/ZoneWords.h"
#include "Device/ProgramFile.h"
#include "Device/QuietCorner.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <dlfcn.h>
#include <lxc/lxccontainer.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Zonectl {

namespace {

using GetGlobalItem = const char* (*)(const char* key);
using ListContainers = int (*)(const char* lxcPath, char*** names, lxc_container*** containers);
using NewContainer = lxc_container* (*)(const char* name, const char* lxcPath);
using PutContainer = int (*)(lxc_container* container);
using MonitorFifoName = int (*)(const char* lxcPath, char* buffer, std::size_t size, int makeDirectories);
using MonitorSocketName = int (*)(const char* lxcPath, sockaddr_un* address);
using StateToText = const char* (*)(int state);

/// The functions that the daemon links and those that it loads by name.
constexpr std::array NEEDED = {
    "lxc_get_global_config_item", "list_defined_containers", "lxc_container_get",      "lxc_container_put",
    "lxc_monitor_fifo_name",      "lxc_monitor_sock_name",   "lxc_abstract_unix_open", "lxc_state2str",
};

constexpr int RUNNING_ON_THE_WIRE = 2;

[[nodiscard]] std::string item(lxc_container& container, const char* key)
{
    std::array<char, 4096> buffer = {};
    const int length =
        container.get_config_item(&container, key, buffer.data(), static_cast<int>(buffer.size()));
    return length < 1 ? std::string() : std::string(buffer.data());
}

/// What only the file tells: how something is worded there.
void addWording(ContainerInfo& info, ContainerInfo&& file)
{
    info.kindText = std::move(file.kindText);
    info.includedKind = std::move(file.includedKind);
    info.autoStartText = std::move(file.autoStartText);
    info.sharesNetwork = file.sharesNetwork;
}

} // namespace

LxcLibrary::LxcLibrary(const std::string& path)
{
    if (isCutShort(Machine(""), path)) {
        loadError = path + " is cut short";
        return;
    }
    handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = dlerror();
        loadError = reason != nullptr ? reason : "unknown error";
        return;
    }
    for (const char* name : NEEDED) {
        if (dlsym(handle, name) == nullptr) {
            missingFunctions.emplace_back(name);
        }
    }
}

LxcLibrary::~LxcLibrary()
{
    if (handle != nullptr) {
        dlclose(handle);
    }
}

template <typename Function>
Function LxcLibrary::function(const char* name) const
{
    return reinterpret_cast<Function>(dlsym(handle, name));
}

std::string LxcLibrary::tryMonitorFunctions(const std::string& lxcPath) const
{
    std::array<char, 4096> fifo = {};
    if (function<MonitorFifoName>("lxc_monitor_fifo_name")(lxcPath.c_str(), fifo.data(), fifo.size(), 0) <
        0) {
        return "lxc_monitor_fifo_name fails";
    }
    sockaddr_un address = {};
    if (function<MonitorSocketName>("lxc_monitor_sock_name")(lxcPath.c_str(), &address) < 0) {
        return "lxc_monitor_sock_name fails";
    }
    const char* word = function<StateToText>("lxc_state2str")(RUNNING_ON_THE_WIRE);
    if (word == nullptr || std::string_view(word) != "RUNNING") {
        return "lxc_state2str does not know RUNNING";
    }
    return {};
}

ContainerInfo LxcLibrary::describe(lxc_container& container)
{
    ContainerInfo info;
    info.name = container.name;
    info.kind = kindFromNumber(container.get_config_item(&container, "lxc.container_type", nullptr, 0));
    info.autoStart = item(container, "lxc.start.auto") == "1";
    info.rootfsPath = item(container, "lxc.rootfs.path");
    info.payloadCgroup = item(container, "lxc.cgroup.dir.container");
    info.monitorCgroup = item(container, "lxc.cgroup.dir.monitor");
    info.pivotCgroup = item(container, "lxc.cgroup.dir.monitor.pivot");
    return info;
}

ContainerListing LxcLibrary::list(const Machine& machine) const
{
    ContainerListing listing;
    const char* path = function<GetGlobalItem>("lxc_get_global_config_item")("lxc.lxcpath");
    if (path == nullptr) {
        return listing;
    }
    listing.lxcPath = path;
    addContainers(listing);
    for (ContainerInfo& info : listing.containers) {
        addWording(info, readContainer(machine, listing.lxcPath, info.name));
    }
    for (const std::string& name : configuredNames(machine, listing.lxcPath)) {
        const bool listed = std::any_of(listing.containers.begin(), listing.containers.end(),
                                        [&name](const ContainerInfo& info) { return info.name == name; });
        if (!listed) {
            listing.unloadable.push_back(name);
        }
    }
    return listing;
}

void LxcLibrary::addContainers(ContainerListing& listing) const
{
    const QuietCorner corner;
    lxc_container** containers = nullptr;
    const int count =
        function<ListContainers>("list_defined_containers")(listing.lxcPath.c_str(), nullptr, &containers);
    for (int i = 0; i < count; ++i) {
        listing.containers.push_back(describe(*containers[i]));
        function<PutContainer>("lxc_container_put")(containers[i]);
    }
    if (count > 0) {
        std::free(containers);
    }
}

bool LxcLibrary::askState(const std::string& name, const std::function<void()>& beforeAsking) const
{
    const char* path = function<GetGlobalItem>("lxc_get_global_config_item")("lxc.lxcpath");
    // The daemon does without this function; a device's own library might, too.
    const auto open = function<NewContainer>("lxc_container_new");
    if (path == nullptr || open == nullptr || !isDefined(path, name)) {
        return false;
    }
    lxc_container* container = nullptr;
    {
        // To open a container is to wait for its lock. The daemon has done so long ago, and the question
        // itself takes none; so it is opened where nobody holds its lock.
        const QuietCorner corner;
        container = open(name.c_str(), path);
    }
    if (container == nullptr) {
        return false;
    }
    beforeAsking();
    const bool asked = container->state(container) != nullptr;
    function<PutContainer>("lxc_container_put")(container);
    return asked;
}

bool LxcLibrary::isDefined(const char* lxcPath, const std::string& name) const
{
    char** names = nullptr;
    const int count = function<ListContainers>("list_defined_containers")(lxcPath, &names, nullptr);
    bool found = false;
    for (int i = 0; i < count; ++i) {
        found = found || name == names[i];
        std::free(names[i]);
    }
    if (count > 0) {
        std::free(names);
    }
    return found;
}

} // namespace Zonectl
