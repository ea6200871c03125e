#include "Output/Progress.h"

#include "Output/Output.h"

#include <glib.h>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Zonectl {

namespace {

constexpr const char* BEGINNING_OF_CLEARED_LINE = "\r\033[K";
constexpr int USUAL_WIDTH = 80;

/// As much of the text as a line of the terminal takes: one that wraps could not be rewritten.
[[nodiscard]] std::string cutToTerminal(const std::string& text)
{
    winsize size = {};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    const glong width = (known ? size.ws_col : USUAL_WIDTH) - 1;
    if (g_utf8_strlen(text.c_str(), -1) <= width) {
        return text;
    }
    const char* end = g_utf8_offset_to_pointer(text.c_str(), width);
    return text.substr(0, static_cast<std::size_t>(end - text.c_str()));
}

} // namespace

Progress::Manner Progress::mannerFor(bool json)
{
    if (json) {
        return Manner::Silent;
    }
    return isatty(STDERR_FILENO) == 1 ? Manner::Rewritten : Manner::Lines;
}

void Progress::line(const std::string& text)
{
    if (manner != Manner::Silent) {
        clear();
        std::cerr << printable(text) << std::endl;
    }
}

void Progress::event(const std::string& text)
{
    manner == Manner::Rewritten ? status(text) : line(text);
}

void Progress::status(const std::string& text)
{
    if (manner == Manner::Rewritten) {
        std::cerr << BEGINNING_OF_CLEARED_LINE << cutToTerminal(printable(text)) << std::flush;
        statusShown = true;
    }
}

void Progress::clear()
{
    if (statusShown) {
        std::cerr << BEGINNING_OF_CLEARED_LINE << std::flush;
        statusShown = false;
    }
}

} // namespace Zonectl
