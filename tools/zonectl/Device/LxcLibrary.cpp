#include "Device/LxcLibrary.h"

#include "CommandLine/Failure.h"
#include "Daemon/ZoneWords.h"
#include "Device/ProgramFile.h"
#include "Device/QuietCorner.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <dlfcn.h>
#include <lxc/lxccontainer.h>
#include <sstream>
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

/// Some milliseconds for each container would be much, unless one of them makes the library wait.
constexpr std::chrono::seconds LISTING_PATIENCE(10);

[[nodiscard]] std::string item(lxc_container& container, const char* key)
{
    std::array<char, 4096> buffer = {};
    const int length =
        container.get_config_item(&container, key, buffer.data(), static_cast<int>(buffer.size()));
    return length < 1 ? std::string() : std::string(buffer.data());
}

/// What the daemon gets to see of a container: in this order, each value with a zero byte behind it.
constexpr std::array VALUES = {"lxc.start.auto", "lxc.rootfs.path", "lxc.cgroup.dir.container",
                               "lxc.cgroup.dir.monitor", "lxc.cgroup.dir.monitor.pivot"};

[[nodiscard]] std::string asText(lxc_container& container)
{
    const int kind = container.get_config_item(&container, "lxc.container_type", nullptr, 0);
    std::string text = container.name + std::string(1, '\0') + std::to_string(kind) + '\0';
    for (const char* key : VALUES) {
        text += item(container, key) + '\0';
    }
    return text;
}

/// The containers in such texts, one behind the other.
[[nodiscard]] std::vector<ContainerInfo> fromText(const std::string& text)
{
    std::vector<ContainerInfo> containers;
    std::istringstream values(text);
    const auto next = [&values] {
        std::string value;
        std::getline(values, value, '\0');
        return value;
    };
    for (std::string name = next(); values; name = next()) {
        ContainerInfo info;
        info.name = std::move(name);
        info.kind = kindFromText(next());
        info.autoStart = next() == "1";
        info.rootfsPath = next();
        info.payloadCgroup = next();
        info.monitorCgroup = next();
        info.pivotCgroup = next();
        containers.push_back(std::move(info));
    }
    return containers;
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

ContainerListing LxcLibrary::list(const Machine& machine) const
{
    ContainerListing listing;
    const char* path = function<GetGlobalItem>("lxc_get_global_config_item")("lxc.lxcpath");
    if (path == nullptr) {
        return listing;
    }
    listing.lxcPath = path;
    const auto described = lookQuietly([&] { return describeAll(listing.lxcPath); }, LISTING_PATIENCE);
    if (!described) {
        throw Failure(EXIT_FAILED, "liblxc does not get through the containers below " + listing.lxcPath +
                                       " (is each one's 'config' a file?)");
    }
    listing.containers = fromText(*described);
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

std::string LxcLibrary::describeAll(const std::string& lxcPath) const
{
    std::string text;
    lxc_container** containers = nullptr;
    const int count =
        function<ListContainers>("list_defined_containers")(lxcPath.c_str(), nullptr, &containers);
    for (int i = 0; i < count; ++i) {
        text += asText(*containers[i]);
        function<PutContainer>("lxc_container_put")(containers[i]);
    }
    if (count > 0) {
        std::free(containers);
    }
    return text;
}

bool LxcLibrary::askState(const std::string& name, const std::function<void()>& beforeAsking) const
{
    const char* path = function<GetGlobalItem>("lxc_get_global_config_item")("lxc.lxcpath");
    // The daemon does without this function; a device's own library might, too.
    const auto open = function<NewContainer>("lxc_container_new");
    if (path == nullptr || open == nullptr || !isDefined(path, name)) {
        return false;
    }
    lxc_container* container = open(name.c_str(), path);
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
