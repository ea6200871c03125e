#pragma once

#include "tests/support/unit/LogRecord.h"

#include <gmock/gmock.h>

#include <chrono>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ZoneTest {

/// Shows a record in a failed assertion.
void PrintTo(const LogRecord& record, std::ostream* stream);

/// Matches a record by its level and body: IsRecord('E', "Failed"), IsRecord('W', HasSubstr("kill")).
MATCHER_P2(IsRecord, level, body, "")
{
    return arg.level == level && testing::ExplainMatchResult(body, arg.body, result_listener);
}

/// Keeps what the process and its children write to standard error as long as the object lives, and takes the
/// log records in it apart. At the end, holds them all against the catalogue of the daemon's messages, and
/// shows everything on the true standard error when the test has failed.
///
/// The log goes to standard error in every program that links this class. One object at a time; any thread
/// may write meanwhile, and reading takes what has been written by then.
class LogCapture
{
public:
    /// Throws std::system_error when standard error cannot be redirected.
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The records since the start or the last clear(), in the order in which they were written.
    [[nodiscard]] std::vector<LogRecord> records() const;
    /// The same, each as "LEVEL BODY".
    [[nodiscard]] std::vector<std::string> texts() const;
    /// The lines that are no records, such as GLib's own messages.
    [[nodiscard]] std::vector<std::string> otherLines() const;

    /// Waits until a record "LEVEL BODY" of exactly this text is there.
    /// @return false when it did not come in time
    [[nodiscard]] bool waitForText(const std::string& text,
                                   std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    /// Forgets what has been written so far.
    void clear();

private:
    [[nodiscard]] std::vector<std::string> lines() const;

    int savedStandardError = -1;
    int file = -1;
    off_t start = 0; ///< of what counts, in the file
};

} // namespace ZoneTest
