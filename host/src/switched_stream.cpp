#include "host/media_source.h"

#include <algorithm>
#include <utility>

namespace host {

namespace {

constexpr double tolerance = 0.001; // seconds; times in files are rounded

/// Whichever of the two streams is read: never the first again once the second has begun, but after
/// a seek.
class SwitchedStream final : public SampleStream {
public:
    SwitchedStream(std::unique_ptr<SampleStream> first, double seconds,
                   std::unique_ptr<SampleStream> next)
        : m_first(std::move(first)), m_next(std::move(next)), m_time(seconds),
          m_info(m_first->info()) {
        m_info.duration = std::max(m_info.duration, m_next->info().duration);
    }

    const StreamInfo& info() const override { return m_info; }

    Batch read(std::size_t count) override {
        if (!m_head && !m_switched && !m_nextEnded)
            if (auto error = findHead(); !error.empty())
                return {{}, false, std::move(error)};
        return m_switched ? m_next->read(count) : readFirst(count);
    }

    std::string seek(double seconds) override {
        m_head.reset();
        m_switched = m_nextEnded = false;
        if (auto error = findHead(); !error.empty())
            return error;
        if (!m_head || m_head->pts() > seconds + tolerance)
            return m_first->seek(seconds);
        m_switched = true;
        return m_next->seek(seconds);
    }

    void interrupt() override {
        m_first->interrupt();
        m_next->interrupt();
    }

private:
    /// The sample with which the second stream takes over; none when it ends before.
    std::string findHead() {
        if (auto error = m_next->seek(m_time); !error.empty())
            return error;
        while (!m_head && !m_nextEnded) {
            auto batch = m_next->read(1);
            if (!batch.error.empty())
                return batch.error;
            for (auto& sample : batch.samples)
                if (sample->data().keyFrame && sample->pts() >= m_time - tolerance)
                    m_head = std::move(sample);
            m_nextEnded = batch.ended;
        }
        return {};
    }

    /// Up to the first sample that the second stream has too; what follows it in decoding order may
    /// depend on it.
    Batch readFirst(std::size_t count) {
        auto batch = m_first->read(count);
        if (!m_head)
            return batch;
        const auto behind = std::find_if(batch.samples.begin(), batch.samples.end(), [&](auto& s) {
            return s->pts() >= m_head->pts() - tolerance;
        });
        if (behind == batch.samples.end() && !batch.ended)
            return batch;
        batch.samples.erase(behind, batch.samples.end());
        batch.samples.push_back(std::move(m_head));
        batch.ended = m_nextEnded;
        m_switched = true;
        return batch;
    }

    const std::unique_ptr<SampleStream> m_first;
    const std::unique_ptr<SampleStream> m_next;
    const double m_time;
    StreamInfo m_info;
    std::unique_ptr<Sample> m_head;
    bool m_nextEnded = false;
    bool m_switched = false;
};

} // namespace

std::unique_ptr<SampleStream> switchAt(std::unique_ptr<SampleStream> first, double seconds,
                                       std::unique_ptr<SampleStream> next) {
    return std::make_unique<SwitchedStream>(std::move(first), seconds, std::move(next));
}

} // namespace host
