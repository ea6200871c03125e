#include "Device/Containers.h"

#include "Daemon/Names.h"
#include "Daemon/ZoneWords.h"

#include <optional>

namespace Zonectl {

namespace {

constexpr int DEEPEST_INCLUDE = 8;
constexpr std::string_view KIND_KEY = "zone.container_type";
constexpr std::string_view INCLUDED_KIND = "#zone.container_type"; // no line of a file has such a key
constexpr std::string_view BLANKS = " \t\r";

[[nodiscard]] std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

/// The lines of a configuration.
struct CollectedLines
{
    std::vector<ConfigLine> lines{};
    bool complete = true; ///< but for what this user may not read
};

/// The lines of a file and, in their places, those of the files and directories that it includes.
void collectLines(const Machine& machine, const std::string& path, int depth, CollectedLines& collected)
{
    if (depth > DEEPEST_INCLUDE) {
        return; // files that include each other
    }
    collected.complete = collected.complete && !machine.closed(path);
    for (ConfigLine& line : parseConfig(machine.read(path).value_or(""))) {
        if (line.first == KIND_KEY && depth > 0) {
            line.first = INCLUDED_KIND; // counts only in the container's own file
        }
        if (line.first != "lxc.include") {
            collected.lines.push_back(std::move(line));
        } else if (machine.isDirectory(line.second)) {
            collected.complete = collected.complete && !machine.closed(line.second);
            for (const std::string& name : machine.entries(line.second)) {
                if (name.ends_with(".conf")) {
                    collectLines(machine, line.second + "/" + name, depth + 1, collected);
                }
            }
        } else {
            collectLines(machine, line.second, depth + 1, collected);
        }
    }
}

/// A root file system without the storage driver in front of it.
[[nodiscard]] std::string withoutDriver(const std::string& rootfs)
{
    constexpr std::string_view DIRECTORY_DRIVER = "dir:";
    return rootfs.starts_with(DIRECTORY_DRIVER) ? rootfs.substr(DIRECTORY_DRIVER.size()) : rootfs;
}

[[nodiscard]] bool isNetworkType(std::string_view key)
{
    return key.starts_with("lxc.net.") && key.ends_with(".type");
}

void takeLine(ContainerInfo& container, const std::string& key, const std::string& value)
{
    if (key == "lxc.start.auto") {
        container.autoStartText = value;
        container.autoStart = value == "1";
    } else if (key == "lxc.rootfs.path") {
        container.rootfsPath = withoutDriver(value);
    } else if (key == "lxc.cgroup.dir.container") {
        container.payloadCgroup = value;
    } else if (key == "lxc.cgroup.dir.monitor") {
        container.monitorCgroup = value;
    } else if (key == "lxc.cgroup.dir.monitor.pivot") {
        container.pivotCgroup = value;
    } else if (isNetworkType(key)) {
        container.sharesNetwork = value == "none";
    }
}

} // namespace

std::vector<ConfigLine> parseConfig(std::string_view text)
{
    std::vector<ConfigLine> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = trimmed(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        const std::size_t equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string_view::npos) {
            continue;
        }
        lines.emplace_back(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }
    return lines;
}

std::string configuredLxcPath(const Machine& machine)
{
    std::string path = Names::DEFAULT_LXC_PATH;
    for (const ConfigLine& line : parseConfig(machine.read("/etc/lxc/lxc.conf").value_or(""))) {
        if (line.first == "lxc.lxcpath" && !line.second.empty()) {
            path = line.second;
        }
    }
    return path;
}

bool ContainerInfo::kindIsUntold() const
{
    return kind == ZUP::ZONE_TYPE_NONE && kindFromText(kindText) != ZUP::ZONE_TYPE_NONE;
}

std::string configPath(const std::string& lxcPath, const std::string& name)
{
    return lxcPath + "/" + name + "/config";
}

ContainerInfo readContainer(const Machine& machine, const std::string& lxcPath, const std::string& name)
{
    CollectedLines collected;
    collectLines(machine, configPath(lxcPath, name), 0, collected);
    ContainerInfo container;
    container.name = name;
    container.unreadable = !collected.complete;
    std::string librarysOwnKind;
    for (const auto& [key, value] : collected.lines) {
        if (key == KIND_KEY) {
            container.kindText = value;
        } else if (key == INCLUDED_KIND) {
            container.includedKind = value;
        } else if (key == "lxc.container_type") {
            container.hasLibraryKey = true;
            librarysOwnKind = value;
        } else {
            takeLine(container, key, value);
        }
    }
    container.kind = kindFromText(container.kindText);
    // A device's own liblxc knows the key that stock liblxc does not.
    if (container.kind == ZUP::ZONE_TYPE_NONE && !librarysOwnKind.empty()) {
        container.kindText = librarysOwnKind;
        container.kind = kindFromText(librarysOwnKind);
    }
    return container;
}

std::vector<std::string> configuredNames(const Machine& machine, const std::string& lxcPath)
{
    std::vector<std::string> names;
    for (const std::string& name : machine.entries(lxcPath)) {
        if (machine.exists(configPath(lxcPath, name))) {
            names.push_back(name);
        }
    }
    return names;
}

ContainerListing listFromFiles(const Machine& machine)
{
    ContainerListing listing;
    listing.lxcPath = configuredLxcPath(machine);
    listing.pathClosed = machine.closed(listing.lxcPath);
    for (const std::string& name : machine.entries(listing.lxcPath)) {
        const std::string config = configPath(listing.lxcPath, name);
        if (!machine.exists(config) && !machine.hidden(config)) {
            continue;
        }
        ContainerInfo container = readContainer(machine, listing.lxcPath, name);
        if (container.unreadable) {
            listing.unreadable.push_back(name);
        } else {
            listing.containers.push_back(std::move(container));
        }
    }
    return listing;
}

} // namespace Zonectl
