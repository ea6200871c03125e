#pragma once

#include <string>

namespace ZoneTest {

/// What the monitor calls of the system, of GLib and of the library that it loads: in a program that links
/// `monitor_calls`, each such call passes here first, where it can be made visible and made to fail. Only
/// calls of the thread that made the object count; they go straight on as long as nothing else is asked for.
///
/// A call is named by its text, such as "bind(7, 110)"; the beginning of it is enough.
class MonitorCalls
{
public:
    MonitorCalls();
    ~MonitorCalls();
    MonitorCalls(const MonitorCalls&) = delete;
    MonitorCalls& operator=(const MonitorCalls&) = delete;

    /// Writes the text of each further call into the log, at debug level, before it is carried out.
    void trace() const;

    /// The call is not carried out and fails with this error: -1, a null pointer or false is what it gives.
    /// Without an error it just fails, and dlerror() has nothing to say.
    /// @param spared the number of such calls before it that work
    void fail(const std::string& call, int error = 0, int spared = 0) const;

    /// The call is carried out, and this is what it gives.
    void give(const std::string& call, int result) const;

    /// Nothing is asked for any more.
    void reset() const;
};

} // namespace ZoneTest
