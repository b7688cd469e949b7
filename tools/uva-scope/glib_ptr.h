#ifndef UVA_SCOPE_GLIB_PTR_H
#define UVA_SCOPE_GLIB_PTR_H

#include <gio/gio.h>

#include <memory>
#include <string>

namespace scope {

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
/// One's own reference of an object.
template <typename Object>
using ObjectPtr = std::unique_ptr<Object, Unref>;

struct FreeError {
    void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, FreeError>;

struct UnrefBytes {
    void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
using BytesPtr = std::unique_ptr<GBytes, UnrefBytes>;

/// Null is empty.
inline std::string textOf(GBytes* bytes) {
    gsize size = 0;
    const auto* data = bytes != nullptr ? g_bytes_get_data(bytes, &size) : nullptr;
    return data != nullptr ? std::string(static_cast<const char*>(data), size) : std::string();
}

/// A source of the default main context, which ends with the object.
class Timer {
public:
    Timer(guint milliseconds, GSourceFunc call, gpointer user)
        : m_id(g_timeout_add(milliseconds, call, user)) {}
    ~Timer() { g_source_remove(m_id); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

private:
    const guint m_id;
};

} // namespace scope

#endif
