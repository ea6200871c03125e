#include "Watch/Recording.h"

#include "CommandLine/Failure.h"
#include "Device/Machine.h"
#include "Explain/LogSource.h"
#include "Output/Json.h"
#include "Output/Output.h"
#include "Watch/JsonReader.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <glib.h>
#include <iostream>
#include <optional>
#include <utility>

namespace Zonectl {

namespace {

constexpr const char* FORMAT = "zonectl-recording";
constexpr int VERSION = 1;
constexpr const char* CLOCK = "boottime";
constexpr std::size_t LONGEST_LINE = 4096;
constexpr Micros MICROS_IN_SECOND = 1000000;
/// No machine is older; so no sum or difference of two times overflows.
constexpr Micros LATEST = std::int64_t{1} << 60U;

constexpr std::array KIND_WORDS = {
    std::pair{WatchEvent::Kind::Present, "present"},
    std::pair{WatchEvent::Kind::State, "state"},
    std::pair{WatchEvent::Kind::Gap, "gap"},
    std::pair{WatchEvent::Kind::End, "end"},
};

[[nodiscard]] const char* wordOf(WatchEvent::Kind kind)
{
    return std::find_if(KIND_WORDS.begin(), KIND_WORDS.end(),
                        [kind](const auto& word) { return word.first == kind; })
        ->second;
}

[[nodiscard]] std::optional<WatchEvent::Kind> kindOf(const std::string& word)
{
    for (const auto& [kind, text] : KIND_WORDS) {
        if (word == text) {
            return kind;
        }
    }
    return std::nullopt;
}

[[nodiscard]] Micros microsOf(clockid_t clock)
{
    timespec now = {};
    static_cast<void>(clock_gettime(clock, &now));
    constexpr Micros NANOS_IN_MICRO = 1000;
    return Micros{now.tv_sec} * MICROS_IN_SECOND + now.tv_nsec / NANOS_IN_MICRO;
}

[[nodiscard]] bool isTime(const std::optional<Micros>& time)
{
    return time && *time >= 0 && *time <= LATEST;
}

[[nodiscard]] std::optional<RecordingHeader> readHeader(std::string_view line)
{
    const auto json = line.size() <= LONGEST_LINE ? JsonReader::parse(line) : std::nullopt;
    if (!json || json->text("format") != FORMAT || !isTime(json->number("at")) ||
        !isTime(json->number("wall_microseconds"))) {
        return std::nullopt;
    }
    if (json->number("version") != VERSION || json->text("clock") != CLOCK) {
        throw Failure(EXIT_FAILED, "the recording is of another version than this program reads");
    }
    return RecordingHeader{.host = json->text("host").value_or(""),
                           .bootId = json->text("boot_id").value_or(""),
                           .source = json->text("source").value_or(""),
                           .began = *json->number("at"),
                           .wall = *json->number("wall_microseconds")};
}

/// What an event of its kind must have.
[[nodiscard]] bool complete(const JsonReader& json, WatchEvent::Kind kind)
{
    switch (kind) {
    case WatchEvent::Kind::Present:
        return !json.text("name").value_or("").empty();
    case WatchEvent::Kind::State:
        return !json.text("name").value_or("").empty() && !json.text("state").value_or("").empty();
    case WatchEvent::Kind::Gap:
        return isTime(json.number("microseconds"));
    case WatchEvent::Kind::End:
        break;
    }
    return true;
}

[[nodiscard]] std::optional<WatchEvent> readEvent(std::string_view line)
{
    const auto json = line.size() <= LONGEST_LINE ? JsonReader::parse(line) : std::nullopt;
    const auto kind = json ? kindOf(json->text("event").value_or("")) : std::nullopt;
    if (!kind || !isTime(json->number("at")) || !complete(*json, *kind)) {
        return std::nullopt;
    }
    return WatchEvent{.kind = *kind,
                      .at = *json->number("at"),
                      .zone = json->text("name").value_or(""),
                      .state = json->text("state").value_or(""),
                      .note = json->text("note").value_or(""),
                      .length = json->number("microseconds").value_or(0)};
}

[[nodiscard]] std::string nameOf(const std::string& path)
{
    return path == "-" ? "standard input" : path;
}

} // namespace

Micros recordingClock()
{
    return microsOf(CLOCK_BOOTTIME);
}

RecordingHeader headerOfNow(std::string source)
{
    std::string bootId = Machine("").read("/proc/sys/kernel/random/boot_id").value_or("");
    bootId.erase(std::find(bootId.begin(), bootId.end(), '\n'), bootId.end());
    return {.host = g_get_host_name(),
            .bootId = std::move(bootId),
            .source = std::move(source),
            .began = recordingClock(),
            .wall = microsOf(CLOCK_REALTIME)};
}

std::string headerLine(const RecordingHeader& header)
{
    JsonWriter json;
    json.beginObject().name("format").text(FORMAT).name("version").number(VERSION);
    json.name("clock").text(CLOCK).name("at").number(header.began);
    json.name("wall_microseconds").number(header.wall).name("host").text(header.host);
    json.name("boot_id").text(header.bootId).name("source").text(header.source);
    return json.endObject().finish(JsonWriter::Layout::OneLine);
}

std::string eventLine(const WatchEvent& event)
{
    JsonWriter json;
    json.beginObject().name("event").text(wordOf(event.kind)).name("at").number(event.at);
    if (!event.zone.empty()) {
        json.name("name").text(event.zone).name("state");
        event.state.empty() ? json.null() : json.text(event.state);
    }
    if (!event.note.empty()) {
        json.name("note").text(event.note);
    }
    if (event.kind == WatchEvent::Kind::Gap) {
        json.name("microseconds").number(event.length);
    }
    return json.endObject().finish(JsonWriter::Layout::OneLine);
}

void RecordingReader::take(std::string_view line)
{
    ++lines;
    if (lines > 1) {
        takeEvent(line);
    } else if (auto header = readHeader(line)) {
        recording.header = std::move(*header);
        last = recording.header.began;
    } else {
        throw Failure(EXIT_FAILED, "no recording: its first line is no header of one");
    }
}

void RecordingReader::takeEvent(std::string_view line)
{
    auto event = readEvent(line);
    if (!event) {
        recording.damages.push_back({lines, "damaged or cut"});
    } else if (event->at < last) {
        recording.damages.push_back({lines, "its time lies before that of the line before it"});
    } else {
        last = event->at;
        recording.events.push_back(std::move(*event));
    }
}

Recording RecordingReader::finish()
{
    if (lines == 0) {
        throw Failure(EXIT_FAILED, "no recording: it is empty");
    }
    return std::move(recording);
}

Recording readRecording(const std::string& path, std::chrono::seconds limit)
{
    RecordingReader reader;
    try {
        readLogFile(path, limit, [&reader](std::string_view line) { reader.take(line); });
        return reader.finish();
    } catch (const Failure& failure) {
        const std::string reason = failure.what();
        const bool named = reason.starts_with(path + ": ");
        throw Failure(failure.status(), named ? reason : nameOf(path) + ": " + reason);
    }
}

void reportDamages(const std::string& path, const Recording& recording)
{
    for (const Damage& damage : recording.damages) {
        std::cerr << "zonectl: " << printable(nameOf(path)) << ": line " << damage.line
                  << " is skipped: " << damage.problem << "\n";
    }
}

} // namespace Zonectl
