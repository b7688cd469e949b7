#include "util/mutex.h"
#include "watch/planes.h"
#include "watch/watch.h"

#include "media/mark_reader.h"

#include <atomic>
#include <thread>

namespace qualify {

namespace {

constexpr auto interval = std::chrono::milliseconds(10); // between two looks
constexpr auto captureBound = std::chrono::seconds(2);

/// Looks at the screen over and over, on a thread of its own.
class CaptureWatch final : public Watch {
public:
    explicit CaptureWatch(host::MediaElement& element)
        : m_element(element), m_thread([this] { look(); }) {}
    ~CaptureWatch() override {
        m_ends = true;
        m_thread.join();
    }

    const std::vector<SeenPicture>& pictures() override {
        const MutexLock lock(m_mutex);
        m_taken = m_pictures;
        return m_taken;
    }
    void catchUp() override {
        const MutexLock lock(m_mutex);
        const auto wanted = m_looks + 2; // the one under way may have begun before
        const auto deadline = Clock::now() + captureBound;
        while (m_looks < wanted && m_looked.waitUntil(m_mutex, deadline)) {
        }
    }
    std::optional<HeardSound> sound() override { return std::nullopt; }
    std::string newestPng() override {
        const MutexLock lock(m_mutex);
        return pngOf(m_newest);
    }

private:
    void look() {
        while (!m_ends) {
            auto answer = m_element.capture();
            if (answer.wait_for(captureBound) == std::future_status::ready) {
                const auto now = Clock::now();
                const auto capture = answer.get();
                if (capture.error.empty())
                    add(now, planesOf(capture.picture));
            }
            endLook();
            std::this_thread::sleep_for(interval);
        }
    }
    void endLook() {
        const MutexLock lock(m_mutex);
        ++m_looks;
        m_looked.broadcast();
    }
    void add(Clock::time_point time, Planes picture) {
        if (picture.luma == m_last.luma && picture.cb == m_last.cb)
            return;
        const SeenPicture seen{time, m_reader.read(picture), false, lookAt(picture)};
        m_last = picture;
        const MutexLock lock(m_mutex);
        m_newest = std::move(picture);
        m_pictures.push_back(seen);
    }

    host::MediaElement& m_element;
    MarkReader m_reader; // the thread's
    Planes m_last;       // the thread's
    Mutex m_mutex;
    std::vector<SeenPicture> m_pictures GUARDED_BY(m_mutex);
    Planes m_newest GUARDED_BY(m_mutex);
    unsigned int m_looks GUARDED_BY(m_mutex) = 0;
    ConditionVariable m_looked;
    std::vector<SeenPicture> m_taken; // the caller's
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

class CaptureObservation final : public Observation {
public:
    const char* name() const override { return "pictures captured now and then, no sound"; }
    bool isExact() const override { return false; }
    double lateness() const override { return 40; }
    std::unique_ptr<Watch> watch(host::MediaElement& element, host::SourceId) override {
        return std::make_unique<CaptureWatch>(element);
    }
};

} // namespace

std::unique_ptr<Observation> observeByCapture() {
    return std::make_unique<CaptureObservation>();
}

} // namespace qualify
