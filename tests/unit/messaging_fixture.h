#ifndef MESSAGING_FIXTURE_H
#define MESSAGING_FIXTURE_H

#include "debug/trace/zant_trace_core.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue/zant_msg_queue.h"
#include "support/stdout_capture.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

/// A payload that counts how many of its kind live.
class CountedPayload : public CZantMsgObject {
public:
    CountedPayload() { ++alive; }
    CountedPayload(const CountedPayload& other) : CZantMsgObject(other) { ++alive; }
    ~CountedPayload() override { --alive; }
    CZantMsgObject* Clone() const override { return new CountedPayload(*this); }

    static inline std::atomic<int> alive{0};
};

inline void* newBuffer(const char* text) {
    const size_t size = strlen(text) + 1;
    return memcpy(::operator new(size), text, size);
}

/// A message with both kinds of payload.
inline void load(CZantMsg& msg, const char* text) {
    msg.signalPtr = newBuffer(text);
    msg.signalSize = static_cast<int32_t>(strlen(text)) + 1;
    msg.signalObj = new CountedPayload;
}

/// Takes what is traced; at the end no payload may be left.
class MessagingTest : public ::testing::Test {
protected:
    MessagingTest() {
        zantTrace.SetTraceOnAll(TRACELEVEL_WARNING);
        zantTrace.SetTraceModeDirectPrint(1);
        zantTrace.StartTracingToScreen();
    }
    ~MessagingTest() override { EXPECT_EQ(CountedPayload::alive, 0); }

    /// A queue name of this process and test.
    static std::string queueName(const char* suffix = "") {
        return "/zant_test_" + std::to_string(getpid()) + suffix;
    }
    static int32_t open(CZantMsgQueue& queue, const char* suffix = "", int maxMsgs = 10,
                        int oflag = O_RDWR | O_CREAT | O_NONBLOCK) {
        return queue.Open(queueName(suffix).c_str(), oflag, 0600, maxMsgs, true);
    }
    /// How often the text was traced since the last call.
    int traced(const std::string& text) {
        const std::string lines = screen.take();
        int count = 0;
        for (size_t at = lines.find(text); at != std::string::npos; at = lines.find(text, at + 1))
            ++count;
        return count;
    }

    support::StdoutCapture screen;
};

#endif
