#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace ZoneTest {

/// Runs a test's body in a process of its own, for what would change this one for good, such as its signal
/// mask. Failed expectations in there are shown, and make the status differ from 0. After a minute the
/// process is ended by SIGALRM.
/// @return the raw wait status
template <typename Body>
[[nodiscard]] int statusOfChild(Body body)
{
    static_cast<void>(std::fflush(nullptr));
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        body();
        static_cast<void>(std::fflush(nullptr));
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

} // namespace ZoneTest
