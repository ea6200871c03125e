#include "Watch/TopTable.h"

#include "Output/Json.h"
#include "Output/Table.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace Zonectl {

namespace {

using Number = std::optional<std::int64_t>;

/// A whole number of tenths: "12.3".
[[nodiscard]] std::string tenths(std::int64_t number)
{
    constexpr std::int64_t TEN = 10;
    return std::to_string(number / TEN) + "." + std::to_string(number % TEN);
}

template <typename Text>
[[nodiscard]] Cell cellOf(const Number& number, Text text)
{
    return number ? Cell{text(*number)} : Cell{"-", Tone::Muted};
}

void write(JsonWriter& json, const char* name, const Number& number)
{
    json.name(name);
    number ? json.number(*number) : json.null();
}

} // namespace

Number ProcessorShares::next(const std::string& zone, Micros now, const std::optional<Micros>& used)
{
    const auto before = looks.find(zone);
    Number share;
    if (used && before != looks.end() && before->second.used <= *used && before->second.at < now) {
        constexpr Micros THOUSAND = 1000;
        share = (*used - before->second.used) * THOUSAND / (now - before->second.at);
    }
    if (used) {
        looks.insert_or_assign(zone, Look{now, *used});
    } else {
        looks.erase(zone);
    }
    return share;
}

std::string uptimeText(std::int64_t seconds)
{
    constexpr std::int64_t MINUTE = 60;
    constexpr std::int64_t HOUR = 60 * MINUTE;
    constexpr std::int64_t DAY = 24 * HOUR;
    std::array<char, 16> clock{};
    static_cast<void>(
        std::snprintf(clock.data(), clock.size(), "%02d:%02d:%02d", static_cast<int>(seconds % DAY / HOUR),
                      static_cast<int>(seconds % HOUR / MINUTE), static_cast<int>(seconds % MINUTE)));
    return (seconds < DAY ? "" : std::to_string(seconds / DAY) + "d ") + clock.data();
}

std::string bytesText(std::int64_t bytes)
{
    constexpr std::array UNITS = {"KiB", "MiB", "GiB"};
    constexpr std::int64_t KIBI = 1024;
    constexpr std::int64_t TEN = 10;
    std::int64_t unit = KIBI;
    std::size_t index = 0;
    while (index + 1 < UNITS.size() && bytes / unit >= KIBI) {
        unit *= KIBI;
        ++index;
    }
    return tenths(bytes / unit * TEN + bytes % unit * TEN / unit) + " " + UNITS.at(index);
}

std::string topText(const std::vector<TopRow>& rows, const Style& style)
{
    Table table({"ZONE", "STATE", "UPTIME", "CPU %", "MEMORY", "PROCESSES"});
    for (const TopRow& row : rows) {
        table.add({{row.name},
                   {row.state + (row.toldByDaemon ? "" : "*"), stateTone(row.state)},
                   cellOf(row.uptimeSeconds, uptimeText),
                   cellOf(row.permille, tenths),
                   cellOf(row.memoryBytes, bytesText),
                   cellOf(row.processes, [](std::int64_t count) { return std::to_string(count); })});
    }
    const bool assumed =
        std::any_of(rows.begin(), rows.end(), [](const TopRow& row) { return !row.toldByDaemon; });
    const char* footnote = "* as its control groups tell it: the zone manager did not\n";
    return table.render(style) + (assumed ? style.paint(Tone::Muted, footnote) : "");
}

std::string topJson(const std::vector<TopRow>& rows)
{
    JsonWriter json;
    json.beginArray();
    for (const TopRow& row : rows) {
        json.beginObject().name("name").text(row.name).name("state").text(row.state);
        json.name("state_source").text(row.toldByDaemon ? "daemon" : "control-groups");
        write(json, "uptime_seconds", row.uptimeSeconds);
        write(json, "cpu_permille", row.permille);
        write(json, "memory_bytes", row.memoryBytes);
        write(json, "processes", row.processes);
        json.endObject();
    }
    return json.endArray().finish(JsonWriter::Layout::OneLine) + "\n";
}

} // namespace Zonectl
