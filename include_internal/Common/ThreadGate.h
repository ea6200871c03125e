#pragma once

#include <atomic>

namespace ZoneCore {

/// Tells whether an event thread may still touch what it shares with the others, without anybody ever
/// waiting.
///
/// Threads are not joined: the teardown quits their loops and deletes the objects right away. A thread that
/// rests in poll then never comes back into our code, but one that is carrying out a callback at that moment
/// goes on using its object, the registry and the manager for as long as the callback lasts, which may be
/// minutes. So each callback holds a Pass while it runs, and the teardown closes the gate of a thread before
/// it deletes anything that the thread could touch. A gate that cannot be closed has somebody inside: what he
/// uses stays alive.
class ThreadGate
{
public:
    ThreadGate() = default;
    ThreadGate(const ThreadGate&) = delete;
    ThreadGate& operator=(const ThreadGate&) = delete;

    /// Lets the gate's thread in. False: the gate is closed, nothing of ours may be touched any more.
    [[nodiscard]] bool enter();

    /// Ends what enter() began. Called by the gate's thread.
    void leave();

    /// Tries to close the gate for good; never waits, may be tried again. Called by the teardown.
    /// @return true when nobody is inside and nobody can come in any more.
    [[nodiscard]] bool close();

    /// Makes this gate the one that the calling thread's callbacks have to pass. The gate must outlive the
    /// thread.
    void guardThisThread();

    /// Held by a callback while it runs. On a thread without a gate (the main thread) it is always granted.
    class Pass
    {
    public:
        Pass();
        ~Pass();
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        /// False: return at once, and touch neither the callback's data nor anything behind it.
        explicit operator bool() const { return granted; }

    private:
        ThreadGate* const gate;
        const bool granted;
    };

private:
    enum class State
    {
        Open,   ///< the thread is elsewhere: not started, in poll, or in GLib
        Inside, ///< the thread is in a callback
        Closed, ///< for good
    };

    /// Written by the gate's thread and by the teardown.
    std::atomic<State> state{State::Open};
};

} // namespace ZoneCore
