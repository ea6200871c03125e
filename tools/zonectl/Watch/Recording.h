#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Zonectl {

/// Microseconds.
using Micros = std::int64_t;

/// One thing that `watch` saw.
struct WatchEvent
{
    enum class Kind
    {
        Present, ///< the state that a zone was in when it was asked for
        State,   ///< a zone has come into a state
        Gap,     ///< nothing could be seen for a while, which ends with this event
        End,     ///< the watching ended
    };

    Kind kind = Kind::State;
    Micros at = 0;       ///< since the machine came up, the time in which it slept included
    std::string zone{};  ///< of a state
    std::string state{}; ///< its word; empty when it is not known
    std::string note{};  ///< of a state that is not the daemon's word, why; of a gap, who was away
    Micros length = 0;   ///< of a gap
};

/// What stands at the beginning of a recording.
struct RecordingHeader
{
    std::string host{};
    std::string bootId{}; ///< tells one run of the machine, and so of its clock, from others
    std::string source{}; ///< by which door the changes were seen
    Micros began = 0;     ///< on the clock of the events
    Micros wall = 0;      ///< the same moment, since 1970
};

/// A line of a recording that says nothing, and why.
struct Damage
{
    std::size_t line;
    std::string problem;
};

struct Recording
{
    RecordingHeader header;
    std::vector<WatchEvent> events; ///< in the order of their times
    std::vector<Damage> damages;
};

/// A header for a recording that begins now, on this machine.
[[nodiscard]] RecordingHeader headerOfNow(std::string source);

/// The present moment on the clock of the events.
[[nodiscard]] Micros recordingClock();

/// The lines of a recording, without a new-line at the end.
[[nodiscard]] std::string headerLine(const RecordingHeader& header);
[[nodiscard]] std::string eventLine(const WatchEvent& event);

/// Puts a recording together from its lines.
class RecordingReader
{
public:
    /// Throws Failure when the first line is no header of a recording that is understood here.
    void take(std::string_view line);
    /// The whole. Throws Failure when there was no line at all.
    [[nodiscard]] Recording finish();

private:
    void takeEvent(std::string_view line);

    Recording recording;
    std::size_t lines = 0;
    Micros last = 0;
};

/// Reads a recording from a file, or from standard input for "-". Throws Failure when that is none, or does
/// not come to its end within the limit.
[[nodiscard]] Recording readRecording(const std::string& path, std::chrono::seconds limit);

/// Tells on standard error which lines of it were skipped.
void reportDamages(const std::string& path, const Recording& recording);

} // namespace Zonectl
