/// Shows the thread sanitizer the locks and reference counts of GLib and GStreamer, which are not
/// instrumented: stands before their functions, calls them, and says what each one orders. Linked
/// first into programs of a thread sanitizer build, and into no other.

#include <dlfcn.h>
#include <glib-object.h>
#include <gst/gst.h>
#include <sanitizer/tsan_interface.h>

#define STAND_BEFORE(name)                                                                         \
    static const auto real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))

#define LOCKS(type, name)                                                                          \
    void name(type* lock) {                                                                        \
        STAND_BEFORE(name);                                                                        \
        real(lock);                                                                                \
        __tsan_acquire(lock);                                                                      \
    }
#define TRIES(type, name)                                                                          \
    gboolean name(type* lock) {                                                                    \
        STAND_BEFORE(name);                                                                        \
        const gboolean locked = real(lock);                                                        \
        if (locked)                                                                                \
            __tsan_acquire(lock);                                                                  \
        return locked;                                                                             \
    }
#define UNLOCKS(type, name)                                                                        \
    void name(type* lock) {                                                                        \
        STAND_BEFORE(name);                                                                        \
        __tsan_release(lock);                                                                      \
        real(lock);                                                                                \
    }
// Whoever drops the last reference sees what the others did before they dropped theirs.
#define UNREFERENCES(type, name)                                                                   \
    void name(type* object) {                                                                      \
        STAND_BEFORE(name);                                                                        \
        __tsan_release(object);                                                                    \
        __tsan_acquire(object);                                                                    \
        real(object);                                                                              \
    }

#pragma GCC visibility push(default)
extern "C" {

LOCKS(GMutex, g_mutex_lock)
TRIES(GMutex, g_mutex_trylock)
UNLOCKS(GMutex, g_mutex_unlock)
LOCKS(GRecMutex, g_rec_mutex_lock)
TRIES(GRecMutex, g_rec_mutex_trylock)
UNLOCKS(GRecMutex, g_rec_mutex_unlock)
LOCKS(GRWLock, g_rw_lock_writer_lock)
TRIES(GRWLock, g_rw_lock_writer_trylock)
UNLOCKS(GRWLock, g_rw_lock_writer_unlock)
LOCKS(GRWLock, g_rw_lock_reader_lock)
TRIES(GRWLock, g_rw_lock_reader_trylock)
UNLOCKS(GRWLock, g_rw_lock_reader_unlock)

void g_cond_wait(GCond* condition, GMutex* mutex) {
    STAND_BEFORE(g_cond_wait);
    __tsan_release(mutex);
    real(condition, mutex);
    __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* condition, GMutex* mutex, gint64 end) {
    STAND_BEFORE(g_cond_wait_until);
    __tsan_release(mutex);
    const gboolean woken = real(condition, mutex, end);
    __tsan_acquire(mutex);
    return woken;
}

// The main context's own lock is taken where nothing can stand before it: so everything that is said
// to a context counts as ordered.
static char mainContexts;

GMainLoop* g_main_loop_new(GMainContext* context, gboolean running) {
    STAND_BEFORE(g_main_loop_new);
    auto* loop = real(context, running);
    __tsan_release(&mainContexts);
    return loop;
}

guint g_source_attach(GSource* source, GMainContext* context) {
    STAND_BEFORE(g_source_attach);
    __tsan_acquire(&mainContexts);
    const guint id = real(source, context);
    __tsan_release(&mainContexts);
    return id;
}

UNREFERENCES(void, g_object_unref)
UNREFERENCES(GstMiniObject, gst_mini_object_unref)

} // extern "C"
#pragma GCC visibility pop
