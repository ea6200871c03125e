#include "tests/platform/no_memory.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local bool inForce = false;

} // namespace

namespace PlatformTest {

NoMemory::NoMemory()
{
    inForce = true;
}

NoMemory::~NoMemory()
{
    inForce = false;
}

} // namespace PlatformTest

void* operator new(std::size_t size)
{
    void* const memory = inForce ? nullptr : std::malloc(size);
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
