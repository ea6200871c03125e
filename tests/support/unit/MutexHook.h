#pragma once

#include "tests/support/unit/Seam.h"

#include <pthread.h>
#include <utility>

namespace ZoneTest {

/// Runs once, in place of the calling thread's next lock of a mutex: for what another thread would do while
/// this one waits. When it gives an error number, the lock fails with that one; after 0 the mutex is locked.
inline thread_local int (*atNextLock)() = nullptr;

} // namespace ZoneTest

// Takes the place of the C library's in programs that include this.
// NOLINTNEXTLINE(misc-definitions-in-headers): in one source each.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto lock = ZoneTest::genuine(&pthread_mutex_lock, "pthread_mutex_lock");
    auto* hook = std::exchange(ZoneTest::atNextLock, nullptr);
    const int error = hook == nullptr ? 0 : hook();
    return error == 0 ? lock(mutex) : error;
}
