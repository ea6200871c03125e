#include "Watch/Timeline.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

namespace Zonectl {

namespace {

/// One zone's intervals while its events come in.
class ZoneStory
{
public:
    void present(const WatchEvent& event)
    {
        if (!event.state.empty() && (!open || open->state != event.state)) {
            close(event.at, false);
            open = Interval{.state = event.state, .from = event.at};
        }
    }

    void change(const WatchEvent& event)
    {
        if (!open || open->state != event.state) {
            close(event.at, true);
            open = Interval{.state = event.state, .from = event.at, .beginSeen = true};
        }
    }

    /// Ends the state that lasts, if any: because it was left, or because nobody looks any more.
    void close(Micros at, bool left)
    {
        if (open) {
            open->to = std::max(at, open->from);
            open->endSeen = left;
            intervals.push_back(std::move(*open));
            open.reset();
        }
    }

    [[nodiscard]] std::vector<Interval> take() { return std::move(intervals); }

private:
    std::optional<Interval> open;
    std::vector<Interval> intervals;
};

class TimelineBuilder
{
public:
    explicit TimelineBuilder(const Recording& recording)
    {
        line.begin = recording.header.began;
        line.end = line.begin;
        for (const WatchEvent& event : recording.events) {
            take(event);
        }
    }

    [[nodiscard]] Timeline finish()
    {
        closeAll(line.end);
        for (auto& [zone, story] : stories) {
            line.zones.push_back({zone, story.take()});
        }
        return std::move(line);
    }

private:
    void take(const WatchEvent& event)
    {
        line.end = event.at;
        switch (event.kind) {
        case WatchEvent::Kind::Present:
            stories[event.zone].present(event);
            break;
        case WatchEvent::Kind::State:
            stories[event.zone].change(event);
            break;
        case WatchEvent::Kind::Gap:
            takeGap(event);
            break;
        case WatchEvent::Kind::End:
            break;
        }
    }

    void takeGap(const WatchEvent& event)
    {
        const Micros from = std::max(line.begin, event.at - event.length);
        closeAll(from);
        line.gaps.push_back({from, event.at, event.note});
    }

    void closeAll(Micros at)
    {
        for (auto& [zone, story] : stories) {
            story.close(at, false);
        }
    }

    Timeline line;
    std::map<std::string, ZoneStory> stories;
};

} // namespace

Timeline timelineOf(const Recording& recording)
{
    return TimelineBuilder(recording).finish();
}

} // namespace Zonectl
