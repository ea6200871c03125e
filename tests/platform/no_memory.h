#pragma once

#include <cstdlib>
#include <new>

namespace PlatformTest {

/// While an object lives, no memory can be had by `new`: std::bad_alloc. For one file of a program.
class NoMemory
{
public:
    NoMemory() { inForce = true; }
    ~NoMemory() { inForce = false; }
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;

    static inline thread_local bool inForce = false;
};

} // namespace PlatformTest

void* operator new(std::size_t size)
{
    void* const memory = PlatformTest::NoMemory::inForce ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
