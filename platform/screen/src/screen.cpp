#include "nox/screen.h"

#include "locks/mutex.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <shared_mutex>

namespace nox {

VideoPlane::~VideoPlane() = default;
AudioOutput::~AudioOutput() = default;
OutputTap::~OutputTap() = default;

namespace {

/// Recursive, so that a listener may drop its own handle while it is called.
struct ListenerSlot {
    explicit ListenerSlot(Screen::Listener listener) : call(std::move(listener)) {}

    locks::RecursiveMutex mutex;
    Screen::Listener call GUARDED_BY(mutex); // empty once dropped
};

/// Shared by those who call the tap, so that sinks do not wait for one another.
struct TapSlot {
    explicit TapSlot(OutputTap& callee) : tap(&callee) {}

    std::shared_mutex mutex;
    OutputTap* tap; // null once dropped; guarded by the mutex
};

template <typename Output>
void hand(const std::shared_ptr<TapSlot>& slot, void (OutputTap::*call)(Output), Output output) {
    if (!slot)
        return;
    const std::shared_lock lock(slot->mutex);
    if (slot->tap)
        (slot->tap->*call)(std::move(output));
}

template <typename Item>
void drop(std::vector<Item>& items, const Item& gone) {
    items.erase(std::remove(items.begin(), items.end(), gone), items.end());
}

} // namespace

struct Screen::Impl {
    locks::Mutex mutex;                                // held while planes and outputs are called
    std::vector<VideoPlane*> planes GUARDED_BY(mutex); // the one with the newest picture last
    std::vector<AudioOutput*> outputs GUARDED_BY(mutex);
    std::vector<std::weak_ptr<ListenerSlot>> listeners GUARDED_BY(mutex);
    std::weak_ptr<TapSlot> tap GUARDED_BY(mutex);
    std::map<VideoPlane*, unsigned int> sources GUARDED_BY(mutex); // of the planes
    std::map<unsigned int, PictureCounters> counters GUARDED_BY(mutex);
    bool visible GUARDED_BY(mutex) = true;
    double volume GUARDED_BY(mutex) = 1.0;

    std::shared_ptr<TapSlot> liveTap() {
        const locks::Lock lock(mutex);
        return tap.lock();
    }
};

Screen::Screen() : m_impl(std::make_unique<Impl>()) {}
Screen::~Screen() = default;

Screen& Screen::instance() {
    // Never destroyed: sinks may still be going down while the process ends.
    static Screen* const screen = new Screen;
    return *screen;
}

void Screen::add(VideoPlane* plane, const std::string& sink) {
    const locks::Lock lock(m_impl->mutex);
    m_impl->sources[plane] = sourceOf(sink);
    m_impl->planes.insert(m_impl->planes.begin(), plane); // has shown nothing: the last to be asked
    plane->setVisible(m_impl->visible);
}

void Screen::remove(VideoPlane* plane) {
    const locks::Lock lock(m_impl->mutex);
    drop(m_impl->planes, plane);
    m_impl->sources.erase(plane);
}

void Screen::add(AudioOutput* output) {
    const locks::Lock lock(m_impl->mutex);
    m_impl->outputs.push_back(output);
    output->setVolume(m_impl->volume);
}

void Screen::remove(AudioOutput* output) {
    const locks::Lock lock(m_impl->mutex);
    drop(m_impl->outputs, output);
}

bool Screen::grab(Picture& picture, int width, int height) {
    const locks::Lock lock(m_impl->mutex);
    auto& planes = m_impl->planes;
    return std::any_of(planes.rbegin(), planes.rend(),
                       [&](VideoPlane* plane) { return plane->grab(picture, width, height); });
}

void Screen::setVisible(bool visible) {
    const locks::Lock lock(m_impl->mutex);
    m_impl->visible = visible;
    for (auto* plane : m_impl->planes)
        plane->setVisible(visible);
}

void Screen::setVolume(double volume) {
    const locks::Lock lock(m_impl->mutex);
    m_impl->volume = volume;
    for (auto* output : m_impl->outputs)
        output->setVolume(volume);
}

void Screen::pictureShown(VideoPlane* plane) {
    std::vector<std::shared_ptr<ListenerSlot>> live;
    {
        const locks::Lock lock(m_impl->mutex);
        auto& planes = m_impl->planes;
        const auto it = std::find(planes.begin(), planes.end(), plane);
        if (it != planes.end() && it + 1 != planes.end())
            std::rotate(it, it + 1, planes.end());
        auto& listeners = m_impl->listeners;
        listeners.erase(std::remove_if(listeners.begin(), listeners.end(),
                                       [](const auto& slot) { return slot.expired(); }),
                        listeners.end());
        for (const auto& weak : listeners)
            if (auto slot = weak.lock())
                live.push_back(std::move(slot));
    }
    for (const auto& slot : live) {
        const locks::Lock lock(slot->mutex);
        if (slot->call)
            slot->call();
    }
}

void Screen::count(VideoPlane* plane, const PictureCounters& more) {
    const locks::Lock lock(m_impl->mutex);
    const auto source = m_impl->sources.find(plane);
    if (source == m_impl->sources.end())
        return;
    auto& sum = m_impl->counters[source->second];
    sum.shown += more.shown;
    sum.dropped += more.dropped;
    sum.corrupted += more.corrupted;
}

unsigned int Screen::sourceOf(const std::string& sink) {
    const auto mark = sink.rfind('_');
    unsigned int number = 0;
    if (mark == std::string::npos)
        return 0;
    const auto [end, error] =
        std::from_chars(sink.data() + mark + 1, sink.data() + sink.size(), number);
    return error == std::errc() && end == sink.data() + sink.size() ? number : 0;
}

PictureCounters Screen::counters(unsigned int source) const {
    const locks::Lock lock(m_impl->mutex);
    const auto found = m_impl->counters.find(source);
    return found == m_impl->counters.end() ? PictureCounters{} : found->second;
}

std::shared_ptr<void> Screen::listen(Listener listener) {
    auto slot = std::make_shared<ListenerSlot>(std::move(listener));
    const locks::Lock lock(m_impl->mutex);
    m_impl->listeners.push_back(slot);
    return {slot.get(), [slot](void*) {
                const locks::Lock silence(slot->mutex);
                slot->call = nullptr;
            }};
}

std::shared_ptr<void> Screen::tap(OutputTap& tap) {
    auto slot = std::make_shared<TapSlot>(tap);
    const locks::Lock lock(m_impl->mutex);
    m_impl->tap = slot;
    // Who holds the handle holds the slot.
    return {slot.get(), [slot](void*) {
                const std::unique_lock silence(slot->mutex);
                slot->tap = nullptr;
            }};
}

bool Screen::isTapped() const {
    return m_impl->liveTap() != nullptr;
}

void Screen::pictureShown(ShownPicture picture) {
    hand(m_impl->liveTap(), &OutputTap::onPicture, std::move(picture));
}

void Screen::soundPlayed(PlayedSound sound) {
    hand(m_impl->liveTap(), &OutputTap::onSound, std::move(sound));
}

} // namespace nox
