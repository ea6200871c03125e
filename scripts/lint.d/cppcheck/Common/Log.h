#pragma once

// What cppcheck reads in the place of include_internal/Common/Log.h: it does not know __VA_OPT__ and would
// leave every source that writes to the log unchecked.

#include <cstdio>

#define ZLOGD(...) static_cast<void>(std::printf(__VA_ARGS__))
#define ZLOGI(...) static_cast<void>(std::printf(__VA_ARGS__))
#define ZLOGW(...) static_cast<void>(std::printf(__VA_ARGS__))
#define ZLOGE(...) static_cast<void>(std::printf(__VA_ARGS__))
#define ZLOGF(...) static_cast<void>(std::printf(__VA_ARGS__))
