#pragma once

#include "platform/log/platform_log.h"

#include <string_view>

/// The one way of the daemon to write to the log: ZLOGD, ZLOGI, ZLOGW, ZLOGE, ZLOGF (debug to fatal), each
/// taking a printf format, as a literal, and its arguments. May be called on every thread and inside a signal
/// handler.

namespace ZoneCore::LogDetail {

/// The last component of a source path, computed while compiling.
consteval const char* baseName(std::string_view path)
{
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path.data() : path.data() + slash + 1;
}

} // namespace ZoneCore::LogDetail

// File, function(line) > colour [signature:line] BODY, colour reset.
#define ZLOG_PREFIX "%s: %s(%d) > \x1b[%s;%s;%sm[%s:%d] "
#define ZLOG_SUFFIX "\x1b[0m"

#define ZLOG(priority, foreground, format, ...)                                                              \
    static_cast<void>(platform_log_write(                                                                    \
        PLATFORM_LOG_BUFFER_MAIN, priority, "ZONE_MANAGER", ZLOG_PREFIX format ZLOG_SUFFIX,                  \
        ::ZoneCore::LogDetail::baseName(__FILE__), __func__, __LINE__, "01", foreground, "40",               \
        __PRETTY_FUNCTION__, __LINE__ __VA_OPT__(, ) __VA_ARGS__))

#define ZLOGD(...) ZLOG(PLATFORM_LOG_DEBUG, "34", __VA_ARGS__)
#define ZLOGI(...) ZLOG(PLATFORM_LOG_INFO, "32", __VA_ARGS__)
#define ZLOGW(...) ZLOG(PLATFORM_LOG_WARNING, "35", __VA_ARGS__)
#define ZLOGE(...) ZLOG(PLATFORM_LOG_ERROR, "31", __VA_ARGS__)
#define ZLOGF(...) ZLOG(PLATFORM_LOG_FATAL, "35", __VA_ARGS__)
