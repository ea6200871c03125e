#pragma once

namespace PlatformTest {

/// While an object lives, its thread gets no memory from `new`: std::bad_alloc. In programs with
/// no_memory.cpp.
class NoMemory
{
public:
    NoMemory();
    ~NoMemory();
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

} // namespace PlatformTest
