#include "Explain/StoryLines.h"

#include <algorithm>

namespace Zonectl {

namespace {

/// A round of events: the first, and the one after the last.
struct Round
{
    const Event* begin;
    const Event* end;
    std::vector<std::string> said; ///< what is said in it, sorted
};

/// What matters of an event when it comes again: another process of the same zone is no news.
[[nodiscard]] std::string essence(const Event& event)
{
    const bool namesProcess = event.word == "init-pid" || event.cause == Cause::Watcher;
    return namesProcess ? std::string(event.word) : event.text;
}

[[nodiscard]] bool beginsRound(const Event& event)
{
    return event.word == "start-asked";
}

[[nodiscard]] std::vector<Round> roundsOf(const std::vector<Event>& events)
{
    std::vector<Round> rounds;
    for (const Event& event : events) {
        if (rounds.empty() || beginsRound(event)) {
            rounds.push_back({.begin = &event, .end = &event, .said = {}});
        }
        ++rounds.back().end;
        rounds.back().said.push_back(essence(event));
    }
    for (Round& round : rounds) {
        std::sort(round.said.begin(), round.said.end());
    }
    return rounds;
}

} // namespace

std::vector<StoryLine> linesOf(const std::vector<Event>& events)
{
    std::vector<StoryLine> lines;
    std::size_t alike = 0; // the rounds in a row so far, this one too
    const Round* before = nullptr;
    const std::vector<Round> rounds = roundsOf(events);
    for (const Round& round : rounds) {
        alike = before != nullptr && before->said == round.said ? alike + 1 : 1;
        before = &round;
        if (alike <= SHOWN_ROUNDS) {
            for (const Event* event = round.begin; event != round.end; ++event) {
                lines.push_back({.first = event, .last = event});
            }
            continue;
        }
        if (alike == SHOWN_ROUNDS + 1) {
            lines.push_back({.first = round.begin});
        }
        lines.back().last = round.end - 1;
        lines.back().rounds = alike - SHOWN_ROUNDS;
    }
    return lines;
}

} // namespace Zonectl
