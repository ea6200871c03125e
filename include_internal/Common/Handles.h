#pragma once

#include <gio/gio.h>

#include <cstdio>
#include <memory>
#include <unistd.h>
#include <utility>

namespace ZoneCore {

/// A deleter that calls one C function.
template <auto Function>
struct FreeWith
{
    template <typename T>
    void operator()(T* object) const
    {
        static_cast<void>(Function(object));
    }
};

/// Scoped owners of what C libraries hand out; each frees its object in the library's own way.
using GErrorPtr = std::unique_ptr<GError, FreeWith<g_error_free>>;
using GVariantPtr = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;
using GVariantIterPtr = std::unique_ptr<GVariantIter, FreeWith<g_variant_iter_free>>;
using GMainLoopPtr = std::unique_ptr<GMainLoop, FreeWith<g_main_loop_unref>>;
using GMainContextPtr = std::unique_ptr<GMainContext, FreeWith<g_main_context_unref>>;
using GBusConnectionPtr = std::unique_ptr<GDBusConnection, FreeWith<g_object_unref>>;
using FilePtr = std::unique_ptr<std::FILE, FreeWith<std::fclose>>;

/// Hands a GError out-parameter to a scoped owner: `g_function(..., OutError(error))`.
class OutError
{
public:
    explicit OutError(GErrorPtr& target) : owner(target) {}
    ~OutError() { owner.reset(raw); }
    OutError(const OutError&) = delete;
    OutError& operator=(const OutError&) = delete;

    // NOLINTNEXTLINE(google-explicit-constructor): stands for the GError** that GLib asks for.
    operator GError**() { return &raw; }

private:
    GErrorPtr& owner;
    GError* raw = nullptr;
};

/// The owner of one file descriptor; -1 stands for none.
class UniqueFd
{
public:
    explicit UniqueFd(int descriptor = -1) : fd(descriptor) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    [[nodiscard]] int get() const { return fd; }
    [[nodiscard]] int release() { return std::exchange(fd, -1); }
    explicit operator bool() const { return fd >= 0; }

    void reset(int descriptor = -1)
    {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = descriptor;
    }

private:
    int fd;
};

} // namespace ZoneCore
