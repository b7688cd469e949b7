#include "arbiter.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace mainsys {

std::optional<Arbiter::Answer> Arbiter::needed(uint32_t kinds) {
    if (m_mode == Mode::Ignore || (m_mode == Mode::Grant && (kinds & m_lent) != 0)) {
        m_held |= kinds;
        return std::nullopt;
    }
    if (m_mode == Mode::Refuse || kinds == 0 || (kinds & ~m_there) != 0)
        return 0;
    m_granted |= kinds;
    return kinds;
}

std::optional<Arbiter::Answer> Arbiter::answerHeld() {
    const uint32_t kinds = std::exchange(m_held, 0);
    return kinds == 0 ? std::nullopt : needed(kinds);
}

void Arbiter::lend(uint32_t kinds) {
    m_lent |= kinds & m_there;
}

std::optional<Arbiter::Answer> Arbiter::takeBack(uint32_t kinds) {
    m_lent &= ~kinds;
    return answerHeld();
}

void Arbiter::plugInStarted() {
    m_granted = 0;
    m_held = 0;
}

namespace {

constexpr const char* kindNames[] = {"none", "audio", "video", "both"};

} // namespace

uint32_t kindsNamed(const std::string& name) {
    const auto* const found = std::find(std::begin(kindNames), std::end(kindNames), name);
    return found == std::end(kindNames) ? 0 : static_cast<uint32_t>(found - std::begin(kindNames));
}

const char* nameOf(uint32_t kinds) {
    return kindNames[kinds < std::size(kindNames) ? kinds : 0];
}

std::string kindsText(uint32_t kinds) {
    static constexpr const char* names[] = {"none", "audio", "video", "audio+video"};
    return kinds < std::size(names) ? names[kinds] : std::to_string(kinds);
}

} // namespace mainsys
