#include "backend/gstnox_avcomponent.h"

#include "backend/gstnox_backend.h"
#include "base/gstnox_debug.h"
#include "uva/uva_event.h"

#include <string_view>

#define GST_CAT_DEFAULT gst_backend_debug

GstNoxAvComponent::GstNoxAvComponent(GstNoxBackend* backend, int componentType, const char* kind,
                                     const char* name)
    : AVComponent(componentType, "UNKNOWN_ENCODING", "und", ""), m_backend(backend),
      m_name(g_strdup(name)), m_kind(kind) {}

void GstNoxAvComponent::setActive(bool on) {
    AVComponent::setActive(on);
}

GstNoxAudioComponent::GstNoxAudioComponent(GstNoxBackend* backend, const char* name)
    : GstNoxAvComponent(backend, Audio, "audio", name) {
    shape = 0;
    bitrate = 128000;
    channel = g_strdup("1_1");
}

GstNoxVideoComponent::GstNoxVideoComponent(GstNoxBackend* backend, const char* name)
    : GstNoxAvComponent(backend, Video, "video", name) {
    shape = 4;
    bitrate = 2560000;
    channel = g_strdup("5_1");
}

int GstNoxBackend::addComponent(const char* kind, const char* name) {
    GST_DEBUG("'%s'(%s)", kind, name);
    const auto type = mediaKindOf(kind);
    if (!type) {
        GST_WARNING("***W: invalid component type '%s'", kind);
        return 0;
    }
    std::unique_ptr<GstNoxAvComponent> component;
    if (type == MediaKind::Video)
        component = std::make_unique<GstNoxVideoComponent>(this, name);
    else
        component = std::make_unique<GstNoxAudioComponent>(this, name);
    GstNoxAvComponent* const added = component.get();
    if (std::string_view(name).find("_0") != std::string_view::npos) // the first of its kind
        added->setActive(true);
    bool isNew = false;
    {
        const GLibLock lock(m_lock);
        isNew = m_components.try_emplace(name, std::move(component)).second;
    }
    if (!isNew) {
        GST_WARNING("***W: component '%s' of type '%s' already exists.", name, kind);
        return 0;
    }
    raiseEvent(new MultiComponentChangedEvent({}, {added}), GST_LEVEL_DEBUG, "removed:%d, added:%d",
               0, 1);
    return 1;
}

void GstNoxBackend::removeComponent(const char* name) {
    GST_DEBUG("name='%s'", name);
    decltype(m_components)::node_type removed;
    {
        const GLibLock lock(m_lock);
        removed = m_components.extract(name);
    }
    if (removed.empty()) {
        GST_WARNING("***W: component '%s' does not exist in collection.", name);
        return;
    }
    raiseEvent(new MultiComponentChangedEvent({removed.mapped().release()}, {}), GST_LEVEL_DEBUG,
               "removed:%d", 1);
}

/// The kinds are crosswise.
void GstNoxBackend::takeDecodedStream(const char* name, bool isVideo) {
    if (!hasComponent(name))
        addComponent(isVideo ? "audio" : "video", name);
    if (!isVideo)
        checkMetaDataChanged();
}

bool GstNoxBackend::hasComponent(const char* name) {
    const GLibLock lock(m_lock);
    return m_components.find(name) != m_components.end();
}

int GstNoxBackend::selectComponent(AVComponent* component) {
    GST_DEBUG("label=%s", component != nullptr ? component->label.c_str() : "");
    return Success;
}

int GstNoxBackend::unselectComponent(AVComponent* component) {
    GST_DEBUG("label=%s", component != nullptr ? component->label.c_str() : "");
    return Success;
}

int GstNoxBackend::addTrack(AVComponent::Kind kind, const char* url, const char* language,
                            const char* label) {
    GST_DEBUG("kind=%d url=%s srclang=%s label=%s", static_cast<int>(kind), url, language, label);
    return Success;
}
