#ifndef MAINSYS_ARBITER_H
#define MAINSYS_ARBITER_H

#include <cstdint>
#include <optional>
#include <string>

namespace mainsys {

constexpr uint32_t audioKind = 1;
constexpr uint32_t videoKind = 2;

/// Who has the decoders, and what a request is answered with. The link serves one plug-in process
/// at a time and tells it of kinds only: it has one decoder of each kind at most.
class Arbiter {
public:
    enum class Mode { Grant, Refuse, Ignore };

    /// The kinds granted; 0 is a refusal.
    using Answer = uint32_t;

    Arbiter(int audioDecoders, int videoDecoders)
        : m_there((audioDecoders > 0 ? audioKind : 0) | (videoDecoders > 0 ? videoKind : 0)) {}

    /// How requests are answered from now on.
    void setMode(Mode mode) { m_mode = mode; }

    /// The plug-in needs these kinds. Nothing while requests are ignored, or another application
    /// has one of them: then it is held.
    std::optional<Answer> needed(uint32_t kinds);
    /// Answers what was held, now that it is not ignored any more.
    std::optional<Answer> answerHeld();
    /// Granted without having been asked for.
    void granted(uint32_t kinds) {
        m_granted |= kinds;
        m_held &= ~kinds;
    }
    void released(uint32_t kinds) { m_granted &= ~kinds; }
    /// The plug-in's process is another one: what its predecessor had is free.
    void plugInStarted();

    /// Another application has these from now on: requests wait until it gives them back.
    void lend(uint32_t kinds);
    /// The other application has given these back; the answer is that to who waits for them.
    std::optional<Answer> takeBack(uint32_t kinds);

    Mode mode() const { return m_mode; }
    uint32_t there() const { return m_there; }
    uint32_t granted() const { return m_granted; }
    uint32_t lent() const { return m_lent; }
    uint32_t held() const { return m_held; } ///< asked for and not answered

private:
    const uint32_t m_there; ///< the kinds of which there is a decoder
    Mode m_mode = Mode::Grant;
    uint32_t m_granted = 0;
    uint32_t m_lent = 0;
    uint32_t m_held = 0;
};

/// The kinds that "audio", "video" or "both" are; 0 for another name.
uint32_t kindsNamed(const std::string& name);
/// That name; "none" for none of them.
const char* nameOf(uint32_t kinds);

/// "audio", "video", "audio+video", "none", or the number for other masks.
std::string kindsText(uint32_t kinds);

} // namespace mainsys

#endif
