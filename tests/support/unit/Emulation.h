#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

namespace ZoneTest {

/// Whether another machine's processor is emulated, as the scripts tell that run such programs.
[[nodiscard]] inline bool isEmulated()
{
    return std::getenv("ZONE_TEST_EMULATED") != nullptr;
}

} // namespace ZoneTest

/// Ends a test that an emulator cannot carry out faithfully; the reason says what is different there.
#define ZONE_TEST_NEEDS_REAL_MACHINE(reason)                                                                 \
    if (ZoneTest::isEmulated()) {                                                                            \
        GTEST_SKIP() << (reason);                                                                            \
    }                                                                                                        \
    static_assert(true)
