#include "decoder_link_fixture.h"
#include "support/wait_until.h"

#include <algorithm>

#include <gtest/gtest.h>
#include <random>
#include <thread>

namespace {

using namespace std::chrono_literals;

/// A main system that answers as chance has it, forgets everything when it is killed, and keeps
/// account of what it asked back.
class Schedule : private DecoderLink {
public:
    explicit Schedule(unsigned seed) : m_random(seed) {}

    void run() {
        std::vector<std::thread> sinks;
        for (size_t nr = 0; nr < std::size(m_backends); ++nr)
            sinks.emplace_back([this, nr] { play(nr); });
        for (int step = 0; step < 30; ++step) {
            mainSystemActs();
            takeAnswers();
            check();
        }
        m_ends = true;
        ASSERT_TRUE(support::waitUntil([&] {
            clock.advance(5s);
            return m_ended == static_cast<int>(sinks.size());
        })) << "a waiter did not end";
        for (std::thread& sink : sinks)
            sink.join();
        // Everything is given back: so every request has been answered.
        takeAnswers();
        check();
        EXPECT_EQ(receiver.state().used, 0u);
        EXPECT_EQ(receiver.state().releaseRequest, 0u);
        EXPECT_EQ(receiver.state().waiting, 0);
        EXPECT_EQ(m_asked, m_answered);
    }

private:
    int chance(int of) { return static_cast<int>(m_random() % static_cast<unsigned>(of)); }

    /// Two backends that ask, use and give back until the end, one in either order.
    void play(size_t nr) {
        UvaGstIfRequester& mine = m_backends[nr];
        for (int round = 0; !m_ends; ++round) {
            const bool video = (static_cast<size_t>(round) + nr) % 2 == 0;
            if (receiver.requestDecoder(video ? "video" : "audio", &mine) && round % 3 == 0)
                noLongerNeeded(video ? "-video" : "-audio", &mine);
            if (round % 5 == 4)
                receiver.leave(mine);
        }
        receiver.leave(mine);
        ++m_ended;
    }

    void mainSystemActs() {
        switch (chance(7)) {
        case 0:
        case 1:
            arrives(SIG_ID_MPLAYER_DECODER_AVAILABLE_IND, 1 + chance(3));
            break;
        case 2:
            arrives(SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND);
            break;
        case 3:
            askBack();
            break;
        case 4: {
            UvaGstIfRequester& breaking = m_backends[chance(2)];
            receiver.breakWaits(breaking);
            receiver.allowWaits(breaking);
            break;
        }
        case 5:
            clock.advance(std::chrono::milliseconds(chance(6000)));
            break;
        default:
            std::this_thread::yield();
        }
    }

    /// With a cookie, which tells answers at once from later ones.
    void askBack() {
        const int32_t kinds = 1 + chance(3);
        ++m_asked;
        m_open.push_back({++m_cookie, kinds});
        arrives(SIG_ID_MPLAYER_DECODER_RELEASE_REQ, kinds, m_cookie);
    }

    /// Answers that name their request come first: a later answer is to what is left then.
    void takeAnswers() {
        auto answers = lowerLayer.take();
        std::stable_partition(answers.begin(), answers.end(),
                              [](const auto& answer) { return answer.cookies[0] != 0; });
        for (const auto& answer : answers) {
            if (answer.signal != SIG_ID_MPLAYER_DECODER_RELEASE_RESP)
                continue;
            const auto isAnswered = [&answer](const Request& request) {
                return request.kinds == answer.param1 &&
                       (answer.cookies[0] == 0 || request.cookie == answer.cookies[0]);
            };
            const auto found = std::find_if(m_open.begin(), m_open.end(), isAnswered);
            if (found == m_open.end()) {
                ADD_FAILURE() << "an answer to no request";
                continue;
            }
            m_open.erase(found);
            ++m_answered;
        }
    }

    void check() {
        const auto now = receiver.state();
        EXPECT_EQ(now.used & ~now.available, 0u) << "used without being available";
        EXPECT_TRUE(now.releaseRequest == 0 || (now.releaseRequest & now.used) != 0)
            << "a request that nothing stands against is not answered";
    }

    struct Request {
        int32_t cookie;
        int32_t kinds;
    };

    std::minstd_rand m_random;
    UvaGstIfRequester m_backends[2];
    std::atomic<bool> m_ends{false};
    std::atomic<int> m_ended{0};
    std::vector<Request> m_open;
    int32_t m_cookie = 0;
    int m_asked = 0;
    int m_answered = 0;
};

TEST(DecoderSchedules, HoldTheirInvariants) {
    for (unsigned seed = 1; seed <= 1000 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Schedule(seed).run();
    }
}

} // namespace
