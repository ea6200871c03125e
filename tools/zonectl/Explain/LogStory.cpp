#include "Explain/LogStory.h"

namespace Zonectl {

void LogStory::take(const LogRecord& record)
{
    const bool begins = record.function == "main" && record.message == "Start Zone Manager...";
    const auto found = current.find(record.pid);
    if (begins || found == current.end()) {
        current[record.pid] = runs.size();
        runs.emplace_back().take(record);
    } else {
        runs[found->second].take(record);
    }
}

std::size_t LogStory::chosen() const
{
    for (std::size_t index = runs.size(); index > 0; --index) {
        if (!runs[index - 1].story().lockRefused) {
            return index - 1;
        }
    }
    return runs.size() - 1;
}

std::size_t LogStory::earlierRuns() const
{
    return chosen();
}

std::size_t LogStory::refusedInstances() const
{
    return runs.size() - 1 - chosen();
}

} // namespace Zonectl
