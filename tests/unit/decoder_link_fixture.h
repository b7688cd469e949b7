#ifndef DECODER_LINK_FIXTURE_H
#define DECODER_LINK_FIXTURE_H

#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "UvaGstMsgDestLowerLayer.h"
#include "messaging/zant_msg.h"
#include "support/wait_until.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <ostream>
#include <sched.h>
#include <string>
#include <utility>
#include <vector>

/// Waits until so many threads of this process have that name, as far as the kernel keeps it: they
/// take it, and leave the list, some time after they begin and end. None has a priority.
inline bool areThreads(const char* name, int count) {
    return support::waitUntil([&] {
        int found = 0;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string own;
            std::getline(std::ifstream(task.path() / "comm"), own);
            found += own == name ? 1 : 0;
            EXPECT_LE(sched_getscheduler(std::stoi(task.path().filename())), SCHED_OTHER) << own;
        }
        return found == count;
    });
}

/// A clock that stands still until it is set forward. Else only a change that is told of ends a
/// sleep.
class SetClock : public UvaGstIfClock {
public:
    Time now() override { return Time(std::chrono::nanoseconds(m_now.load())); }
    bool waitUntil(ConditionVariable& condition, Mutex& mutex, Time deadline) override
        REQUIRES(mutex) {
        if (now() >= deadline)
            return false;
        m_condition = &condition;
        m_mutex = &mutex;
        ++m_sleeps;
        const auto farAway = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        const bool wasTold = condition.waitUntil(mutex, farAway);
        EXPECT_TRUE(wasTold) << "nobody woke who slept";
        if (m_late.load()) {
            mutex.unlock();
            EXPECT_TRUE(support::waitUntil([this] { return !m_late; }));
            mutex.lock();
        }
        return wasTold && now() < deadline;
    }
    void advance(std::chrono::nanoseconds by) {
        m_now += by.count();
        Mutex* const mutex = m_mutex;
        if (!mutex)
            return;
        const MutexLock lock(*mutex); // who has looked at the time sleeps by now
        m_condition.load()->broadcast();
    }
    /// Whoever is woken from now on has the lock after everybody else, until this is taken back.
    void wakeLate(bool late) { m_late = late; }
    bool wakesLate() const { return m_late; }
    /// How often somebody fell asleep.
    int sleeps() const { return m_sleeps; }

private:
    std::atomic<int64_t> m_now{1};
    std::atomic<int> m_sleeps{0};
    std::atomic<bool> m_late{false};
    std::atomic<ConditionVariable*> m_condition{nullptr};
    std::atomic<Mutex*> m_mutex{nullptr};
};

/// Keeps what would go to the main system.
class RecordingLowerLayer : public CUvaGstIfLowerLayer {
public:
    struct Sent {
        uint32_t signal;
        int32_t param1;
        int32_t cookies[2];
        std::string payload;
        bool operator==(const Sent& other) const {
            return signal == other.signal && param1 == other.param1 &&
                   cookies[0] == other.cookies[0] && cookies[1] == other.cookies[1] &&
                   payload == other.payload;
        }
    };

    RecordingLowerLayer() : CUvaGstIfLowerLayer(m_destination) {}

    int32_t SendCmd(CZantMsg* msg) override {
        Sent sent{msg->signalId, msg->param1, {msg->responseInfo, msg->responseInfo2}, {}};
        if (msg->signalPtr)
            sent.payload.assign(static_cast<char*>(msg->signalPtr),
                                static_cast<size_t>(msg->signalSize));
        msg->FreeSignal();
        const std::lock_guard lock(m_lock);
        if (result == 0)
            m_sent.push_back(sent);
        return result;
    }
    std::vector<Sent> take() {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_sent, {});
    }
    /// What sending answers.
    std::atomic<int32_t> result{0};

private:
    CUvaGstMsgDestLowerLayer m_destination;
    std::mutex m_lock;
    std::vector<Sent> m_sent;
};

inline void PrintTo(const RecordingLowerLayer::Sent& sent, std::ostream* out) {
    *out << sent.signal << "(" << sent.param1 << ") cookies " << sent.cookies[0] << " "
         << sent.cookies[1] << " payload of " << sent.payload.size();
}

/// An application message without a media framework.
struct FakeMessage {
    std::string name;
    std::map<std::string, int> integers;
    std::map<std::string, UvaGstIfMedia::Fraction> fractions;
    std::map<std::string, std::string> texts;

    GstMessage* get() { return reinterpret_cast<GstMessage*>(this); }
};

/// Reads fake messages, keeps what is logged.
class FakeMedia : public UvaGstIfMedia {
public:
    FakeMedia() { setUvaGstIfMedia(this); }
    ~FakeMedia() override { setUvaGstIfMedia(nullptr); }

    const char* name(GstMessage* message) override { return of(message).name.c_str(); }
    int integer(GstMessage* message, const char* field) override {
        return find(of(message).integers, field);
    }
    Fraction fraction(GstMessage* message, const char* field) override {
        return find(of(message).fractions, field);
    }
    const char* text(GstMessage* message, const char* field) override {
        const auto& texts = of(message).texts;
        const auto found = texts.find(field);
        return found == texts.end() ? nullptr : found->second.c_str();
    }
    States states(GstElement*) override { return onStates(); }
    bool logs(Category, Level) override { return true; }
    void log(Category category, Level level, const char*, const char*, int,
             const char* line) override {
        const std::lock_guard lock(m_lock);
        m_lines.push_back({level, (category == Category::Backend ? "backend " : "link ") +
                                      std::to_string(level) + " " + line + "\n"});
    }
    /// Category, level and text of what was logged, up to a level; all is forgotten.
    std::string lines(Level most = Warning) {
        const std::lock_guard lock(m_lock);
        std::string text;
        for (const auto& [level, line] : std::exchange(m_lines, {}))
            text += level <= most ? line : "";
        return text;
    }
    /// Called for the pipeline's states.
    std::function<States()> onStates = [] { return States{}; };

private:
    static FakeMessage& of(GstMessage* message) { return *reinterpret_cast<FakeMessage*>(message); }
    template <typename Map>
    static typename Map::mapped_type find(const Map& map, const char* field) {
        const auto found = map.find(field);
        return found == map.end() ? typename Map::mapped_type{} : found->second;
    }

    std::mutex m_lock;
    std::vector<std::pair<Level, std::string>> m_lines;
};

/// A receiver with both of its neighbours in the test's hands.
struct DecoderLink {
    FakeMedia media;
    SetClock clock;
    RecordingLowerLayer lowerLayer;
    CUvaGstIfReceiver receiver{lowerLayer, clock};

    void arrives(SignalIds signal, int32_t param1 = 0, int32_t cookie = 0,
                 const char* text = nullptr, int32_t size = 0) {
        CZantMsg msg(signal);
        msg.param1 = param1;
        msg.responseInfo = cookie;
        msg.responseInfo2 = -cookie;
        msg.signalSize = size;
        if (text) {
            msg.signalSize = size != 0 ? size : static_cast<int32_t>(strlen(text));
            msg.signalPtr = memcpy(::operator new(strlen(text)), text, strlen(text));
        }
        receiver.ProcessZantMsg(&msg);
        EXPECT_EQ(msg.signalPtr, nullptr);
    }
    void noLongerNeeded(const char* type, const UvaGstIfRequester* requester = nullptr) {
        FakeMessage message{"GstNoxDecoderNeeded", {}, {}, {{"type", type}}};
        receiver.handleApplicationMessage(message.get(), requester);
    }
};

#endif
