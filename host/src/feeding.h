#ifndef HOST_FEEDING_H
#define HOST_FEEDING_H

#include "mse_feeder.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace host {

class Calls;
class Playback;
class ProgressWatch;

/// Playback of samples: what passes between the feeder and the backend.
class Feeding final : public MseFeeder::Client {
public:
    /// `asksMainSystem`: the sinks ask for their decoder with the first sample.
    Feeding(Calls& calls, Playback& playback, ProgressWatch& watch, MediaSource source,
            bool asksMainSystem);

    void request(std::unique_ptr<NeedMSEDataEvent> event) { m_feeder->request(std::move(event)); }
    void seek(double seconds) { m_feeder->seek(seconds); }
    void resume() { m_feeder->resume(); }
    void stop() { m_feeder->stop(); }
    bool waitsForKey() const { return m_feeder->waitsForKey(); }
    void reattach(StreamInfo::Kind kind);

    /// Holds playback while the data comes too slowly, so that none of it is lost to the clock.
    void balance();

private:
    void feederOpened() override;
    void feederFailed(const std::string& reason) override;
    void keyNeeded(const KeyBytes& id) override;
    void writeData(std::unique_ptr<NeedMSEDataEvent> event, unsigned int samples,
                   unsigned int bytes, UVABackend::WriteDataStatus status) override;

    bool runsDry() const;
    bool isFilled() const;
    template <typename Predicate>
    bool anySource(Predicate predicate) const;

    Calls& m_calls;
    Playback& m_playback;
    ProgressWatch& m_watch;
    const std::shared_ptr<const ClearKey> m_keys;
    const std::function<void(const KeyBytes&)> m_keyNeeded;
    const bool m_asksMainSystem;
    const std::shared_ptr<MseFeeder> m_feeder;
};

} // namespace host

#endif
