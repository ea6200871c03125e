#include "Output/Output.h"

#include "Common/Handles.h"

#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace Zonectl {

namespace {

[[nodiscard]] const char* escapeOf(Tone tone)
{
    switch (tone) {
    case Tone::Good:
        return "\033[32m";
    case Tone::Muted:
        return "\033[2m";
    case Tone::Warning:
        return "\033[33m";
    case Tone::Bad:
        return "\033[31m";
    case Tone::Alarm:
        return "\033[1;37;41m";
    case Tone::Plain:
        break;
    }
    return "";
}

[[nodiscard]] bool environmentAllowsColor()
{
    const char* noColor = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return (noColor == nullptr || *noColor == '\0') &&
           (terminal == nullptr || std::string_view(terminal) != "dumb");
}

} // namespace

Style Style::forStandardOutput(ColorMode mode)
{
    if (mode == ColorMode::Automatic) {
        return Style(environmentAllowsColor() && isatty(STDOUT_FILENO) == 1);
    }
    return Style(mode == ColorMode::Always);
}

std::string Style::paint(Tone tone, std::string_view text) const
{
    if (!colored || tone == Tone::Plain || text.empty()) {
        return std::string(text);
    }
    return escapeOf(tone) + std::string(text) + "\033[0m";
}

std::string printable(std::string_view text)
{
    using StringPtr = std::unique_ptr<char, ZoneCore::FreeWith<g_free>>;
    const StringPtr valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    std::string result;
    for (const char* at = valid.get(); *at != '\0'; at = g_utf8_next_char(at)) {
        if (g_unichar_iscntrl(g_utf8_get_char(at)) != FALSE) {
            result += '?';
        } else {
            result.append(at, static_cast<const char*>(g_utf8_next_char(at)));
        }
    }
    return result;
}

std::string commandHint(std::string_view command, std::string_view zone)
{
    std::string text = "'zonectl ";
    text.append(command).append(zone.starts_with('-') ? " -- " : " ").append(zone);
    return text + "'";
}

Tone stateTone(std::string_view word)
{
    if (word == "RUNNING") {
        return Tone::Good;
    }
    if (word == "ABORTING") {
        return Tone::Bad;
    }
    if (word == "STOPPED" || word == "NONE") {
        return Tone::Muted;
    }
    return Tone::Warning;
}

} // namespace Zonectl
