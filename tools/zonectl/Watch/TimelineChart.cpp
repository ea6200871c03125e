#include "Watch/TimelineChart.h"

#include "Explain/StoryTime.h"
#include "Output/Terminal.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace Zonectl {

namespace {

constexpr char SEVERAL = '|';
constexpr char BLIND = ':';
constexpr char NOTHING = ' ';
constexpr char OTHER = '?';
constexpr std::size_t FEWEST_COLUMNS = 20;
constexpr std::size_t GAP = 2;

struct Letter
{
    char letter;
    std::string_view state;
};

constexpr std::array LETTERS = {
    Letter{'.', "STOPPED"},  Letter{'s', "STARTING"}, Letter{'=', "RUNNING"},
    Letter{'x', "STOPPING"}, Letter{'!', "ABORTING"}, Letter{'f', "FREEZING"},
    Letter{'*', "FROZEN"},   Letter{'t', "THAWED"},   Letter{'0', "NONE"},
};

[[nodiscard]] char letterOf(std::string_view state)
{
    for (const Letter& letter : LETTERS) {
        if (letter.state == state) {
            return letter.letter;
        }
    }
    return OTHER;
}

[[nodiscard]] Tone toneOf(char letter)
{
    for (const Letter& known : LETTERS) {
        if (known.letter == letter) {
            return stateTone(known.state);
        }
    }
    return Tone::Muted;
}

/// The row in one colour after another.
[[nodiscard]] std::string painted(std::string_view row, const Style& style)
{
    std::string text;
    while (!row.empty()) {
        const std::size_t run = std::min(row.find_first_not_of(row.front()), row.size());
        text += style.paint(toneOf(row.front()), row.substr(0, run));
        row.remove_prefix(run);
    }
    return text;
}

/// The columns of a chart as times.
class Scale
{
public:
    Scale(const Timeline& timeline, std::size_t columnCount)
        : begin(timeline.begin), length(std::max<Micros>(timeline.length(), 1)), columns(columnCount)
    {}

    [[nodiscard]] std::size_t columnOf(Micros time) const
    {
        const auto share = static_cast<double>(time - begin) / static_cast<double>(length);
        return std::min(static_cast<std::size_t>(share * static_cast<double>(columns)), columns - 1);
    }

private:
    Micros begin;
    Micros length;
    std::size_t columns;
};

void fill(std::string& row, std::size_t from, std::size_t to, char letter)
{
    row.replace(from, to - from, to - from, letter);
}

[[nodiscard]] std::string legend(const std::string& rows)
{
    std::string text;
    const auto explain = [&](char letter, std::string_view meaning) {
        if (rows.find(letter) != std::string::npos) {
            text += (text.empty() ? "" : "  ") + std::string(1, letter) + " " + std::string(meaning);
        }
    };
    for (const Letter& letter : LETTERS) {
        explain(letter.letter, letter.state);
    }
    explain(OTHER, "another state");
    explain(SEVERAL, "several changes");
    explain(BLIND, "nobody to tell");
    return text;
}

} // namespace

std::string chartRow(const Timeline& timeline, const ZoneTimeline& zone, std::size_t columns)
{
    const Scale scale(timeline, columns);
    std::string row(columns, NOTHING);
    std::vector<int> begun(columns, 0);
    for (const Interval& interval : zone.intervals) {
        const std::size_t first = scale.columnOf(interval.from);
        const std::size_t last = scale.columnOf(interval.to);
        begun[first] += interval.beginSeen ? 1 : 0;
        // The column in which it ends belongs to what follows; the last one of what lasts is its own.
        const std::size_t end = std::max(first + 1, interval.endSeen ? last : last + 1);
        fill(row, first, end, letterOf(interval.state));
    }
    for (std::size_t column = 0; column < columns; ++column) {
        if (begun[column] > 1) {
            row[column] = SEVERAL;
        }
    }
    for (const BlindTime& gap : timeline.gaps) { // last, so that a short one is seen
        fill(row, scale.columnOf(gap.from), scale.columnOf(gap.to) + 1, BLIND);
    }
    return row;
}

std::string renderChart(const Timeline& timeline, std::size_t columns, const Style& style)
{
    std::size_t nameWidth = 0;
    for (const ZoneTimeline& zone : timeline.zones) {
        nameWidth = std::max(nameWidth, textWidth(printable(zone.zone)));
    }
    nameWidth = std::min(nameWidth, columns / 2);
    const std::size_t width = std::max(columns - std::min(columns, nameWidth + GAP), FEWEST_COLUMNS);
    const std::string indent(nameWidth + GAP, ' ');
    const std::string endText = durationText(timeline.length());
    const std::string scale = "0" + std::string(width - std::min(width, endText.size() + 1), ' ') + endText;
    std::string text = indent + style.paint(Tone::Muted, scale) + "\n";
    std::string all;
    for (const ZoneTimeline& zone : timeline.zones) {
        const std::string name = clipped(printable(zone.zone), nameWidth);
        const std::string row = chartRow(timeline, zone, width);
        text += name + std::string(nameWidth - textWidth(name) + GAP, ' ') + painted(row, style) + "\n";
        all += row;
    }
    return text + indent + style.paint(Tone::Muted, legend(all)) + "\n";
}

} // namespace Zonectl
