// What two runs have in common and what parts them; what a shorter record keeps.

#include "compare.h"
#include "minimize.h"
#include "operations.h"
#include "record.h"
#include "script.h"
#include "value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <regex>

namespace {

using namespace record;
using replay::Difference;

/// Writes a record entry by entry; times in milliseconds.
class Story {
public:
    using Put = std::function<void(Encoder& out)>;
    static void nothing(Encoder&) {}
    static Put integer(int value) {
        return [=](Encoder& out) { out.integer(value); };
    }
    static Put real(double value) {
        return [=](Encoder& out) { out.real(value); };
    }

    std::uint32_t add(Kind kind, int time, std::uint16_t code, const Put& put,
                      std::uint32_t number = 0) {
        Encoder out;
        put(out);
        Entry entry;
        entry.kind = kind;
        entry.time = static_cast<std::uint64_t>(time) * 1000000;
        entry.thread = 1;
        entry.object = 1;
        entry.number = number != 0 ? number : ++m_numbers;
        entry.code = code;
        m_entries.push_back({entry, {reinterpret_cast<const char*>(out.data()), out.size()}});
        return entry.number;
    }
    Story& call(int time, int took, Operation operation, const Put& arguments = nothing,
                const Put& answer = integer(1)) {
        const auto code = static_cast<std::uint16_t>(operation);
        const auto number = add(Kind::Call, time, code, arguments);
        add(Kind::Return, time + took, code, answer, number);
        return *this;
    }
    Story& event(int time, UVAEvent::Type type, const Put& members = nothing) {
        m_event = add(Kind::Event, time, static_cast<std::uint16_t>(type), members);
        add(Kind::Taken, time, static_cast<std::uint16_t>(type), nothing, m_event);
        return *this;
    }
    /// To the last event.
    Story& completed(int time) {
        return call(time, 0, Operation::eventCompleted, [event = m_event](Encoder& out) {
            out.id(event);
            out.boolean(true);
        });
    }
    Story& seek(int time, double target, int took, int outcome = 0) {
        call(time, 0, Operation::setPosition, real(target));
        event(time, UVAEvent::CancelDataRequestsAsync, real(target));
        completed(time + 1);
        return event(time + 1 + took, UVAEvent::SeekCompletedEx, integer(outcome));
    }

