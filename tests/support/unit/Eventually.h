#pragma once

#include <chrono>
#include <thread>

namespace ZoneTest {

/// Waits for something that another thread or process does.
/// @return false when it did not happen in time
template <typename Condition>
[[nodiscard]] bool eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace ZoneTest
