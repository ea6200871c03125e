#include "Device/ZoneLife.h"

#include <utility>

namespace Zonectl {

namespace {

/// Whoever has lost its parent is this one's child.
constexpr pid_t ADOPTIVE_PARENT = 1;

} // namespace

LifeTable::LifeTable(const Machine& looked, std::string pathOfContainers)
    : machine(looked), lxcPath(std::move(pathOfContainers)), processes(looked),
      groups(lxcControlGroups(looked))
{}

ZoneLife LifeTable::of(const std::string& container) const
{
    std::vector<const ControlGroup*> payload;
    for (const ControlGroup& group : groups) {
        if (group.payload && (group.tail == container || withoutCopyNumber(group.tail) == container)) {
            payload.push_back(&group);
        }
    }
    const ProcessInfo* monitor = processes.monitorOf(lxcPath, container);
    if (const pid_t init = initIn(payload, monitor); init > 0) {
        return {.state = freezerWord(payload, init), .initPid = init};
    }
    return {.state = monitor == nullptr ? "STOPPED" : ""};
}

/// The monitor's child. A monitor in the foreground has no title; its child has a parent that is not the
/// machine's first process, as one whose monitor has died.
pid_t LifeTable::initIn(const std::vector<const ControlGroup*>& payload, const ProcessInfo* monitor) const
{
    for (const ControlGroup* group : payload) {
        for (const pid_t pid : group->pids) {
            const ProcessInfo* process = processes.find(pid);
            if (process == nullptr || process->dead() || !process->namespaceInit) {
                continue;
            }
            if (monitor != nullptr ? process->parent == monitor->pid : process->parent > ADOPTIVE_PARENT) {
                return pid;
            }
        }
    }
    return 0;
}

std::string LifeTable::freezerWord(const std::vector<const ControlGroup*>& payload, pid_t init) const
{
    std::string word = "RUNNING";
    for (const ControlGroup* group : payload) {
        const auto progress =
            group->holds(init) ? freezerState(machine, group->path).progress : FreezerState::Progress::Thawed;
        if (progress == FreezerState::Progress::Frozen) {
            return "FROZEN";
        }
        if (progress == FreezerState::Progress::Freezing) {
            word = "FREEZING";
        }
    }
    return word;
}

} // namespace Zonectl
