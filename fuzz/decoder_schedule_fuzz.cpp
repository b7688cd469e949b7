// Any order of what the main system says, what requesters do and how time passes, also while
// requests wait: the link's books stay right, no answer to the main system is lost or said twice,
// no wait outlasts its time, and nobody is refused without a reason. One thread: a wait goes on
// with the steps of the input, and with more waits. Input: steps, a byte each.

#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "UvaGstMsgDestLowerLayer.h"
#include "arbiter.h"
#include "fuzz_target.h"
#include "input.h"
#include "messaging/queue/zant_msg.h"
#include "quiet_traces.h"

#include <array>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace {

using namespace std::chrono_literals;
using mainsys::Arbiter;

/// What the link sends goes to whoever plays the main system.
class Wire final : public CUvaGstIfLowerLayer {
public:
    using Sent = std::function<void(uint32_t signal, uint32_t kinds)>;

    explicit Wire(Sent sent) : CUvaGstIfLowerLayer(m_destination), m_sent(std::move(sent)) {}

    int32_t SendCmd(CZantMsg* msg) override {
        if (!isBroken)
            m_sent(msg->signalId, static_cast<uint32_t>(msg->param1));
        msg->FreeSignal();
        return isBroken ? CZantMsgQueue::sendFailed : 0;
    }
    bool isBroken = false;

private:
    CUvaGstMsgDestLowerLayer m_destination;
    const Sent m_sent;
};

/// Time passes by steps of the input only. Who sleeps is woken after each.
class StepClock final : public UvaGstIfClock {
public:
    explicit StepClock(std::function<bool()> step) : m_step(std::move(step)) {}

    Time now() override { return m_now; }
    bool waitUntil(ConditionVariable&, Mutex& mutex, Time deadline) override REQUIRES(mutex) {
        if (m_now >= deadline)
            return false;
        mutex.unlock();
        if (!m_step())
            m_now = deadline;
        mutex.lock();
        return m_now < deadline;
    }
    void advance(std::chrono::milliseconds by) { m_now += by; }

private:
    const std::function<bool()> m_step;
    Time m_now{1s};
};

constexpr UvaGstIfMedia media{
    [](UvaGstIfMedia::Category, UvaGstIfMedia::Level) { return true; },
    [](const UvaGstIfMedia::Line& line) { require(line.text.size() < 512); },
    [](GstElement*) { return UvaGstIfMedia::States{}; },
};

class Schedule {
public:
    Schedule(const uint8_t* data, size_t size) : m_input(data, size) { setUvaGstIfMedia(media); }

    void run() {
        while (step()) {
        }
        for (size_t i = 0; i < m_requesters.size(); ++i)
            leave(i);
        checkBooks();
        const auto end = m_receiver.state();
        require(end.used == 0 && end.releaseRequest == 0 && end.waiting == 0);
        require(m_releasesAsked == m_releasesAnswered || m_wasBroken);
        while (!m_toPlugIn.empty())
            deliver();
        require(!m_areBooksEqual || m_receiver.state().available == m_arbiter.granted());
    }

private:
    struct Message {
        uint32_t signal;
        uint32_t kinds;
    };
    struct Requester {
        bool isInterrupted = false;
    };
    static constexpr int deepest = 5;

    // ---- steps

    /// False at the end of the input.
    bool step() {
        if (m_input.size() == 0)
            return false;
        const auto byte = m_input.byte();
        static constexpr void (Schedule::*steps[])(unsigned) = {
            &Schedule::deliverNext,    &Schedule::request,   &Schedule::leaveBy,
            &Schedule::endOfElement,   &Schedule::askBack,   &Schedule::setMode,
            &Schedule::grantUnasked,   &Schedule::restart,   &Schedule::pass,
            &Schedule::interrupt,      &Schedule::breakWire, &Schedule::control,
            &Schedule::anything,       &Schedule::drain,     &Schedule::cutOff,
            &Schedule::reportsOfMedia,
        };
        (this->*steps[byte % std::size(steps)])(byte / std::size(steps));
        checkBooks();
        return true;
    }

