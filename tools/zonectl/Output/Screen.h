#pragma once

#include "Output/Terminal.h"

#include <functional>
#include <glib.h>
#include <optional>
#include <string>
#include <termios.h>

namespace Zonectl {

/// The terminal that is standard output, taken over for a picture that is drawn again and again, and given
/// back as it was when the object ends.
class Screen
{
public:
    /// Called, on the main context that is the thread's default, with each key when standard input is a
    /// terminal too.
    using KeyTaker = std::function<void(char key)>;

    explicit Screen(KeyTaker taker);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// Draws the text over the one before, as much of it as fits. False when it could not be written.
    [[nodiscard]] bool draw(const std::string& text);

private:
    static gboolean readableCallback(gint descriptor, GIOCondition condition, gpointer data);
    void listen();

    KeyTaker takeKey;
    std::optional<termios> before; ///< how standard input was, when it was changed
    guint watch = 0;               ///< 0 when no keys are read
};

/// The text as it is drawn on a screen of that size: from its top left corner, and with nothing left of what
/// was there.
[[nodiscard]] std::string picture(const std::string& text, const TerminalSize& size);

} // namespace Zonectl
