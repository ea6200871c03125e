#include "Output/Screen.h"

#include <glib-unix.h>
#include <iostream>
#include <sstream>
#include <unistd.h>
#include <utility>

namespace Zonectl {

namespace {

constexpr const char* ENTER = "\033[?1049h\033[?25l"; ///< a screen of its own, without cursor
constexpr const char* LEAVE = "\033[?25h\033[?1049l";
constexpr const char* HOME = "\033[H";
constexpr const char* CLEAR_REST_OF_LINE = "\033[K";
constexpr const char* CLEAR_BELOW = "\033[J";

} // namespace

Screen::Screen(KeyTaker taker) : takeKey(std::move(taker))
{
    std::cout << ENTER << std::flush;
    if (isatty(STDIN_FILENO) == 1) {
        listen();
    }
}

Screen::~Screen()
{
    if (watch != 0) {
        g_source_remove(watch);
    }
    if (before) {
        static_cast<void>(tcsetattr(STDIN_FILENO, TCSANOW, &*before));
    }
    std::cout << LEAVE << std::flush;
}

void Screen::listen()
{
    termios keys = {};
    if (tcgetattr(STDIN_FILENO, &keys) != 0) {
        return;
    }
    before = keys;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VMIN] = 1;
    keys.c_cc[VTIME] = 0;
    static_cast<void>(tcsetattr(STDIN_FILENO, TCSANOW, &keys));
    watch = g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR),
                          &Screen::readableCallback, this);
}

gboolean Screen::readableCallback(gint descriptor, GIOCondition /*condition*/, gpointer data)
{
    auto* screen = static_cast<Screen*>(data);
    char key = 0;
    if (read(descriptor, &key, 1) != 1) {
        screen->watch = 0; // nobody types any more
        return G_SOURCE_REMOVE;
    }
    screen->takeKey(key);
    return G_SOURCE_CONTINUE;
}

bool Screen::draw(const std::string& text)
{
    std::cout << picture(text, terminalSize()) << std::flush;
    return static_cast<bool>(std::cout);
}

std::string picture(const std::string& text, const TerminalSize& size)
{
    std::string drawn = HOME;
    std::istringstream lines(text);
    std::size_t row = 0;
    for (std::string line; row < size.rows && std::getline(lines, line); ++row) {
        // The new-line stands before the line: behind the last one it would move all up.
        drawn += (row == 0 ? "" : "\n") + clipped(line, size.columns) + CLEAR_REST_OF_LINE;
    }
    return drawn + (row < size.rows ? std::string("\n") + CLEAR_BELOW : "");
}

} // namespace Zonectl
