#pragma once

#include <string>
#include <sys/types.h>

namespace ZoneTest {

/// One record of the daemon's log, taken apart.
struct LogRecord
{
    char level = '?'; ///< D I W E F
    pid_t process = 0;
    pid_t thread = 0;
    std::string file;
    std::string function;
    int line = 0;
    std::string colour; ///< the three attributes, as in "01;32;40"
    std::string signature;
    std::string body;
};

} // namespace ZoneTest