    void deliverNext(unsigned) {
        if (!m_toPlugIn.empty())
            deliver();
    }
    void request(unsigned operand) {
        if (m_depth >= deepest)
            return;
        const size_t who = operand % m_requesters.size();
        const MediaKind kind = mediaKinds[operand / m_requesters.size() % mediaKinds.size()];
        const Requester& requester = m_requesters[who];
        const auto refusals = m_refusals;
        const auto end = m_clock.now() + 5s;
        ++m_depth;
        const bool granted = m_receiver.requestDecoder(
            kind, nameOf(who), [&requester] { return requester.isInterrupted; });
        --m_depth;
        if (granted) {
            require((m_receiver.state().available & bitOf(kind)) != 0);
            require(!requester.isInterrupted && !m_isCutOff);
            m_users[indexOf(kind)].insert(who);
        } else {
            require(m_refusals != refusals || m_clock.now() >= end || requester.isInterrupted ||
                    m_isCutOff || m_wire.isBroken);
        }
    }
    void leaveBy(unsigned operand) { leave(operand % m_requesters.size()); }
    void endOfElement(unsigned operand) {
        const size_t who = operand % m_requesters.size();
        const MediaKind kind = mediaKinds[operand / m_requesters.size() % mediaKinds.size()];
        const std::string type = std::string("-") + ::nameOf(kind);
        m_receiver.handleApplicationMessage({"GstNoxDecoderNeeded", type.c_str(), nullptr, {}},
                                            nameOf(who));
        m_users[indexOf(kind)].erase(who);
    }
    void askBack(unsigned operand) {
        m_asksOut += operand != 0 ? 1 : 0;
        say(SIG_ID_MPLAYER_DECODER_RELEASE_REQ, operand);
    }
    void setMode(unsigned operand) {
        constexpr Arbiter::Mode modes[] = {Arbiter::Mode::Grant, Arbiter::Mode::Refuse,
                                           Arbiter::Mode::Ignore};
        m_arbiter.setMode(modes[operand % std::size(modes)]);
        if (modes[operand % std::size(modes)] != Arbiter::Mode::Ignore)
            answer(m_arbiter.answerHeld());
    }
    void grantUnasked(unsigned operand) {
        m_arbiter.granted(operand);
        say(SIG_ID_MPLAYER_DECODER_AVAILABLE_IND, operand);
    }
    void restart(unsigned) {
        m_toPlugIn.clear();
        m_arbiter.plugInStarted();
        m_areBooksEqual = false;
    }
    void pass(unsigned operand) { m_clock.advance(operand * 500ms); }
    void interrupt(unsigned operand) {
        auto& requester = m_requesters[operand % m_requesters.size()];
        requester.isInterrupted = operand / m_requesters.size() % 2 == 0;
        m_receiver.wake();
    }
    void breakWire(unsigned operand) {
        m_wire.isBroken = operand % 2 == 0;
        m_wasBroken = m_wasBroken || m_wire.isBroken;
        m_areBooksEqual = m_areBooksEqual && !m_wasBroken;
    }
    void control(unsigned operand) {
        static const UvaGstIfControl obeys = [](const char* text) { require(strlen(text) <= 255); };
        if (operand % 4 == 0)
            m_receiver.connectBackend(&obeys);
        else if (operand % 4 == 1)
            m_receiver.disconnectBackend(&obeys);
        const std::string text = m_input.text(operand);
        tell(SIG_ID_MPLAYER_CONTROL_REQ, 0, text, static_cast<int32_t>(text.size()));
    }
    /// A message that no main system would send.
    void anything(unsigned) {
        const auto signal = m_input.take<uint16_t>() % 700U;
        const auto parameter = m_input.take<int32_t>();
        const std::string text = m_input.text(m_input.byte());
        if (signal >= SIG_ID_MPLAYER_DECODER_NEEDED_IND && signal < SIG_ID_MPLAYER_CONTROL_REQ)
            return; // those come by themselves
        tell(signal, parameter, text, text.empty() ? parameter : static_cast<int32_t>(text.size()));
    }
    /// Who is about to end a pipeline, whoever else uses decoders.
    void drain(unsigned) {
        if (m_depth >= deepest)
            return;
        ++m_depth;
        m_receiver.waitForDecoderAvailable(nullptr, "fuzz");
        --m_depth;
        for (auto& users : m_users)
            users.clear();
        require(m_receiver.state().used == 0);
    }
    void cutOff(unsigned operand) {
        if (operand != 15)
            return; // nothing happens after it
        m_receiver.cutOff();
        m_isCutOff = true;
    }
    void reportsOfMedia(unsigned operand) {
        constexpr const char* names[] = {"GstNoxVideoFormat", "GstNoxAudioFormat",
                                         "GstNoxDecoderNeeded", "GstOther"};
        UvaGstIfApplicationMessage message;
        message.name = names[operand % std::size(names)];
        message.type = operand / 4 % 2 == 0 ? nullptr : "video";
        message.codec = operand / 8 % 2 == 0 ? nullptr : "a\"<&";
        m_input.read(message.format);
        m_receiver.handleApplicationMessage(message, nullptr);
    }

