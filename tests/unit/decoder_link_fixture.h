#ifndef DECODER_LINK_FIXTURE_H
#define DECODER_LINK_FIXTURE_H

#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReceiver.h"
#include "UvaGstMsgDestLowerLayer.h"
#include "messaging/queue/zant_msg.h"
#include "support/wait_until.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
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

/// Keeps what would go to the main system: "signal(parameter)#cookies payload", the latter two
/// where there are any.
class RecordingLowerLayer : public CUvaGstIfLowerLayer {
public:
    RecordingLowerLayer() : CUvaGstIfLowerLayer(m_destination) {}

    int32_t SendCmd(CZantMsg* msg) override {
        std::string sent = std::to_string(msg->signalId) + "(" + std::to_string(msg->param1) + ")";
        if (msg->responseInfo != 0 || msg->responseInfo2 != 0)
            sent += "#" + std::to_string(msg->responseInfo) + std::to_string(msg->responseInfo2);
        if (msg->signalPtr)
            sent += " " + std::string(static_cast<char*>(msg->signalPtr),
                                      static_cast<size_t>(msg->signalSize));
        msg->FreeSignal();
        const std::lock_guard lock(m_lock);
        if (result == 0)
            m_sent += sent + " ";
        return result;
    }
    std::string take() {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_sent, {});
    }
    /// What sending answers.
    std::atomic<int32_t> result{0};

private:
    CUvaGstMsgDestLowerLayer m_destination;
    std::mutex m_lock;
    std::string m_sent;
};

/// Keeps what is logged.
class FakeMedia {
public:
    using Media = UvaGstIfMedia;

    FakeMedia() {
        lines();
        onStates = [] { return Media::States{}; };
        onLog = [] {};
        static constexpr Media hooks{[](Media::Category, Media::Level) { return true; }, log,
                                     [](GstElement*) { return onStates(); }};
        setUvaGstIfMedia(hooks);
    }
    /// Category, level and text of what was logged, up to a level; all is forgotten.
    static std::string lines(Media::Level most = Media::Warning) {
        const std::lock_guard lock(m_lock);
        std::string text;
        for (const auto& [level, line] : std::exchange(m_lines, {}))
            text += level <= most ? line : "";
        return text;
    }
    /// Called for the pipeline's states, and for each line.
    inline static std::function<Media::States()> onStates;
    inline static std::function<void()> onLog;

private:
    static void log(const Media::Line& line) {
        onLog();
        const std::lock_guard lock(m_lock);
        const bool own = line.category == Media::Category::Backend;
        m_lines.emplace_back(line.level, (own ? "backend " : "link ") + std::to_string(line.level) +
                                             " " + line.text + "\n");
    }

    inline static std::mutex m_lock;
    inline static std::vector<std::pair<Media::Level, std::string>> m_lines;
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
    void noLongerNeeded(const char* type, UvaGstIfRequester requester = nullptr) {
        receiver.handleApplicationMessage({"GstNoxDecoderNeeded", type, nullptr, {}}, requester);
    }
};

#endif
