#include "media/mark_reader.h"
#include "nox/screen.h"
#include "util/mutex.h"
#include "watch/planes.h"
#include "watch/sound_listener.h"
#include "watch/watch.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

namespace qualify {

namespace {

/// A picture as a sink gave it; its mark is read later, when nothing is waited for.
struct Shown {
    Clock::time_point time;
    bool still = false;
    Planes picture;
};

/// What the sinks of each source have put out and nobody has taken.
class Recorder final : public nox::OutputTap {
public:
    void onPicture(nox::ShownPicture picture) override {
        const auto now = Clock::now();
        const MutexLock lock(m_mutex);
        m_shown[nox::Screen::sourceOf(picture.sink)].push_back(
            {now,
             picture.still,
             {picture.width, picture.height, std::move(picture.luma), picture.chromaWidth,
              picture.chromaHeight, std::move(picture.cb), std::move(picture.cr)}});
    }
    void onSound(nox::PlayedSound sound) override {
        const auto now = Clock::now();
        const MutexLock lock(m_mutex);
        m_sound[nox::Screen::sourceOf(sound.sink)].add(now, sound.rate, sound.samples);
    }

    /// From one number on, before another.
    std::vector<Shown> take(unsigned int from, unsigned int to) {
        const MutexLock lock(m_mutex);
        std::vector<Shown> taken;
        const auto end = m_shown.lower_bound(to);
        for (auto it = m_shown.lower_bound(from); it != end; ++it) {
            std::move(it->second.begin(), it->second.end(), std::back_inserter(taken));
            it->second.clear();
        }
        return taken;
    }
    HeardSound sound(unsigned int from, unsigned int to) const {
        const MutexLock lock(m_mutex);
        HeardSound all;
        const auto end = m_sound.lower_bound(to);
        for (auto it = m_sound.lower_bound(from); it != end; ++it) {
            const auto& heard = it->second.heard();
            all.pulses.insert(all.pulses.end(), heard.pulses.begin(), heard.pulses.end());
            all.tone += heard.tone;
        }
        return all;
    }
    void forget(unsigned int from, unsigned int to) {
        const MutexLock lock(m_mutex);
        m_shown.erase(m_shown.lower_bound(from), m_shown.lower_bound(to));
        m_sound.erase(m_sound.lower_bound(from), m_sound.lower_bound(to));
    }

private:
    mutable Mutex m_mutex; // a leaf
    std::map<unsigned int, std::vector<Shown>> m_shown GUARDED_BY(m_mutex);
    std::map<unsigned int, SoundListener> m_sound GUARDED_BY(m_mutex);
};

bool precedes(const Shown& a, const Shown& b) {
    return a.time < b.time;
}

class SinkWatch final : public Watch {
public:
    SinkWatch(Recorder& recorder, host::SourceId sources)
        : m_recorder(recorder), m_from(sources),
          m_to(sources == 0 ? 1 : sources + sourcesOfAnElement) {
        m_recorder.forget(m_from, m_to);
    }
    ~SinkWatch() override { m_recorder.forget(m_from, m_to); }

    const std::vector<SeenPicture>& pictures() override {
        auto shown = m_recorder.take(m_from, m_to);
        std::sort(shown.begin(), shown.end(), precedes);
        for (auto& each : shown)
            add(std::move(each));
        return m_pictures;
    }
    std::optional<HeardSound> sound() override { return m_recorder.sound(m_from, m_to); }
    std::string newestPng() override {
        pictures();
        return pngOf(m_newest);
    }

private:
    void add(Shown shown) {
        const bool goesOn = m_standsStill && !shown.still && shown.picture.luma == m_newest.luma;
        m_standsStill = shown.still;
        if (goesOn)
            return;
        m_pictures.push_back(
            {shown.time, m_reader.read(shown.picture), shown.still, lookAt(shown.picture)});
        m_newest = std::move(shown.picture);
    }

    Recorder& m_recorder;
    const unsigned int m_from, m_to;
    MarkReader m_reader;
    std::vector<SeenPicture> m_pictures;
    Planes m_newest;
    bool m_standsStill = false;
};

class SinkObservation final : public Observation {
public:
    const char* name() const override { return "every picture and sound, in the simulated sinks"; }
    bool isExact() const override { return true; }
    double lateness() const override { return 0; }
    std::unique_ptr<Watch> watch(host::MediaElement&, host::SourceId sources) override {
        return std::make_unique<SinkWatch>(m_recorder, sources);
    }

private:
    Recorder m_recorder;
    const std::shared_ptr<void> m_tap = nox::Screen::instance().tap(m_recorder);
};

} // namespace

std::unique_ptr<Observation> observeSinks() {
    return std::make_unique<SinkObservation>();
}

} // namespace qualify
