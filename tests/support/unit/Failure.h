#pragma once

#include "tests/support/unit/Seam.h"

#include <string_view>

namespace ZoneTest {

/// Makes a function that the program has replaced by ZONE_TEST_MAY_FAIL fail on the calling thread as long as
/// the object lives. One at a time.
class Failure
{
public:
    /// @param name the function; the text must outlive the object
    /// @param skipped how many calls still work
    explicit Failure(std::string_view name, int skipped = 0)
    {
        function = name;
        left = skipped;
    }
    ~Failure() { function = {}; }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;

    /// Whether this call of a function has to fail.
    [[nodiscard]] static bool isDue(std::string_view name) { return name == function && left-- <= 0; }

private:
    static inline thread_local std::string_view function{};
    static inline thread_local int left = 0;
};

} // namespace ZoneTest

/// Replaces a function of a shared library in this program by one that gives null or 0 while a Failure names
/// it: ZONE_TEST_MAY_FAIL(GMainContext*, g_main_context_new, (), ()).
// NOLINTBEGIN(bugprone-macro-parentheses): the arguments come with theirs.
#define ZONE_TEST_MAY_FAIL(Result, function, parameters, arguments)                                          \
    extern "C" Result function parameters                                                                    \
    {                                                                                                        \
        if (ZoneTest::Failure::isDue(#function)) {                                                           \
            return {};                                                                                       \
        }                                                                                                    \
        return ZoneTest::genuine(&function, #function) arguments;                                            \
    }
// NOLINTEND(bugprone-macro-parentheses)
