#ifndef UVA_GST_IF_GST_MEDIA_H
#define UVA_GST_IF_GST_MEDIA_H

#include "UvaGstIfMedia.h"

#include <gst/gst.h>

/// The link's view of GStreamer. Thread-safe.
class UvaGstIfGstMedia : public UvaGstIfMedia {
public:
    /// Logs to these categories, each as soon as there is one.
    UvaGstIfGstMedia(GstDebugCategory*& backend, GstDebugCategory*& backendIf)
        : m_backend(backend), m_backendIf(backendIf) {}

    const char* name(GstMessage* message) override;
    int integer(GstMessage* message, const char* field) override;
    Fraction fraction(GstMessage* message, const char* field) override;
    const char* text(GstMessage* message, const char* field) override;
    States states(GstElement* pipeline) override;
    bool logs(Category category, Level level) override;
    void log(Category category, Level level, const char* file, const char* function, int line,
             const char* text) override;

private:
    GstDebugCategory* of(Category category) const {
        return category == Category::Backend ? m_backend : m_backendIf;
    }

    GstDebugCategory*& m_backend;
    GstDebugCategory*& m_backendIf;
};

#endif
