#pragma once

#include <string>
#include <string_view>

namespace Zonectl {

/// When to colour: `Automatic` only on a terminal, and never with NO_COLOR set.
enum class ColorMode
{
    Automatic,
    Always,
    Never,
};

/// What a piece of text means to the reader; the style decides how that looks.
enum class Tone
{
    Plain,
    Good,
    Muted,
    Warning,
    Bad,
    Alarm,
};

/// Paints text for standard output, or leaves it as it is.
class Style
{
public:
    /// Decides for standard output from the mode, NO_COLOR, TERM and whether it is a terminal.
    [[nodiscard]] static Style forStandardOutput(ColorMode mode);

    explicit Style(bool useColor) : colored(useColor) {}
    [[nodiscard]] std::string paint(Tone tone, std::string_view text) const;

private:
    bool colored;
};

/// The text with control characters and invalid UTF-8 replaced, so that a name found on disk cannot
/// steer the reader's terminal.
[[nodiscard]] std::string printable(std::string_view text);

/// A command about a zone as it can be typed, in quotation marks: "'zonectl explain red'".
[[nodiscard]] std::string commandHint(std::string_view command, std::string_view zone);

/// Whether a state's word is good news, bad news or on the way.
[[nodiscard]] Tone stateTone(std::string_view word);

} // namespace Zonectl
