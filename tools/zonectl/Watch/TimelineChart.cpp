#include "Watch/TimelineChart.h"

#include "Explain/StoryTime.h"
#include "Output/Terminal.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace Zonectl {

namespace {

constexpr char SEVERAL = '|';
constexpr char BLIND = ':';
constexpr char NOTHING = ' ';
constexpr char OTHER = '?';
constexpr std::size_t FEWEST_COLUMNS = 20; ///< for a row beside its name
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

/// What the letters of the rows mean, in lines of that width as far as no meaning alone is longer.
[[nodiscard]] std::vector<std::string> legend(const std::string& rows, std::size_t width)
{
    std::vector<std::string> lines(1);
    const auto explain = [&](char letter, std::string_view meaning) {
        if (rows.find(letter) == std::string::npos) {
            return;
        }
        const std::string entry = std::string(1, letter) + " " + std::string(meaning);
        if (lines.back().empty()) {
            lines.back() = entry;
        } else if (lines.back().size() + GAP + entry.size() <= width) {
            lines.back() += std::string(GAP, ' ') + entry;
        } else {
            lines.push_back(entry);
        }
    };
    for (const Letter& letter : LETTERS) {
        explain(letter.letter, letter.state);
    }
    explain(OTHER, "another state");
    explain(SEVERAL, "several changes");
    explain(BLIND, "nobody to tell");
    return lines;
}

/// How a chart is divided: the names beside the rows, or above them where that would leave too little.
struct Layout
{
    std::size_t nameWidth; ///< the longest a name may be
    std::size_t indent;    ///< of the rows
    std::size_t width;     ///< of the rows
};

[[nodiscard]] Layout layoutFor(const Timeline& timeline, std::size_t columns)
{
    std::size_t longest = 0;
    for (const ZoneTimeline& zone : timeline.zones) {
        longest = std::max(longest, textWidth(printable(zone.zone)));
    }
    const std::size_t nameWidth = std::min(longest, columns / 2);
    const std::size_t indent = nameWidth + GAP;
    if (columns < indent + FEWEST_COLUMNS) {
        return {.nameWidth = columns, .indent = 0, .width = std::max<std::size_t>(columns, 1)};
    }
    return {.nameWidth = nameWidth, .indent = indent, .width = columns - indent};
}

/// The zone's name, and what leads from it to the row.
[[nodiscard]] std::string label(const std::string& zone, const Layout& layout)
{
    const std::string name = clipped(printable(zone), layout.nameWidth);
    return layout.indent == 0 ? name + "\n" : name + std::string(layout.indent - textWidth(name), ' ');
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
    const Layout layout = layoutFor(timeline, columns);
    const std::string indent(layout.indent, ' ');
    const std::string endText = durationText(timeline.length());
    const std::size_t taken = std::min(layout.width, endText.size() + 1);
    std::string text =
        indent + style.paint(Tone::Muted, "0" + std::string(layout.width - taken, ' ') + endText) + "\n";
    std::string all;
    for (const ZoneTimeline& zone : timeline.zones) {
        const std::string row = chartRow(timeline, zone, layout.width);
        text += label(zone.zone, layout) + painted(row, style) + "\n";
        all += row;
    }
    for (const std::string& line : legend(all, layout.width)) {
        text += indent + style.paint(Tone::Muted, line) + "\n";
    }
    return text;
}

} // namespace Zonectl
