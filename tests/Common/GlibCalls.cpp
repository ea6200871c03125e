#include "tests/Common/GlibCalls.h"

#include "Common/Thread.h"
#include "platform/watchdog/platform_watchdog.h"
#include "tests/support/unit/Seam.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>

using ZoneTest::genuine;
using ZoneTest::lastTimer;
using ZoneTest::named;
using ZoneTest::nameOf;
using ZoneTest::noteCall;

namespace {

std::mutex namesMutex;
std::map<const void*, std::string> names; // guarded by namesMutex

} // namespace

namespace ZoneTest {

void setName(const void* object, const std::string& name)
{
    const std::lock_guard lock(namesMutex);
    names[object] = name;
}

std::string nameOf(const void* object)
{
    if (object == nullptr) {
        return "null";
    }
    const std::lock_guard lock(namesMutex);
    const auto found = names.find(object);
    return found == names.end() ? "unknown" : found->second;
}

} // namespace ZoneTest

extern "C" {

GMainLoop* g_main_loop_new(GMainContext* context, gboolean isRunning)
{
    noteCall("g_main_loop_new(" + nameOf(context) + ", " + std::to_string(isRunning) + ")");
    return named(genuine(&g_main_loop_new, "g_main_loop_new")(context, isRunning), "loop");
}

GMainContext* g_main_loop_get_context(GMainLoop* loop)
{
    noteCall("g_main_loop_get_context(" + nameOf(loop) + ")");
    return named(genuine(&g_main_loop_get_context, "g_main_loop_get_context")(loop), "context");
}

void g_main_loop_run(GMainLoop* loop)
{
    noteCall("g_main_loop_run");
    genuine(&g_main_loop_run, "g_main_loop_run")(loop);
}

void g_main_loop_quit(GMainLoop* loop)
{
    noteCall("g_main_loop_quit(" + nameOf(loop) + ")");
    genuine(&g_main_loop_quit, "g_main_loop_quit")(loop);
}

GMainContext* g_main_context_new()
{
    noteCall("g_main_context_new");
    return named(genuine(&g_main_context_new, "g_main_context_new")(), "context");
}

void g_main_context_unref(GMainContext* context)
{
    noteCall("g_main_context_unref(" + nameOf(context) + ")");
    genuine(&g_main_context_unref, "g_main_context_unref")(context);
}

GSource* g_source_new(GSourceFuncs* functions, guint size)
{
    noteCall(size == sizeof(GSource) + sizeof(void*) ? "g_source_new" : "g_source_new with a wrong size");
    EXPECT_EQ(functions->check, nullptr);
    EXPECT_NE(functions->finalize, nullptr);
    return named(genuine(&g_source_new, "g_source_new")(functions, size), "events");
}

GSource* g_timeout_source_new(guint interval)
{
    noteCall("g_timeout_source_new(" + std::to_string(interval) + ")");
    return named(genuine(&g_timeout_source_new, "g_timeout_source_new")(interval),
                 "timer of " + std::to_string(interval));
}

void g_source_set_callback(GSource* source, GSourceFunc function, gpointer data, GDestroyNotify destroy)
{
    noteCall("g_source_set_callback(" + nameOf(source) + ")");
    EXPECT_EQ(destroy, nullptr);
    lastTimer.function = function;
    lastTimer.data = data;
    genuine(&g_source_set_callback, "g_source_set_callback")(source, function, data, destroy);
}

guint g_source_attach(GSource* source, GMainContext* context)
{
    const bool orphan =
        nameOf(source) == "events" && reinterpret_cast<ZoneCore::EventSource*>(source)->owner == nullptr;
    noteCall("g_source_attach(" + nameOf(source) + ", " + nameOf(context) +
             (orphan ? ") without owner" : ")"));
    return genuine(&g_source_attach, "g_source_attach")(source, context);
}

void g_source_destroy(GSource* source)
{
    noteCall("g_source_destroy(" + nameOf(source) + ")");
    genuine(&g_source_destroy, "g_source_destroy")(source);
}

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    noteCall("g_timeout_add(" + std::to_string(interval) + ")");
    lastTimer.function = function;
    lastTimer.data = data;
    return 1;
}

GThread* g_thread_new(const gchar* name, GThreadFunc function, gpointer data)
{
    noteCall("g_thread_new(" + std::string(name) + ")");
    return named(genuine(&g_thread_new, "g_thread_new")(name, function, data), "thread");
}

void g_thread_unref(GThread* thread)
{
    noteCall("g_thread_unref(" + nameOf(thread) + ")");
    genuine(&g_thread_unref, "g_thread_unref")(thread);
}

GAsyncQueue* g_async_queue_new()
{
    noteCall("g_async_queue_new");
    return named(genuine(&g_async_queue_new, "g_async_queue_new")(), "queue");
}

void g_async_queue_lock(GAsyncQueue* queue)
{
    noteCall("g_async_queue_lock(" + nameOf(queue) + ")");
    genuine(&g_async_queue_lock, "g_async_queue_lock")(queue);
}

void g_async_queue_push_unlocked(GAsyncQueue* queue, gpointer data)
{
    noteCall("g_async_queue_push_unlocked(" + nameOf(queue) + ", " + nameOf(data) + ")");
    genuine(&g_async_queue_push_unlocked, "g_async_queue_push_unlocked")(queue, data);
}

void g_async_queue_unlock(GAsyncQueue* queue)
{
    noteCall("g_async_queue_unlock(" + nameOf(queue) + ")");
    genuine(&g_async_queue_unlock, "g_async_queue_unlock")(queue);
}

void g_async_queue_unref(GAsyncQueue* queue)
{
    noteCall("g_async_queue_unref(" + nameOf(queue) + ")");
    if (queue != nullptr) {
        genuine(&g_async_queue_unref, "g_async_queue_unref")(queue);
    }
}

void g_source_set_name(GSource* source, const char* name)
{
    noteCall("g_source_set_name(" + nameOf(source) + ", " + name + ")");
    genuine(&g_source_set_name, "g_source_set_name")(source, name);
}

void g_source_unref(GSource* source)
{
    noteCall("g_source_unref(" + nameOf(source) + ")");
    genuine(&g_source_unref, "g_source_unref")(source);
}

void g_main_loop_unref(GMainLoop* loop)
{
    noteCall("g_main_loop_unref(" + nameOf(loop) + ")");
    genuine(&g_main_loop_unref, "g_main_loop_unref")(loop);
}

int platform_watchdog_register(int interval_seconds) noexcept
{
    noteCall("platform_watchdog_register(" + std::to_string(interval_seconds) + ")");
    return -1; // nobody looks
}

int platform_watchdog_notify() noexcept
{
    noteCall("platform_watchdog_notify");
    return -1;
}
}
