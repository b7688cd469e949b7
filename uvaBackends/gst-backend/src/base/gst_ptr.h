#ifndef GST_PTR_H
#define GST_PTR_H

#include <gst/gst.h>

#include <cstdlib>
#include <memory>
#include <utility>

/// One reference to a GStreamer object or mini object, dropped with its holder. The only place of
/// the backend that refs and unrefs.
template <typename T>
class GstPtr {
public:
    GstPtr() = default;
    GstPtr(std::nullptr_t) {}
    GstPtr(const GstPtr& other) : m_object(ref(other.m_object)) {}
    GstPtr(GstPtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    ~GstPtr() { unref(m_object); }
    GstPtr& operator=(GstPtr other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }

    /// Takes over a full reference that the caller holds. Never a floating one: see sink().
    static GstPtr adopt(T* object) {
        g_assert(object == nullptr || !isFloating(object));
        return GstPtr(object);
    }
    /// Takes a reference of its own.
    static GstPtr retain(T* object) { return GstPtr(ref(object)); }
    /// Turns the floating reference of a new element or pad into a full one.
    static GstPtr sink(T* object) {
        return GstPtr(object == nullptr ? nullptr : static_cast<T*>(gst_object_ref_sink(object)));
    }

    /// Gives the reference to the caller.
    [[nodiscard]] T* release() { return std::exchange(m_object, nullptr); }
    void reset() { *this = nullptr; }
    T* get() const { return m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    explicit GstPtr(T* object) : m_object(object) {}

    static constexpr bool isMini = std::is_same_v<T, GstCaps> || std::is_same_v<T, GstBuffer> ||
                                   std::is_same_v<T, GstEvent> || std::is_same_v<T, GstMessage> ||
                                   std::is_same_v<T, GstMiniObject> || std::is_same_v<T, GstMemory>;
    static bool isFloating(T* object) {
        if constexpr (isMini)
            return false;
        else
            return g_object_is_floating(object);
    }
    static T* ref(T* object) {
        if (object == nullptr)
            return nullptr;
        if constexpr (isMini)
            return reinterpret_cast<T*>(gst_mini_object_ref(GST_MINI_OBJECT_CAST(object)));
        else
            return static_cast<T*>(gst_object_ref(object));
    }
    static void unref(T* object) {
        if (object == nullptr)
            return;
        if constexpr (isMini)
            gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
        else
            gst_object_unref(object);
    }

    T* m_object = nullptr;
};

struct GFreeDeleter {
    void operator()(void* memory) const { g_free(memory); }
};
/// Text that GLib allocated.
using GCharPtr = std::unique_ptr<gchar, GFreeDeleter>;

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
/// Text from malloc.
using MallocText = std::unique_ptr<char, FreeDeleter>;

struct GErrorDeleter {
    void operator()(GError* error) const { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorDeleter>;

#endif
