#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Zonectl {

struct TerminalSize
{
    std::size_t columns = 80;
    std::size_t rows = 24;
};

/// The size of the terminal that is standard output; 80 by 24 when it is none or does not tell.
[[nodiscard]] TerminalSize terminalSize();

/// How many columns a text takes, its colours left out.
[[nodiscard]] std::size_t textWidth(std::string_view text);

/// The beginning of a text that fits so many columns; its colours come to their end.
[[nodiscard]] std::string clipped(std::string_view text, std::size_t columns);

} // namespace Zonectl
