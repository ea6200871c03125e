#pragma once

#include "Common/Handles.h"

#include <functional>
#include <sys/types.h>

namespace Zonectl {

/// A process of this program's own that does one thing and tells what it finds through a pipe. It ends with
/// the object at the latest. To be made while this program has one thread.
class ChildProcess
{
public:
    /// Does `work`, which gets the pipe's end to write to. Its standard outputs go nowhere.
    explicit ChildProcess(const std::function<void(int teller)>& work);
    ~ChildProcess() { end(); }
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// The pipe's end to read from; -1 when there is no process, or nobody listens to it any more.
    [[nodiscard]] int descriptor() const { return reader.get(); }
    void stopListening() { reader.reset(); }

private:
    void end();

    ZoneCore::UniqueFd reader;
    pid_t pid = -1;
};

} // namespace Zonectl
