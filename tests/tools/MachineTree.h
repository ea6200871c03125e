#pragma once

#include "TemporaryTree.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

/// A process as /proc shows it.
struct TreeProcess
{
    pid_t pid = 0;
    pid_t parent = 1;
    char state = 'S';
    bool namespaceInit = false;
    std::string rootOf{}; ///< the container in whose root file system it lives; empty for the machine's
    std::string title{"program"};
    std::uint64_t startTicks = 500000;
};

/// A tree with containers, processes and control groups of both versions: "cpu" and "freezer" are of version
/// 1, "unified" of version 2.
class MachineTree : public TemporaryTree
{
public:
    static constexpr std::uint64_t START_TICKS = 500000;
    static constexpr std::int64_t BOOT_TIME = 1700000000;

    MachineTree()
    {
        write("/proc/self/mounts", "tmpfs /sys/fs/cgroup tmpfs rw 0 0\n"
                                   "cgroup /sys/fs/cgroup/cpu cgroup rw,cpu 0 0\n"
                                   "cgroup /sys/fs/cgroup/freezer cgroup rw,freezer 0 0\n"
                                   "cgroup2 /sys/fs/cgroup/unified cgroup2 rw 0 0\n");
        write("/proc/stat", "cpu 1 2 3\nbtime " + std::to_string(BOOT_TIME) + "\n");
        write("/proc/locks", "");
    }

    void addContainer(const std::string& name) const
    {
        makeDirectory(rootfsOf(name));
        write("/var/lib/lxc/" + name + "/config", "lxc.rootfs.path = dir:" + rootfsOf(name) + "\n");
    }

    void addProcess(const TreeProcess& process) const
    {
        const std::string pid = std::to_string(process.pid);
        const std::string place = "/proc/" + pid;
        write(place + "/stat", pid + " (a) name (x) " + process.state + " " + std::to_string(process.parent) +
                                   " 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 " +
                                   std::to_string(process.startTicks) + " 23 24\n");
        write(place + "/status", "Name:\ta\nNSpid:\t" + pid + (process.namespaceInit ? "\t1\n" : "\n"));
        write(place + "/cmdline", process.title + std::string(1, '\0'));
        std::filesystem::create_directory_symlink(process.rootOf.empty() ? "/" : rootfsOf(process.rootOf),
                                                  root() + place + "/root");
    }

    /// Makes a control group with the processes in it, and those above it, as far as they are missing,
    /// without.
    void addGroup(const std::string& hierarchy, const std::string& name, const std::vector<pid_t>& pids) const
    {
        const std::string top = "/sys/fs/cgroup/" + hierarchy + "/";
        for (std::size_t end = name.find('/'); end != std::string::npos; end = name.find('/', end + 1)) {
            if (const std::string list = top + name.substr(0, end) + "/cgroup.procs";
                !std::filesystem::exists(root() + list)) {
                write(list, "");
            }
        }
        std::string lines;
        for (const pid_t pid : pids) {
            lines += std::to_string(pid) + "\n";
        }
        write(top + name + "/cgroup.procs", lines);
    }

private:
    [[nodiscard]] static std::string rootfsOf(const std::string& name)
    {
        return "/var/lib/lxc/" + name + "/rootfs";
    }
};
