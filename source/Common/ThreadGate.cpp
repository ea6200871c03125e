#include "Common/ThreadGate.h"

namespace ZoneCore {

namespace {

/// The gate of the calling thread; null on the main thread.
thread_local ThreadGate* gateOfThisThread = nullptr;

} // namespace

bool ThreadGate::enter()
{
    State expected = State::Open;
    return state.compare_exchange_strong(expected, State::Inside, std::memory_order_acquire,
                                         std::memory_order_relaxed);
}

void ThreadGate::leave()
{
    state.store(State::Open, std::memory_order_release);
}

bool ThreadGate::close()
{
    State expected = State::Open;
    return state.compare_exchange_strong(expected, State::Closed, std::memory_order_acquire,
                                         std::memory_order_acquire) ||
           expected == State::Closed;
}

void ThreadGate::guardThisThread()
{
    gateOfThisThread = this;
}

ThreadGate::Pass::Pass() : gate(gateOfThisThread), granted(gate == nullptr || gate->enter()) {}

ThreadGate::Pass::~Pass()
{
    if (gate != nullptr && granted) {
        gate->leave();
    }
}

} // namespace ZoneCore
