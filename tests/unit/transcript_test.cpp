// What zantsh shows of what a process prints, however it arrives.

#include "transcript.h"

#include <gtest/gtest.h>

using zantsh::Marks;
using zantsh::Transcript;
using Scope = Transcript::Scope;

namespace {

const std::string trace = "[00007] e2e1c6c0 example ";
const std::string ack = trace + "CMshell::RealThreadFunction() - Sending Ack/Nack successful\n";
const std::string skip = trace + "CMshell::MshellReadFromSocket() - FAILED\n";

std::string traced(const std::string& mark) {
    return trace + "CMshell::ProcessMshellCmd(): Processing cmd: m_echo " + mark + "\n" + mark +
           "\n" + ack;
}

/// What is shown, however the text is cut in two.
std::string shown(Scope scope, const Marks& own, const std::string& printed) {
    std::string first;
    for (std::size_t cut = 0; cut <= printed.size(); ++cut) {
        Transcript transcript(scope);
        transcript.expect(own);
        transcript.expectSkip();
        std::string text = transcript.take(printed.substr(0, cut));
        text += transcript.take(printed.substr(cut));
        text += transcript.flush();
        if (cut == 0)
            first = text;
        EXPECT_EQ(text, first) << "cut at " << cut;
        EXPECT_TRUE(transcript.hasBegun());
        EXPECT_TRUE(transcript.hasEnded());
    }
    return first;
}

} // namespace

TEST(Transcript, ShowsACommandAndWhatIsPrintedBetween) {
    const Marks own, other;
    EXPECT_NE(own.begin, other.begin);
    const std::string printed = ack + "before\n" + skip + skip + traced(own.begin) + "one\n" + ack +
                                "half" + traced(own.end) + ack + skip + other.begin +
                                "\nforeign\n" + trace + "of all\n" + other.end + "\n" + ack +
                                "after\nlast";
    EXPECT_EQ(shown(Scope::commands, own, printed), "one\n" + ack + "half");
    EXPECT_EQ(shown(Scope::everything, own, printed), ack + "before\n" + skip + "one\n" + ack +
                                                          "half" + ack + skip + trace + "of all\n" +
                                                          "after\nlast");
}

TEST(Transcript, WhatOnlyLooksLikeAMarkIsText) {
    const Marks own;
    const std::string text = "zantsh.mark.\nzantsh.mark.0123456789abcdef.middle\n2 zantsh.mark\n";
    EXPECT_EQ(shown(Scope::commands, own, own.begin + "\n" + text + own.end + "\n"), text);
}

TEST(Transcript, ADeadSessionHidesNothingOfTheNext) {
    const Marks own, dead;
    EXPECT_EQ(shown(Scope::everything, own,
                    dead.begin + "\nits own\n" + own.begin + "\nmine\n" + own.end + "\nall\n"),
              "mine\nall\n");
}
