#ifndef UVA_QUALIFY_BARE_ELEMENT_H
#define UVA_QUALIFY_BARE_ELEMENT_H

#include "clip_player.h"
#include "uva/uva_client.h"
#include "uva/uva_media_backend.h"

#include <functional>
#include <future>
#include <optional>
#include <utility>
#include <vector>

namespace qualify {

/// A backend that plays a clip by its URL with nothing between: its answers and its events are seen
/// as they come. Decoders are granted. Bound to the group's thread, but for the client's operation.
class BareElement final : public UVAClient {
public:
    struct Metadata {
        double duration = 0; ///< seconds
        int width = 0, height = 0;
        double pixelAspect = 0;
    };

    BareElement(const Stage& stage, const Clip& clip);
    ~BareElement() override;
    BareElement(const BareElement&) = delete;
    BareElement& operator=(const BareElement&) = delete;

    bool isThere() const { return m_backend != nullptr; }

    /// On the thread to which backends belong, while there is one. Waits for the answer.
    template <typename Question>
    auto ask(Question question) {
        std::promise<decltype(question(*m_backend))> promise;
        auto answer = promise.get_future();
        m_stage.loop->post([&] { promise.set_value(question(*m_backend)); });
        return answer.get();
    }

    std::vector<Metadata> metadata() const;
    /// When the end was told, each time.
    std::vector<Clock::time_point> ends() const;

    void deliverEvent(UVAEvent* event) override; ///< any thread

private:
    const Stage& m_stage;
    UVAMediaBackend* m_backend = nullptr; // set before anything is asked
    mutable Mutex m_mutex;                // a leaf
    std::vector<Metadata> m_metadata GUARDED_BY(m_mutex);
    std::vector<Clock::time_point> m_ends GUARDED_BY(m_mutex);
};

} // namespace qualify

#endif
