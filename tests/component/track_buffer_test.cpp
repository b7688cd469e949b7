// A track buffer, and what reads it while it changes.

#include "host/track_buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <optional>
#include <sstream>
#include <thread>

namespace {

using host::BufferedFrame;
using host::SampleStream;
using host::StreamInfo;
using host::TrackBuffer;

constexpr double unit = 0.04; ///< of frames, seconds

/// Frames are told as text: each group begins with its sequence and the number of the frame that
/// its key frame is shown as; what follows are the frames decoded from it. "10@0: 0 3 1 2" are the
/// sequences 10 to 13, in decoding order.
std::vector<BufferedFrame> frames(const std::string& text) {
    std::vector<BufferedFrame> result;
    std::istringstream words(text);
    std::string word;
    std::uint64_t sequence = 0, group = 0;
    double decoded = 0;
    while (words >> word) {
        if (word.back() == ':') {
            group = sequence = std::stoull(word);
            decoded = std::stod(word.substr(word.find('@') + 1));
            continue;
        }
        BufferedFrame frame;
        frame.group = group;
        frame.sequence = sequence++;
        frame.sample.pts = std::stod(word) * unit;
        frame.sample.dts = decoded++ * unit;
        frame.sample.duration = unit;
        frame.sample.keyFrame = frame.sequence == group;
        result.push_back(frame);
    }
    return result;
}

std::vector<std::uint64_t> sequences(std::uint64_t from, std::uint64_t to) {
    std::vector<std::uint64_t> result;
    for (; from <= to; ++from)
        result.push_back(from);
    return result;
}

class TrackBufferTest : public testing::Test {
protected:
    TrackBufferTest() { listen(); }

    void listen() {
        m_stream->listen([this](const SampleStream::Change& change) {
            static constexpr const char* names[] = {"arrived", "replaced", "reopened"};
            m_told << names[static_cast<int>(change.kind)];
            if (change.kind == SampleStream::Change::Kind::Replaced)
                m_told << " to " << std::lround(change.until / unit);
            m_told << "; ";
        });
    }
    void add(const std::string& text) { m_buffer->add(frames(text)); }
    /// The frames that come, by what they are shown as; "|": nothing more, "end": never more.
    std::string read(std::size_t count = 100) {
        std::ostringstream text;
        const auto batch = m_stream->read(count);
        for (const auto& sample : batch.samples)
            text << std::lround(sample->pts() / unit) << " ";
        text << batch.error << (batch.ended ? "end" : "|");
        return text.str();
    }
    std::string readFrom(double frame, std::size_t count = 100) {
        EXPECT_EQ(m_stream->seek(frame * unit), "");
        return read(count);
    }
    std::string told() {
        auto text = m_told.str();
        m_told.str("");
        return text;
    }

