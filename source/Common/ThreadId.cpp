#include "Common/ThreadId.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace ZoneCore {

pid_t currentThreadId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

} // namespace ZoneCore
