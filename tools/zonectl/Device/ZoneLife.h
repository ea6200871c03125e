#pragma once

#include "Device/ControlGroups.h"
#include "Device/Machine.h"
#include "Device/ProcessTable.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace Zonectl {

/// What a container does, as its processes tell.
struct ZoneLife
{
    std::string state; ///< STOPPED, RUNNING, FREEZING or FROZEN; empty when it comes up or goes down
    pid_t initPid = 0; ///< 0 for none
};

/// What /proc and the control groups tell of containers at one moment, without asking LXC or the daemon.
class LifeTable
{
public:
    LifeTable(const Machine& looked, std::string pathOfContainers);

    [[nodiscard]] ZoneLife of(const std::string& container) const;

private:
    [[nodiscard]] pid_t initIn(const std::vector<const ControlGroup*>& payload,
                               const ProcessInfo* monitor) const;
    [[nodiscard]] std::string freezerWord(const std::vector<const ControlGroup*>& payload, pid_t init) const;

    const Machine& machine;
    std::string lxcPath;
    ProcessTable processes;
    std::vector<ControlGroup> groups;
};

} // namespace Zonectl
