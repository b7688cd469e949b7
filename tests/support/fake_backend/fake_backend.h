#ifndef SUPPORT_FAKE_BACKEND_H
#define SUPPORT_FAKE_BACKEND_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class UVAClient;

namespace support {

enum class SeekBehaviour {
    Complete,    ///< as a backend should
    Refuse,      ///< a failed seek, and 0
    NeverAnswer, ///< no SeekCompletedExEvent comes
    Block,       ///< setPosition() does not return until `unblock`
};

/// What the fake backend answers.
struct FakeAnswers {
    std::atomic<bool> giveNothing{false};
    std::atomic<bool> refuseMedia{false};
    std::atomic<bool> refuseSource{false}; ///< that is attached
    std::atomic<SeekBehaviour> seek{SeekBehaviour::Complete};
    std::atomic<bool> unblock{false};
    std::atomic<bool> asksEarly{false}; ///< for the decoder, while the backend is made
    std::atomic<double> duration{0};    ///< seconds; 0: unknown
    std::atomic<double> bufferedTo[2] = {{-1}, {-1}}; ///< of sources 1 and 2; negative: nothing
    std::atomic<int> height{1};                       ///< of the picture; the width is 2
    std::atomic<int> startCapture{1};                 ///< UVABackend::Success
    std::atomic<int> frame{1};                        ///< of getVideoFrame()
};

/// The strings of the fake backend library, and what its host did. One for the process, found with
/// dlsym("fakeBackendControl"). Shared by the test, the event loop and the clip's thread.
struct FakeControl {
    std::unique_ptr<FakeAnswers> answers = std::make_unique<FakeAnswers>(); ///< a new one a test
    std::atomic<double> position{0};
    std::atomic<UVAClient*> client{nullptr};
    std::atomic<int> living{0}; ///< backends that are not released

    void note(std::string call) {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back(std::move(call));
    }
    std::vector<std::string> calls() {
        const std::lock_guard lock(m_mutex);
        return m_calls;
    }

private:
    std::mutex m_mutex; // guards m_calls
    std::vector<std::string> m_calls;
};

} // namespace support

#endif
