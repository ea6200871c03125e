#pragma once

#include "Common/Log.h"

#include <dlfcn.h>
#include <string>
#include <sys/types.h>

/// For test programs that define a function of a C library themselves, to see its calls or to let it fail.
namespace ZoneTest {

/// The library's function of this name: genuine(&fork, "fork")().
template <typename Function>
[[nodiscard]] Function genuine(Function /*type*/, const char* name)
{
    void* found = nullptr;
    if constexpr (sizeof(off_t) > sizeof(long)) {
        // The headers call the functions with offsets of 64 bits by another name than the source.
        found = dlsym(RTLD_NEXT, (std::string(name) + "64").c_str());
    }
    return reinterpret_cast<Function>(found != nullptr ? found : dlsym(RTLD_NEXT, name));
}

/// Puts a call into the log, where it stands in order among the records of the caller: "D " and this text in
/// LogCapture::texts().
inline void noteCall(const std::string& call)
{
    ZLOGD("%s", call.c_str());
}

} // namespace ZoneTest