    std::optional<TrackBuffer> m_buffer{std::in_place, StreamInfo{}};
    std::unique_ptr<SampleStream> m_stream = m_buffer->stream();
    std::ostringstream m_told;
};

TEST_F(TrackBufferTest, ReadsFromTheKeyFrameOfATimeInDecodingOrder) {
    add("20@8: 8 11 9 10");
    add("10@0: 0 3 1 2");
    add("14@4: 4 7 5 6");
    EXPECT_EQ(readFrom(0), "0 3 1 2 4 7 5 6 8 11 9 10 |");
    EXPECT_EQ(readFrom(6.5), "4 7 5 6 8 11 9 10 |");
    EXPECT_EQ(readFrom(8), "8 11 9 10 |");
    EXPECT_EQ(readFrom(11.9), "8 11 9 10 |");
    EXPECT_EQ(readFrom(14), "8 11 9 10 |") << "no further behind it than a gap";
    EXPECT_EQ(readFrom(17), "|");
    EXPECT_EQ(readFrom(-3), "0 3 1 2 4 7 5 6 8 11 9 10 |");
    EXPECT_EQ(readFrom(-5), "|");
    EXPECT_EQ(readFrom(0, 3), "0 3 1 |");
    EXPECT_EQ(read(3), "2 4 7 |");
    // Pictures in front of a key frame that are decoded behind it make no gap.
    add("30@12: 18 12 13 14 15 16 17");
    EXPECT_EQ(readFrom(8), "8 11 9 10 18 12 13 14 15 16 17 |");
}

TEST_F(TrackBufferTest, WaitsBeforeAGapAndTellsOnceWhenSomethingComes) {
    add("1@0: 0 1");
    add("20@6: 6 7");    // 0.16 s behind the end
    add("40@11: 11 12"); // 0.12 s: is played over
    EXPECT_EQ(readFrom(6), "6 7 11 12 |");
    EXPECT_EQ(readFrom(0), "0 1 |");
    EXPECT_EQ(told(), "");
    EXPECT_EQ(read(), "|");
    add("60@30: 30");
    add("61@31: 31");
    EXPECT_EQ(told(), "arrived; ") << "it has not been read since";
    EXPECT_EQ(read(), "|") << "that was elsewhere";
    add("3@2: 2 3 4 5");
    EXPECT_EQ(told(), "arrived; ");
    EXPECT_EQ(read(), "2 3 4 5 6 7 11 12 |");
    // What was sought where nothing lay, or a little before what comes.
    EXPECT_EQ(readFrom(21), "|");
    add("80@24: 24 25");
    EXPECT_EQ(told(), "arrived; ");
    EXPECT_EQ(read(), "24 25 |");
    EXPECT_EQ(readFrom(15), "11 12 |") << "what follows may adjoin";
    EXPECT_EQ(read(), "|");
    add("90@17: 17");
    EXPECT_EQ(read(), "17 |");
    // Frames longer than the tolerance are no gaps.
    auto slow = frames("100@50: 50");
    slow.front().sample.duration = 10 * unit;
    m_buffer->add(slow);
    add("110@70: 70");
    EXPECT_EQ(readFrom(50), "50 70 |");
}

TEST_F(TrackBufferTest, GoesOnWithTheKeyFrameOfWhatTookThePlace) {
    add("1@0: 0 1 2 3 4 5 6 7");
    add("9@8: 8 9");
    EXPECT_EQ(readFrom(0, 4), "0 1 2 3 |");
    EXPECT_EQ(told(), "");
    m_buffer->remove(sequences(5, 8));
    EXPECT_EQ(told(), "") << "nobody has read it";
    add("20@4: 4 5 6 7");
    EXPECT_EQ(read(), "4 5 6 7 8 9 |");
    m_buffer->remove(sequences(20, 23));
    EXPECT_EQ(told(), "replaced to 8; ");
    EXPECT_EQ(readFrom(1), "0 1 2 3 |") << "it is a gap now";
    add("30@3: 3 4 5 6 7");
    EXPECT_EQ(told(), "");
    EXPECT_EQ(read(), "3 4 5 6 7 8 9 |") << "from before where it was";
    add("30@3: 3 4 5 6 7");
    EXPECT_EQ(told(), "replaced to 8; ") << "the same numbers";
    EXPECT_EQ(m_buffer->size(), 11U);
    // Without a key frame nothing can be decoded.
    EXPECT_EQ(readFrom(0, 5), "0 1 2 3 3 |");
    m_buffer->remove({30, 9});
    EXPECT_EQ(read(), "4 5 6 7 |");
    EXPECT_EQ(readFrom(9), "|");
    m_buffer->remove(sequences(0, 100));
    for (const double time : {std::nan(""), std::numeric_limits<double>::infinity()}) {
        auto untimed = frames("1@0: 0 1");
        untimed[0].sample.pts = time;
        untimed[1].sample.dts = time;
        m_buffer->add(untimed);
    }
    EXPECT_EQ(m_buffer->size(), 0U);
    EXPECT_EQ(readFrom(0), "|");
}

TEST_F(TrackBufferTest, EndsBehindTheLastFrameUntilThereIsMore) {
    add("1@0: 0 1");
    add("9@8: 8 9");
    EXPECT_EQ(readFrom(8), "8 9 |");
    EXPECT_EQ(read(), "|");
    m_buffer->setEnded(true);
    EXPECT_EQ(told(), "arrived; ");
    EXPECT_EQ(read(), "end");
    EXPECT_EQ(readFrom(9.5, 2), "8 9 |");
    EXPECT_EQ(read(), "end");
    EXPECT_EQ(readFrom(100), "end") << "behind all there is";
    EXPECT_EQ(readFrom(0), "0 1 |") << "behind the gap there is more";
    EXPECT_EQ(readFrom(8), "8 9 end");
    add("11@10: 10");
    EXPECT_EQ(told(), "reopened; ");
    EXPECT_EQ(read(), "10 end");
    m_buffer->setEnded(true);
    EXPECT_EQ(told(), "");
    m_buffer->setEnded(false);
    EXPECT_EQ(told(), "reopened; ");
    EXPECT_EQ(read(), "|");
    m_buffer->setEnded(false);
    EXPECT_EQ(told(), "");
    // What has read it, and what it has read, outlive it.
    m_stream->seek(0);
    const auto read = m_stream->read(2);
    EXPECT_EQ(readFrom(50), "|");
    m_buffer.reset();
    EXPECT_EQ(told(), "arrived; ");
    EXPECT_EQ(readFrom(0), "end");
    EXPECT_EQ(read.samples.at(1)->pts(), unit);
}

TEST_F(TrackBufferTest, HasOneReader) {
    add("1@0: 0 1 2");
    EXPECT_EQ(readFrom(0, 1), "0 |");
    auto newer = m_buffer->stream();
    EXPECT_EQ(read(), "end");
    m_buffer->remove({1});
    EXPECT_EQ(told(), "") << "it hears nothing any more";
    std::swap(m_stream, newer);
    newer.reset();
    listen();
    EXPECT_EQ(read(), "|") << "its key frame is gone";
    add("1@0: 0");
    EXPECT_EQ(told(), "arrived; ");
    EXPECT_EQ(read(), "0 1 2 |");
    m_stream->interrupt();
    EXPECT_EQ(read(), "reading was interrupted|");
}

/// A page that appends and removes, a player that reads and seeks.
TEST_F(TrackBufferTest, IsFilledWhileItIsRead) {
    std::atomic<bool> done{false};
    m_stream->listen([](const auto&) {}); // told or not, as the threads meet
    std::thread page([&] {
        for (std::uint64_t round = 0; round < 200; ++round) {
            const auto at = std::to_string(round % 50 * 4);
            std::vector<BufferedFrame> group;
            for (std::uint64_t i = 0; i < 4; ++i) {
                BufferedFrame frame;
                frame.group = 1 + 4 * round;
                frame.sequence = frame.group + i;
                frame.sample.pts = static_cast<double>(round % 50 * 4 + i) * unit;
                frame.sample.dts = frame.sample.pts;
                frame.sample.duration = unit;
                frame.sample.keyFrame = i == 0;
                group.push_back(frame);
            }
            if (round >= 50)
                m_buffer->remove(sequences(1 + 4 * (round - 50), 4 + 4 * (round - 50)));
            m_buffer->add(std::move(group));
            m_buffer->setEnded(round % 2 == 0);
        }
        done = true;
    });
    std::size_t count = 0;
    double target = 0;
    for (bool last = false; !last;) {
        last = done;
        if (count % 7 == 0 || last)
            m_stream->seek(target = last ? 0 : target + 1);
        double before = -1;
        for (const auto& sample : m_stream->read(1000).samples) {
            EXPECT_GT(sample->pts(), before) << "in order";
            before = sample->pts();
            ++count;
        }
    }
    page.join();
    m_stream->seek(0);
    EXPECT_EQ(m_stream->read(1000).samples.size(), 200U);
}

} // namespace
