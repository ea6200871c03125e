#pragma once

#include "Common/Handles.h"
#include "Common/Thread.h"
#include "Common/ThreadId.h"

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <utility>

namespace ZoneTest {

/// A Thread that shows its inside. It takes the reference on the default context that its destructor drops.
class ThreadProbe : public ZoneCore::Thread
{
public:
    ThreadProbe() = default;
    explicit ThreadProbe(const std::string& name, bool useDefaultContext = false)
    {
        prepare(name, useDefaultContext);
    }

    void prepare(const std::string& name, bool useDefaultContext)
    {
        if (useDefaultContext) {
            static_cast<void>(g_main_context_ref(g_main_context_default()));
        }
        initialized = initialize(useDefaultContext, name);
    }

    bool initialized = false;

    using Thread::eventQueue;
    using Thread::eventSource;
    using Thread::gthread;
    using Thread::mainContext;
    using Thread::mainLoop;
    using Thread::timerSources;
    using Thread::watchDogEnabled;
    using Thread::watchDogInterval;
    using Thread::watchDogNotifyPeriod;
    using Thread::watchDogSource;
};

/// The end of most records about a thread: its name and the calling thread's id.
inline std::string nameAndId(const std::string& name, const std::string& idWord = "thread id")
{
    return "(thread name : " + name + ", " + idWord + " : " + std::to_string(ZoneCore::currentThreadId()) +
           ")";
}

/// Carries out what is ready on a context, without waiting.
inline void iterate(GMainContext* context)
{
    static_cast<void>(g_main_context_iteration(context, FALSE));
}

/// Runs a function on the loop of another thread.
class OnLoop
{
public:
    /// Hands the function over; it is called once.
    OnLoop(GMainContext* context, std::function<void()> function) : work(std::move(function))
    {
        ++handOvers;
        g_main_context_invoke_full(
            context, G_PRIORITY_DEFAULT,
            [](gpointer data) -> gboolean {
                static_cast<void>(handOvers.load());
                auto* self = static_cast<OnLoop*>(data);
                self->work();
                self->finished.set_value();
                return G_SOURCE_REMOVE;
            },
            this, nullptr);
    }
    /// Waits for its end.
    ~OnLoop() { finished.get_future().wait(); }
    OnLoop(const OnLoop&) = delete;
    OnLoop& operator=(const OnLoop&) = delete;

private:
    /// Orders the hand-over for the thread sanitizer, which does not see GLib's locks.
    static inline std::atomic<unsigned> handOvers{0};

    std::function<void()> work;
    std::promise<void> finished;
};

/// Quits a thread's loop and waits until the thread has ended: its last record is written then.
inline void endLoop(ThreadProbe& thread)
{
    thread.terminate();
    static_cast<void>(g_thread_join(g_thread_ref(thread.gthread)));
}

} // namespace ZoneTest
