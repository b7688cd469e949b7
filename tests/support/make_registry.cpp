/// Looks at all plug-ins once, so that no test has to: under a sanitizer that takes minutes.
///
/// Usage: make_registry FILE

#include <gst/gst.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "Usage: make_registry FILE\n");
        return EXIT_FAILURE;
    }
    // GStreamer leaves alone a file that is still true, and the build would take it for too old.
    remove(argv[1]);
    g_setenv("GST_REGISTRY", argv[1], TRUE);
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error))
        return EXIT_SUCCESS;
    fprintf(stderr, "make_registry: %s\n", error ? error->message : "GStreamer does not start");
    g_clear_error(&error);
    return EXIT_FAILURE;
}
