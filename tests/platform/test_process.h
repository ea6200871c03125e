#pragma once

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <map>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace PlatformTest {

/// How a child process ended, and what it wrote to its standard output and error.
struct ProcessResult
{
    int exitStatus = -1; // -1: ended by a signal
    int signal = 0;
    std::string output;
    pid_t pid = -1;
};

/// Reads a child's output to its end and waits for it; a child that takes longer than the limit is killed.
inline ProcessResult collect(pid_t child, int outputEnd, std::chrono::milliseconds limit)
{
    ProcessResult result;
    result.pid = child;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd readable{.fd = outputEnd, .events = POLLIN, .revents = 0};
        if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
            kill(child, SIGKILL);
            break;
        }
        std::array<char, 65536> buffer;
        const ssize_t length = read(outputEnd, buffer.data(), buffer.size());
        if (length <= 0) {
            break;
        }
        result.output.append(buffer.data(), static_cast<std::size_t>(length));
    }
    close(outputEnd);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exitStatus = WEXITSTATUS(status);
    } else {
        result.signal = WTERMSIG(status);
    }
    return result;
}

/// Runs a function in a forked child, whose exit status is what it returns. The child gets the variables of
/// the environment (an empty value unsets one); its standard output and error are collected.
inline ProcessResult runInChild(const std::map<std::string, std::string>& environment,
                                const std::function<int()>& body,
                                std::chrono::milliseconds limit = std::chrono::seconds(30))
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        return {};
    }
    static_cast<void>(std::fflush(nullptr)); // else the child writes what is buffered here a second time
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        for (const auto& [name, value] : environment) {
            if (value.empty()) {
                unsetenv(name.c_str());
            } else {
                setenv(name.c_str(), value.c_str(), 1);
            }
        }
        _exit(body());
    }
    close(ends[1]);
    return collect(child, ends[0], limit);
}

/// Runs a program as the daemon would: with the umask 0.
inline ProcessResult run(std::vector<std::string> words,
                         const std::map<std::string, std::string>& environment = {})
{
    return runInChild(
        environment,
        [&] {
            std::vector<char*> arguments;
            arguments.reserve(words.size() + 1);
            for (auto& word : words) {
                arguments.push_back(word.data());
            }
            arguments.push_back(nullptr);
            umask(0); // as the daemon's
            execvp(arguments[0], arguments.data());
            return 127;
        },
        std::chrono::seconds(60));
}

} // namespace PlatformTest
