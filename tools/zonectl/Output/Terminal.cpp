#include "Output/Terminal.h"

#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Zonectl {

namespace {

/// One piece of a text: a character, or an escape sequence that only colours.
struct Piece
{
    std::string_view text;
    std::size_t columns;
};

[[nodiscard]] Piece firstPiece(std::string_view text)
{
    if (text.starts_with("\033[")) {
        const std::size_t end = text.find('m');
        return {text.substr(0, end == std::string_view::npos ? end : end + 1), 0};
    }
    const auto length = static_cast<std::size_t>(g_utf8_next_char(text.data()) - text.data());
    const gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    if (character > G_MAXUINT32 - 2) { // no whole character
        return {text.substr(0, 1), 1};
    }
    const bool wide = g_unichar_iswide(character) != FALSE;
    const bool none = g_unichar_iszerowidth(character) != FALSE;
    return {text.substr(0, length), none ? std::size_t{0} : std::size_t{wide ? 2U : 1U}};
}

} // namespace

TerminalSize terminalSize()
{
    winsize window = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) {
        return {};
    }
    return {window.ws_col, window.ws_row};
}

std::size_t textWidth(std::string_view text)
{
    std::size_t columns = 0;
    while (!text.empty()) {
        const Piece piece = firstPiece(text);
        columns += piece.columns;
        text.remove_prefix(piece.text.size());
    }
    return columns;
}

std::string clipped(std::string_view text, std::size_t columns)
{
    std::string result;
    bool full = false;
    while (!text.empty()) {
        const Piece piece = firstPiece(text);
        full = full || piece.columns > columns;
        if (!full || piece.text.front() == '\033') {
            result += piece.text;
            columns -= piece.columns;
        }
        text.remove_prefix(piece.text.size());
    }
    return result;
}

} // namespace Zonectl
