#pragma once

#include "Explain/Story.h"

#include <map>
#include <vector>

namespace Zonectl {

/// Sorts the records of a log by runs of the daemon, and picks the one to be told.
class LogStory
{
public:
    void take(const LogRecord& record);

    [[nodiscard]] bool empty() const { return runs.empty(); }
    [[nodiscard]] std::size_t earlierRuns() const;
    /// Instances that ended at once because another one was running, after the told run began.
    [[nodiscard]] std::size_t refusedInstances() const;
    /// The last run, but none that only found another one running.
    [[nodiscard]] const Story& told() const { return runs[chosen()].story(); }

private:
    [[nodiscard]] std::size_t chosen() const;

    std::vector<Storyteller> runs;
    std::map<int, std::size_t> current; ///< by process: its run
};

} // namespace Zonectl
