#pragma once

#include <glib.h>

#include <string>

namespace ZoneTest {

// In a program with GlibCalls.cpp, the calls of GLib and of the watchdog service that a Thread makes stand in
// the log. The objects have names there: "loop", "context", "events" (a custom source), "timer of 75" and so
// on.

/// Gives an object a name for the log.
void setName(const void* object, const std::string& name);

/// The same, handing the object on.
template <typename Object>
Object* named(Object* object, const std::string& name)
{
    setName(object, name);
    return object;
}

/// The name of an object; "null" for none.
[[nodiscard]] std::string nameOf(const void* object);

/// What a timer calls, and with what.
struct TimerCall
{
    GSourceFunc function = nullptr;
    gpointer data = nullptr;
};
inline TimerCall lastTimer; ///< of the timer that was armed last

} // namespace ZoneTest
