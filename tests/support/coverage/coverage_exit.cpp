// A program that counts what it runs writes its counts at its ordinary end only. These keep them for the
// other ends that the daemon has: _exit, with threads in the middle of something, and an assertion.
#include <csignal>
#include <cstdlib>
#include <unistd.h>

extern "C" {
void __gcov_dump();
[[noreturn]] void __real__exit(int status);

[[noreturn]] void __wrap__exit(int status)
{
    __gcov_dump();
    __real__exit(status);
}
}

namespace {

void keepCounts(int)
{
    __gcov_dump();
}

__attribute__((constructor)) void keepCountsOfAnAbort()
{
    // Once: abort() goes on when the handler returns, and ends the process by the default action.
    struct sigaction action = {};
    action.sa_handler = keepCounts;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    static_cast<void>(sigaction(SIGABRT, &action, nullptr));
}

} // namespace
