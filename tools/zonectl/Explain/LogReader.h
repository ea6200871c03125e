#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Zonectl {

/// Microseconds since 1970.
using LogTime = std::int64_t;
constexpr LogTime LOG_SECOND = 1000000;

/// One record of the daemon's log.
struct LogRecord
{
    std::optional<LogTime> time; ///< between 1970 and 2^60; nothing when the line does not say, or absurdly
    char level = 'I'; ///< D, I, W, E or F; W also for fatal where the line does not tell them apart
    int pid = 0;      ///< 0 when the line does not say
    int tid = 0;      ///< 0 when the line does not say
    std::string function;
    std::string message; ///< without the origin in front and without colours
};

/// The record in a line of a log, nothing for a foreign or damaged line. Understood are
///  - what the daemon writes to the console, behind any prefix; a time stamp at its beginning is taken:
///    2026-11-21T15:58:23.123456+0100 (fraction and zone may be missing), or Nov 21 15:58:23 of the last year
///  - what syslog and `journalctl -o short` make of a record, which is without level and thread
///  - `journalctl -o json`
[[nodiscard]] std::optional<LogRecord> readLogRecord(std::string_view line);

} // namespace Zonectl
