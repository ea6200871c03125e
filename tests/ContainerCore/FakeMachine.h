#pragma once

#include "tests/support/unit/Seam.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace ZoneTest {

/// A machine for Container to act on, with neither files nor processes: while an object lives, the calls that
/// the program has taken over (see ContainerCallsTest.cpp) are answered by it and put into the log.
class FakeMachine
{
public:
    FakeMachine() { current = this; }
    ~FakeMachine() { current = nullptr; }
    FakeMachine(const FakeMachine&) = delete;
    FakeMachine& operator=(const FakeMachine&) = delete;

    /// The one that lives; null for none.
    static inline FakeMachine* current = nullptr;

    struct Ended
    {
        pid_t result;
        int error; ///< for a result of -1
        int status;
    };

    /// What a file holds when it is opened for the first time, the second time and so on; the last one stays.
    /// Nothing: it cannot be opened.
    std::map<std::string, std::vector<std::optional<std::string>>> files;
    std::set<std::string> directories; ///< that exist
    std::set<std::string> busy;        ///< directories that cannot be removed
    std::set<pid_t> ended;             ///< processes that cannot be signalled
    pid_t child = 4711;                ///< of the next fork; -1 lets it fail
    std::deque<Ended> waits{{4711, 0, 0}};

    int answerAccess(const std::string& path, int mode)
    {
        noteCall("access(" + path + ", " + std::to_string(mode) + ")");
        return directories.contains(path) || files.contains(path) ? 0 : fail(ENOENT);
    }

    std::FILE* answerFopen(const std::string& path, const std::string& mode)
    {
        noteCall("fopen(" + path + ", " + mode + ")");
        const auto file = files.find(path);
        if (file == files.end()) {
            errno = ENOENT;
            return nullptr;
        }
        auto& texts = file->second;
        auto& text = texts.at(std::min(opens[path]++, texts.size() - 1));
        if (!text) {
            errno = EMFILE;
            return nullptr;
        }
        std::FILE* stream = fmemopen(text->data(), text->size(), "r");
        paths[stream] = path;
        return stream;
    }

    void noteFclose(std::FILE* stream)
    {
        if (const auto path = paths.extract(stream)) {
            noteCall("fclose(" + path.mapped() + ")");
        }
    }

    int answerKill(pid_t pid, int signal)
    {
        noteCall("kill(" + std::to_string(pid) + ", " + std::to_string(signal) + ")");
        return ended.contains(pid) ? fail(ESRCH) : 0;
    }

    int answerUsleep(useconds_t microseconds)
    {
        noteCall("usleep(" + std::to_string(microseconds) + ")");
        return 0;
    }

    int answerRmdir(const std::string& path)
    {
        noteCall("rmdir(" + path + ")");
        return busy.contains(path) ? fail(EBUSY) : 0;
    }

    pid_t answerFork()
    {
        noteCall("fork()");
        return child < 0 ? fail(EAGAIN) : child;
    }

    pid_t answerWaitpid(pid_t pid, int* status, int options)
    {
        noteCall("waitpid(" + std::to_string(pid) + ", " + std::to_string(options) + ")");
        const Ended next = waits.empty() ? Ended{-1, ECHILD, 0} : waits.front();
        if (!waits.empty()) {
            waits.pop_front();
        }
        *status = next.status;
        return next.result < 0 ? fail(next.error) : next.result;
    }

private:
    static int fail(int error)
    {
        errno = error;
        return -1;
    }

    std::map<std::string, std::size_t> opens;
    std::map<std::FILE*, std::string> paths; ///< of the open files
};

} // namespace ZoneTest
