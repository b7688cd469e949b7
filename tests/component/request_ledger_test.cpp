#include "request_ledger.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using host::RequestLedger;
using namespace std::chrono_literals;

/// A ledger, and a time that passes when it is told to.
class RequestLedgerTest : public testing::Test {
protected:
    static constexpr host::SourceId sound = 1, picture = 2;
    static constexpr auto patience = 10s;

    RequestLedger::Number ask(host::SourceId source) { return m_ledger.ask(source, m_now); }
    void pass(std::chrono::seconds time) { m_now += time; }
    void seek(const std::set<host::SourceId>& excused = {}) {
        m_ledger.revokeAll(m_now, patience, excused);
    }
    /// Requests, answers, asked again, unasked, unanswered.
    using Counts = std::array<std::uint64_t, 5>;
    Counts counts() const {
        const auto now = m_ledger.counts();
        return {now.requests, now.answers, now.askedAgain, now.unasked, now.unanswered};
    }

    RequestLedger m_ledger;
    host::Clock::time_point m_now;
};

TEST_F(RequestLedgerTest, EachIsAnsweredOnce) {
    const auto first = ask(sound);
    m_ledger.answer(picture, ask(picture)); // sources know nothing of each other
    m_ledger.answer(sound, first);
    const auto second = ask(sound);
    ask(picture);
    pass(60s);
    m_ledger.answer(sound, second); // late, and not never
    m_ledger.end(picture);
    ask(picture); // behind its end, which is left alone
    pass(60s);
    seek();
    EXPECT_EQ(counts(), (Counts{5, 4, 0, 0, 0}));
}

TEST_F(RequestLedgerTest, OneBehindAnAnswerMayBeEarly) {
    m_ledger.answer(sound, ask(sound));
    const auto early = ask(sound);
    const auto next = ask(sound);
    m_ledger.answer(sound, early); // was on its way
    m_ledger.answer(sound, next);
    EXPECT_EQ(counts(), (Counts{3, 2, 0, 0, 0}));
    ask(sound);
    ask(sound);
    ask(sound);
    EXPECT_EQ(counts(), (Counts{6, 2, 1, 0, 0}));
}

TEST_F(RequestLedgerTest, WhatIsGivenForAVoidOneIsUsedUpToo) {
    m_ledger.answer(sound, ask(sound));
    const auto early = ask(sound);
    ask(sound);
    m_ledger.answer(sound, early);
    ask(sound);
    m_ledger.answer(sound, ask(sound));
    EXPECT_EQ(counts(), (Counts{5, 2, 0, 0, 0}));
}

TEST_F(RequestLedgerTest, FindsWhatIsWrong) {
    ask(sound);
    const auto again = ask(sound);
    EXPECT_EQ(counts(), (Counts{2, 0, 1, 0, 0}));
    m_ledger.answer(sound, again);
    m_ledger.answer(sound, again);
    EXPECT_EQ(counts(), (Counts{2, 1, 1, 1, 0}));
    m_ledger.answer(picture, 0);
    EXPECT_EQ(counts(), (Counts{2, 1, 1, 2, 0}));
    ask(picture);
    pass(patience + 1s);
    seek();
    seek(); // found once
    EXPECT_EQ(counts(), (Counts{3, 1, 1, 2, 1}));
}

TEST_F(RequestLedgerTest, WhatIsVoidIsNoFault) {
    const auto before = ask(sound);
    const auto removed = ask(picture);
    pass(patience + 1s);
    seek({sound, picture}); // they had nothing to write
    const auto behind = ask(sound);
    m_ledger.answer(sound, before); // was on its way: answers neither
    m_ledger.answer(sound, behind);
    seek();
    ask(sound); // was on its way, too
    m_ledger.answer(sound, ask(sound));
    m_ledger.revoke(picture);
    ask(picture);
    m_ledger.answer(picture, removed);
    pass(patience);
    seek();
    EXPECT_EQ(counts(), (Counts{6, 2, 0, 0, 0}));
}

} // namespace
