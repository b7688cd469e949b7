#ifndef GSTNOX_DEBUG_H
#define GSTNOX_DEBUG_H

#include "util/thrown_by.h"

#include <gst/gst.h>

/// Seen from outside the library; the linker's export list names the same symbols.
#define NOX_EXPORT __attribute__((visibility("default")))

/// Debug categories of the backend, created by createDebugCategories(); null before.
extern "C" {
NOX_EXPORT extern GstDebugCategory* gst_backend_debug;   ///< "uvabackend"
NOX_EXPORT extern GstDebugCategory* gst_backendif_debug; ///< "uvabackendif"
NOX_EXPORT extern GstDebugCategory* gst_mshell_debug;    ///< "uvamshell"
NOX_EXPORT extern GstDebugCategory* gst_dbglayer_debug;  ///< "uvadbg"
}

/// Once gst_init has been called.
void createDebugCategories();

/// Calls for C code, which no exception may unwind: what is thrown is logged, with what was being
/// done, and the answer is `failure`.
template <typename Answer, typename Call>
Answer guarded(GstDebugCategory* category, const char* what, Answer failure, Call call) noexcept {
    Answer answer = failure;
    if (const auto thrown = thrownBy([&] { answer = call(); }))
        GST_CAT_WARNING(category, "%s threw an exception: %s", what, thrown->c_str());
    return answer;
}

/// The same for what answers nothing.
template <typename Call>
void guarded(const char* what, Call call) noexcept {
    guarded(gst_backend_debug, what, false, [&call] {
        call();
        return true;
    });
}

#endif