    Record record() const {
        Record plain;
        std::memcpy(plain.header.magic, magic, sizeof magic);
        plain.header.version = version;
        plain.header.segmentSize = segmentSize;
        for (const auto& [entry, body] : m_entries) {
            plain.entries.push_back(entry);
            plain.entries.back().body = body;
        }
        std::vector<const Entry*> all;
        for (const auto& entry : plain.entries)
            all.push_back(&entry);
        return readRecord(writeRecord(plain, all));
    }

private:
    std::vector<std::pair<Entry, std::string>> m_entries;
    std::uint32_t m_numbers = 0;
    std::uint32_t m_event = 0;
};

Story begun() {
    Story story;
    story.call(0, 1, Operation::requestBackend, Story::integer(0),
               [](Encoder& out) { out.boolean(true); });
    return story;
}

std::vector<std::string> textsOf(const Story& before, const Story& after, bool fast = false) {
    replay::Bounds bounds;
    bounds.fast = fast;
    std::vector<std::string> texts;
    for (const auto& difference : replay::compare(before.record(), after.record(), bounds))
        texts.push_back(difference.text);
    return texts;
}

using Texts = std::vector<std::string>;

TEST(CompareTest, NoiseOfTwoRunsIsNoDifference) {
    const auto position = [](int time, double seconds) {
        return [=](Story& story) {
            story.call(time, 0, Operation::getPositionSeconds, Story::nothing, [=](Encoder& out) {
                out.integer(1);
                out.real(seconds);
            });
        };
    };
    Story one = begun(), other = begun();
    one.event(5, UVAEvent::NeedMSEData)
        .event(6, UVAEvent::BackendResourceRequestAsync, Story::integer(0));
    one.event(7, UVAEvent::BackendResourceRequestAsync, Story::integer(1));
    other.event(5, UVAEvent::BackendResourceRequestAsync, Story::integer(1));
    other.event(9, UVAEvent::BackendResourceRequestAsync, Story::integer(0));
    position(100, 0.1)(one);
    position(150, 0.15)(other);
    one.seek(200, 3, 40).call(400, 2, Operation::play).call(402, 0, Operation::setVisibility);
    other.seek(220, 3, 90).call(399, 0, Operation::setVisibility).call(400, 70, Operation::play);
    EXPECT_EQ(textsOf(one, other), Texts());
}

TEST(CompareTest, AnswersEventsAndTheirOrderAreTold) {
    const Story before = begun().seek(100, 3, 10).event(900, UVAEvent::PlaybackFinished);
    EXPECT_EQ(textsOf(before, begun().seek(100, 3, 10, 2).event(900, UVAEvent::PlaybackFinished)),
              Texts{"SeekCompletedEx(outcome=2) came, not SeekCompletedEx(outcome=0)"});
    EXPECT_EQ(textsOf(before, begun().seek(100, 3, 10)), Texts{"PlaybackFinished did not come"});
    EXPECT_EQ(textsOf(begun().seek(100, 3, 10), before),
              Texts{"PlaybackFinished came, which the record does not have"});
    EXPECT_EQ(textsOf(begun().call(5, 1, Operation::play),
                      begun().call(5, 1, Operation::play, Story::nothing, Story::integer(2))),
              Texts{"play() answered 2, not 1"});
    EXPECT_EQ(textsOf(begun().call(5, 1, Operation::play).call(6, 1, Operation::pause),
                      begun().call(5, 1, Operation::play)),
              Texts{"pause() was not made again"});
}

TEST(CompareTest, TimesBeyondTheBoundAreTold) {
    const Story before = begun().seek(100, 3, 10);
    EXPECT_EQ(
        textsOf(before, begun().seek(100, 3, 1500)),
        Texts{"SeekCompletedEx(outcome=0) came 1500 ms behind the call before it, not 10 ms"});
    EXPECT_EQ(
        textsOf(begun().call(5, 1, Operation::pause), begun().call(5, 3000, Operation::pause)),
        Texts{"pause() took 3000 ms, not 1 ms"});
}

TEST(CompareTest, APositionCountsInTheRecordedTimeAlone) {
    const auto at = [](double seconds) {
        return begun().call(100, 0, Operation::getPosition, Story::nothing, [=](Encoder& out) {
            out.list(4);
            for (const double value : {seconds, 1.0, 77.0, seconds})
                out.real(value);
        });
    };
    EXPECT_EQ(textsOf(at(2), at(4)), Texts{"the position was 4.000 s, not 2.000 s"});
    EXPECT_EQ(textsOf(at(2), at(2.9)), Texts());
    EXPECT_EQ(textsOf(at(2), at(4), true), Texts());
}

TEST(CompareTest, DecodersThatWereNotYetThereAreNotReleasedInAFastReplay) {
    const auto released = [](Story story) {
        return story.event(910, UVAEvent::BackendResourceReleased, Story::integer(0));
    };
    const Story stopped = begun().call(900, 20, Operation::releaseResources);
    EXPECT_EQ(textsOf(released(stopped), stopped, true), Texts());
    EXPECT_EQ(textsOf(released(stopped), stopped),
              Texts{"BackendResourceReleased(audioOnly=0) did not come"});
}

TEST(ScriptTest, AnAnswerFromBeforeASeekIsVoid) {
    Story story = begun();
    story.event(5, UVAEvent::NeedMSEData, [](Encoder& out) {
        out.integer(2);
        out.integer(30);
    });
    const std::uint32_t request = 2;
    story.seek(10, 3, 5);
    const auto write = [&](std::uint32_t number) {
        story.call(30, 0, Operation::writeData, [=](Encoder& out) {
            out.list(3);
            out.id(number);
            out.integer(2);
            out.integer(30);
            out.integer(0);
            out.integer(0);
        });
    };
    write(request);
    write(0); // of the host's own making
    const auto record = story.record();
    const auto script = replay::makeScript(record);
    ASSERT_EQ(script.answers.size(), 2U); // that of the seek, too
    EXPECT_TRUE(script.answers[1].isVoid);
    EXPECT_EQ(script.answers[1].source, 2);
    EXPECT_EQ(script.steps.back().operation(), Operation::writeData);
}

TEST(MinimizeTest, WhatTheFailureNeedsStaysWithItsEvents) {
    Story story = begun();
    story.call(10, 0, Operation::play);
    for (int i = 0; i < 20; ++i)
        story.call(20 + i, 0, Operation::getDuration, Story::nothing, Story::integer(3));
    for (int i = 0; i < 10; ++i)
        story.seek(100 + 50 * i, i, 10);
    story.call(900, 0, Operation::releaseBackend);
    const auto record = story.record();
    // It fails when a seek to 7 is behind one to 2.
    const auto fails = [](const Record& shorter) {
        const auto script = replay::makeScript(shorter);
        bool two = false, seven = false;
        for (const auto& step : script.steps) {
            const bool isSeek = step.operation() == Operation::setPosition;
            two = two || (isSeek && step.entry->values[0].real == 2);
            seven = seven || (two && isSeek && step.entry->values[0].real == 7);
        }
        return seven;
    };
    std::size_t tries = 0;
    const auto bytes = replay::minimize(
        record, fails, [&](const replay::Try& attempt) { tries = attempt.number; });
    const auto shortest = readRecord(bytes);
    ASSERT_EQ(shortest.error, "");
    std::string calls;
    for (const auto& entry : shortest.entries)
        if (entry.kind == Kind::Call || entry.kind == Kind::Event)
            calls += std::regex_replace(nameOf(entry), std::regex("#[0-9]+"), "#") + " ";
    EXPECT_EQ(calls, "UVA_RequestBackend(0) "
                     "setPosition(2) CancelDataRequestsAsync(position=2) eventCompleted(#, true) "
                     "SeekCompletedEx(outcome=0) "
                     "setPosition(7) CancelDataRequestsAsync(position=7) eventCompleted(#, true) "
                     "SeekCompletedEx(outcome=0) "
                     "UVA_ReleaseBackend() ");
    EXPECT_LT(tries, 40U);
}

} // namespace
