#include "Explain/StoryTime.h"

#include "Common/Handles.h"

#include <array>
#include <cstdio>

namespace Zonectl {

namespace {

constexpr LogTime MILLISECOND = LOG_SECOND / 1000;

[[nodiscard]] std::string formatted(LogTime time, const char* format)
{
    using DateTimePtr = std::unique_ptr<GDateTime, ZoneCore::FreeWith<g_date_time_unref>>;
    using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;
    const DateTimePtr second(g_date_time_new_from_unix_local(time / LOG_SECOND));
    if (!second) { // farther away than the calendar reaches
        return std::to_string(time / LOG_SECOND);
    }
    const DateTimePtr moment(g_date_time_add(second.get(), time % LOG_SECOND));
    const StringPtr text(g_date_time_format(moment.get(), format));
    return text.get();
}

/// Three digits at least, as a fraction has them.
[[nodiscard]] std::string thousandths(LogTime number)
{
    std::array<char, 8> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(number % 1000)));
    return text.data();
}

} // namespace

std::string timeText(LogTime time)
{
    return formatted(time, "%F %T") + thousandths(time / MILLISECOND);
}

std::string isoText(LogTime time)
{
    return formatted(time, "%FT%T.%f%:z");
}

std::string durationText(LogTime duration)
{
    return std::to_string(duration / LOG_SECOND) + thousandths(duration / MILLISECOND) + " s";
}

std::string timesText(std::size_t count)
{
    return count == 1 ? "once" : std::to_string(count) + " times";
}

} // namespace Zonectl