    // ---- the main system

    void hear(uint32_t signal, uint32_t kinds) {
        if (signal == SIG_ID_MPLAYER_DECODER_NEEDED_IND) {
            answer(m_arbiter.needed(kinds));
        } else if (signal == SIG_ID_MPLAYER_DECODER_RELEASE_RESP) {
            ++m_releasesAnswered;
            --m_asksOut;
            m_arbiter.released(kinds);
        }
    }
    void answer(std::optional<Arbiter::Answer> kinds) {
        if (kinds)
            say(*kinds != 0 ? SIG_ID_MPLAYER_DECODER_AVAILABLE_IND
                            : SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND,
                *kinds);
    }
    /// Who grants what it is just asking back cannot tell which of the two the answer is for.
    void say(SignalIds signal, uint32_t kinds) {
        if (signal == SIG_ID_MPLAYER_DECODER_AVAILABLE_IND && m_asksOut > 0)
            m_areBooksEqual = false;
        m_toPlugIn.push_back({signal, kinds});
    }
    void deliver() {
        const Message message = m_toPlugIn.front();
        m_toPlugIn.pop_front();
        if (message.signal == SIG_ID_MPLAYER_DECODER_RELEASE_REQ && message.kinds != 0)
            ++m_releasesAsked;
        if (message.signal == SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND)
            ++m_refusals;
        tell(message.signal, static_cast<int32_t>(message.kinds), {}, 0);
    }
    void tell(uint32_t signal, int32_t parameter, const std::string& text, int32_t size) {
        CZantMsg msg(signal);
        msg.param1 = parameter;
        msg.signalSize = size;
        if (!text.empty())
            msg.signalPtr = memcpy(::operator new(text.size()), text.data(), text.size());
        m_receiver.ProcessZantMsg(&msg);
        require(msg.signalPtr == nullptr);
    }

    // ---- requesters

    /// The first is nobody in particular.
    UvaGstIfRequester nameOf(size_t who) const {
        return who == 0 ? nullptr : static_cast<UvaGstIfRequester>(&m_requesters[who]);
    }
    void leave(size_t who) {
        m_receiver.leave(nameOf(who));
        for (auto& users : m_users)
            users.erase(who);
    }

    void checkBooks() {
        const auto state = m_receiver.state();
        require((state.used & ~state.available) == 0);
        require(state.releaseRequest == 0 || (state.releaseRequest & state.used) != 0);
        require(state.waiting <= m_depth);
        for (const auto kind : mediaKinds)
            require(m_users[indexOf(kind)].empty() == ((state.used & bitOf(kind)) == 0));
    }

    fuzz::Input m_input;
    Arbiter m_arbiter{1, 1};
    Wire m_wire{[this](uint32_t signal, uint32_t kinds) { hear(signal, kinds); }};
    StepClock m_clock{[this] { return step(); }};
    CUvaGstIfReceiver m_receiver{m_wire, m_clock};
    std::deque<Message> m_toPlugIn; ///< in order: the link is a queue
    std::array<Requester, 3> m_requesters;
    std::array<std::set<size_t>, mediaKinds.size()> m_users;
    int m_depth = 0;   ///< of waits within waits
    int m_asksOut = 0; ///< for decoders back, that the plug-in has not answered
    int m_releasesAsked = 0;
    int m_releasesAnswered = 0;
    int m_refusals = 0;
    bool m_isCutOff = false;
    bool m_wasBroken = false;
    bool m_areBooksEqual = true;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::QuietTraces quiet;
    Schedule(data, size).run();
    return 0;
}
