#pragma once

/// The platform's log service, bound to this machine. The daemon's log macros are its only caller.

/// The log a record goes to. There is one.
enum platform_log_buffer
{
    PLATFORM_LOG_BUFFER_MAIN
};

/// The importance of a record, rising.
enum platform_log_priority
{
    PLATFORM_LOG_DEBUG,
    PLATFORM_LOG_INFO,
    PLATFORM_LOG_WARNING,
    PLATFORM_LOG_ERROR,
    PLATFORM_LOG_FATAL
};

extern "C" {

/// Writes one record to the target that the environment variable ZONE_LOG_TARGET named at the first call.
///
/// A format that begins with "%s: %s(%d) > " says with its first three arguments where the record comes from:
/// file, function, line. A record too long for the internal buffer (16 KiB) is cut and gets a colour reset at
/// its end.
///
/// May be called on every thread and inside a signal handler: it allocates nothing, takes no lock, leaves
/// errno as it was, and hands the record over in one system call.
///
/// Returns 0 when the record was taken, or dropped on purpose (its priority is below ZONE_LOG_LEVEL, the
/// target is "null"); -1 when it was lost.
int platform_log_write(platform_log_buffer buffer, platform_log_priority priority, const char* tag,
                       const char* format, ...) noexcept __attribute__((format(printf, 4, 5)));
}
