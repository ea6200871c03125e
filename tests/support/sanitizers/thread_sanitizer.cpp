// Linked into every program of the `tsan` preset. GLib is not instrumented and locks with futexes of its own,
// so the sanitizer cannot see that a queue hands an event over from one thread to another: these wrappers
// tell it.
#include <glib.h>

#include <sanitizer/tsan_interface.h>

extern "C" {

void __real_g_async_queue_push_unlocked(GAsyncQueue* queue, gpointer data);
gpointer __real_g_async_queue_try_pop(GAsyncQueue* queue);

void __wrap_g_async_queue_push_unlocked(GAsyncQueue* queue, gpointer data)
{
    __tsan_release(data);
    __real_g_async_queue_push_unlocked(queue, data);
}

gpointer __wrap_g_async_queue_try_pop(GAsyncQueue* queue)
{
    gpointer data = __real_g_async_queue_try_pop(queue);
    if (data != nullptr) {
        __tsan_acquire(data);
    }
    return data;
}

/// What the C library does on behalf of uninstrumented libraries is no business of ours. So is what it frees
/// of an ended thread, on the next thread's behalf: the per-thread variables of a library that was opened at
/// run time. It does so under a lock of its own, which the sanitizer does not see.
const char* __tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libgio-2.0.so\n"
           "called_from_lib:linux-gnu/liblxc.so\n"
           "race:_dl_deallocate_tls\n";
}

/// The daemon's threads are never joined: that they are still known at its end is no leak.
const char* __tsan_default_options()
{
    return "report_thread_leaks=0:exitcode=66:second_deadlock_stack=1";
}
}
