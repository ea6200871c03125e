#pragma once

#include <cstdarg>
#include <cstdlib>
#include <unistd.h>
#include <vector>

namespace ZoneTest {

/// The process of the test program.
inline const pid_t testProgram = getpid();

} // namespace ZoneTest

extern "C" {

/// Takes the place of the C library's. A test program that became the launcher itself, as the parent instead
/// of the child, would end with the launcher's status and count as passed.
inline __attribute__((used)) int execl(const char* path, const char* first, ...) noexcept
{
    if (getpid() == ZoneTest::testProgram) {
        std::abort();
    }
    std::vector<char*> arguments;
    std::va_list rest;
    va_start(rest, first);
    for (const char* argument = first; argument != nullptr; argument = va_arg(rest, const char*)) {
        arguments.push_back(const_cast<char*>(argument));
    }
    va_end(rest);
    arguments.push_back(nullptr);
    return execv(path, arguments.data());
}
}
