#ifndef GSTNOX_AVCOMPONENT_H
#define GSTNOX_AVCOMPONENT_H

#include "base/gst_ptr.h"
#include "uva/uva_backend.h"

class GstNoxBackend;

/// A track of the playing media, named after its stream in the pipeline. Owned by the backend
/// until its removal is announced, then by that event.
class GstNoxAvComponent : public UVABackend::AVComponent {
public:
    void setActive(bool active);
    const gchar* name() const { return m_name.get(); }

protected:
    /// `kind` is "audio" or "video" and must be static; `name` is copied.
    GstNoxAvComponent(GstNoxBackend* backend, int type, const char* kind, const char* name);

    GstNoxBackend* const m_backend; ///< not owned
    const GCharPtr m_name;
    const char* const m_kind;
};

class GstNoxAudioComponent : public GstNoxAvComponent {
public:
    GstNoxAudioComponent(GstNoxBackend* backend, const char* name);
};

class GstNoxVideoComponent : public GstNoxAvComponent {
public:
    GstNoxVideoComponent(GstNoxBackend* backend, const char* name);
};

#endif
