// What uva-qualify makes of what it sees and hears, and what its reports make of that.

#include "finding.h"
#include "findings.h"
#include "groups/holdings.h"
#include "groups/pictures.h"
#include "limits.h"
#include "media/look.h"
#include "media/mark.h"
#include "report/report.h"
#include "watch/sound_listener.h"
#include "watch/watch.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <sstream>
#include <tuple>

namespace {

using namespace qualify;

constexpr Clock::time_point begin{std::chrono::seconds(100)};

Clock::time_point after(double milliseconds) {
    return begin + std::chrono::duration_cast<Clock::duration>(
                       std::chrono::duration<double, std::milli>(milliseconds));
}

/// Pictures 40 ms apart; -1: one that cannot be read.
std::vector<SeenPicture> shown(const std::vector<int>& numbers) {
    std::vector<SeenPicture> pictures;
    for (const int number : numbers) {
        const auto time = after(40.0 * static_cast<double>(pictures.size()));
        const Mark mark{'A', number, number * 40};
        pictures.push_back({time, number < 0 ? std::nullopt : std::optional(mark), false, {}});
    }
    return pictures;
}

TEST(QualifyMarks, AreReadAsWrittenAndNothingElseIs) {
    const Mark mark{'Q', 12345, 654321};
    const auto read = parseMark(textOf(mark));
    ASSERT_TRUE(read);
    EXPECT_EQ(textOf(*read), "Q-12345-654321");
    for (const char* text :
         {"", "A", "A-1-2", "A-00001-000040x", "A-0000a-000040", "AA00001-000040"})
        EXPECT_FALSE(parseMark(text)) << text;
}

/// A picture of a clip, without its mark.
Planes drawn(int width, int height) {
    auto planes = Planes::subsampled(width, height);
    const TestCard card(width, height);
    for (const auto& [name, isEdge, area, colour] : card.patches())
        for (int y = area.top; y < area.bottom; ++y)
            for (int x = area.left; x < area.right; ++x) {
                const auto chroma = static_cast<std::size_t>(y / 2 * planes.chromaWidth + x / 2);
                planes.luma[static_cast<std::size_t>(y * width + x)] =
                    static_cast<std::uint8_t>(colour.y);
                planes.cb[chroma] = static_cast<std::uint8_t>(colour.cb);
                planes.cr[chroma] = static_cast<std::uint8_t>(colour.cr);
            }
    return planes;
}

using Change = std::function<void(Planes&)>;

void mirror(std::vector<std::uint8_t>& samples, int columns) {
    for (auto row = samples.begin(); row != samples.end(); row += columns)
        std::reverse(row, row + columns);
}

/// Which of the aspects are off, by more than their limits.
std::string offOf(const Change& change, int width, int height) {
    auto planes = drawn(width, height);
    change(planes);
    const auto look = lookAt(planes);
    std::string off;
    const auto judge = [&](const char* check, double value) {
        if (value > limitOf("picture", check).high)
            off += check + std::string(" ");
    };
    judge("brightness", look.brightness);
    judge("colours", look.colour);
    judge("noise", look.noise);
    judge("edges", look.edge);
    judge("orientation", look.turned ? 1 : 0);
    return off;
}

TEST(QualifyLooks, TellWhatIsWrongWithAPicture) {
    const auto cut = [](int pixels) {
        return [pixels](Planes& planes) {
            for (int y = 0; y < planes.height; ++y)
                std::fill_n(planes.luma.begin() + y * planes.width, pixels, std::uint8_t{16});
        };
    };
    const struct {
        const char* name;
        Change change;
        const char* off;
    } rows[] = {
        {"as it was", [](Planes&) {}, ""},
        {"rounded",
         [](Planes& planes) {
             for (auto& sample : planes.luma)
                 sample = static_cast<std::uint8_t>(sample + 2);
         },
         ""},
        {"green",
         [](Planes& planes) {
             for (auto* samples : {&planes.cb, &planes.cr})
                 for (auto& sample : *samples)
                     sample = static_cast<std::uint8_t>(sample - 12);
         },
         "colours "},
        {"without colour", [](Planes& planes) { planes.cb.clear(), planes.cr.clear(); },
         "colours edges "},
        {"the other way round", [](Planes& planes) { planes.cb.swap(planes.cr); },
         "colours edges "},
        {"dark",
         [](Planes& planes) {
             for (auto& sample : planes.luma)
                 sample = static_cast<std::uint8_t>(sample * 9 / 10);
         },
         "brightness edges "},
        {"mirrored",
         [](Planes& planes) {
             mirror(planes.luma, planes.width);
             mirror(planes.cb, planes.chromaWidth);
             mirror(planes.cr, planes.chromaWidth);
         },
         "orientation "},
        {"upside down, too",
         [](Planes& planes) {
             for (auto* samples : {&planes.luma, &planes.cb, &planes.cr})
                 std::reverse(samples->begin(), samples->end());
         },
         "orientation "},
        {"noisy",
         [](Planes& planes) {
             std::mt19937 random(1);
             for (auto& sample : planes.luma)
                 sample = static_cast<std::uint8_t>(
                     std::clamp<int>(sample + static_cast<int>(random() % 41) - 20, 0, 255));
         },
         "noise "},
        {"cut", cut(3), "edges "},
    };
    for (const auto& row : rows)
        for (const int height : {180, 360})
            EXPECT_EQ(offOf(row.change, height * 16 / 9, height), row.off) << row.name << height;
}

TEST(QualifyFindings, WhatIsNoNumberHasFailed) {
    std::vector<Finding> told;
    Findings findings("playback", [&](const Finding& finding) { told.push_back(finding); });
    for (const double value : {std::nan(""), std::numeric_limits<double>::infinity(), 0.0})
        findings.measure("duration", value);
    ASSERT_EQ(told.size(), 3U);
    EXPECT_EQ(told[0].verdict, Verdict::Failed);
    EXPECT_EQ(told[1].verdict, Verdict::Failed);
    EXPECT_EQ(told[2].verdict, Verdict::Passed);
    EXPECT_NO_THROW(nlohmann::json(told).get<std::vector<Finding>>());
}

TEST(QualifyHoldings, SeeWhatTheHeapDoesNotShow) {
    std::istringstream smaps(
        "7f1234000000-7f1234040000 rw-p 00000000 00:00 0 \n"
        "Private_Dirty:  64 kB\n"
        "7f1234180000-7f1234200000 rw-p 00000000 00:00 0 \n"
        "Private_Dirty:  12 kB\n"
        "Swap:  4 kB\n"
        "7f1235000000-7f1235080000 rw-s 00000000 00:01 7   /memfd:a b (deleted)\n"
        "Shared_Dirty:  8 kB\n"
        "7f1236000000-7f1236080000 r--p 00000000 00:01 7   /usr/lib/a.so\n"
        "Private_Dirty:  8 kB\n"
        "5612340000-5612380000 rw-p 00000000 00:00 0   [heap]\n"
        "Private_Dirty:  64 kB\n");
    const auto mappings = readMappings(smaps);
    EXPECT_EQ(mappings.resident, 12 + 4 + 8); // the first one is an arena of the allocator
    EXPECT_EQ(mappings.mapped, 512 + 512);
    EXPECT_EQ(mappings.files, 1);

    Series series;
    for (int i = 0; i < 12; ++i)
        series.points.emplace_back(i, i < 6 ? 0 : 10.0 * i + (i > 10 ? 8192 : 0)); // a stack more
    EXPECT_NEAR(slopeOf(series, 6), 10, 1);
}

TEST(QualifyPictures, TellsWhatIsMissingTwiceAndOutOfOrder) {
    const struct {
        std::vector<int> numbers;
        int first, last, missing, repeated, disordered, unreadable;
    } rows[] = {{{0, 1, 2, 3}, 0, 3, 0, 0, 0, 0}, {{2, 3, 6}, 2, 6, 2, 0, 0, 0},
                {{0, 1, 1, 2}, 0, 2, 0, 1, 0, 0}, {{0, 2, 1, 3}, 0, 3, 0, 0, 1, 0},
                {{0, -1, 2}, 0, 2, 1, 0, 0, 1},   {{-1}, -1, -1, 0, 0, 0, 1},
                {{5, 6, 0, 1}, 5, 1, 3, 0, 2, 0}};
    for (const auto& row : rows) {
        const auto found = sequenceOf(shown(row.numbers));
        EXPECT_EQ(std::tie(found.first, found.last, found.missing, found.repeated, found.disordered,
                           found.unreadable),
                  std::tie(row.first, row.last, row.missing, row.repeated, row.disordered,
                           row.unreadable))
            << found.oddities;
    }
    const auto pictures = shown({7, 8, 9});
    EXPECT_EQ(pictureAt(pictures, after(-1)), nullptr);
    EXPECT_EQ(pictureAt(pictures, after(79))->mark->number, 8);
    EXPECT_EQ(timeOf(pictures, 9), after(80));
    EXPECT_FALSE(timeOf(pictures, 10));
}

TEST(QualifyPictures, KeepTheirPace) {
    EXPECT_EQ(worstOf(paceOf(shown({0, 1, 2, 3}))), 0);
    EXPECT_EQ(worstOf(paceOf(shown({0, 1, 3, 4}))), 40); // ahead: one has been left out
    auto pictures = shown({0, 1, 2, 3});
    pictures[0].still = true; // before it was played
    pictures[3].time += std::chrono::milliseconds(300);
    EXPECT_EQ(worstOf(paceOf(pictures)), -300);
    EXPECT_EQ(worstOf(paceOf(pictures, 3)), 0);
}

TEST(QualifyWatch, LatenessOfLookingExplainsNoMoreThanThereIs) {
    const auto captures = observeByCapture();
    const double lateness = captures->lateness();
    EXPECT_GT(lateness, 0);
    EXPECT_EQ(captures->beyondLateness(lateness / 2), 0);
    EXPECT_EQ(captures->beyondLateness(lateness + 5), 5);
    EXPECT_TRUE(std::isnan(captures->beyondLateness(std::nan(""))));
}

TEST(QualifyLimits, NoMachineExcusesWhatIsNoTime) {
    for (unsigned int i = 0; i < limitCount; ++i) {
        const std::string unit = limitTable[i].unit;
        const bool isTime = unit == "ms" || unit == "%";
        EXPECT_TRUE(isTime || limitTable[i].excuse.wait == 0)
            << limitTable[i].group << ", " << limitTable[i].check;
    }
}

/// What is heard of a second of the tone in which samples from one time on to another are silent.
double heardOf(double from, double to) {
    constexpr int rate = 48000;
    std::vector<float> sound(rate);
    for (std::size_t i = 0; i < sound.size(); ++i) {
        const double time = static_cast<double>(i) / rate;
        if (time < from || time >= to)
            sound[i] = static_cast<float>(0.1 * std::sin(2 * M_PI * 300 * time));
    }
    SoundListener listener;
    listener.add(begin, rate, sound);
    EXPECT_TRUE(listener.heard().pulses.empty());
    return listener.heard().tone;
}

TEST(QualifyTone, HasNoHoles) {
    EXPECT_NEAR(heardOf(0, 0), 1, 0.011);
    EXPECT_NEAR(heardOf(0.5, 0.61), 0.89, 0.011);
}

TEST(QualifyPulses, AreFoundInPiecesOfAnySize) {
    constexpr int rate = 48000;
    std::vector<float> sound(rate * 3);
    for (std::size_t i = 0; i < sound.size(); ++i) {
        const double time = static_cast<double>(i) / rate;
        const double second = std::floor(time), inSecond = time - second;
        if (inSecond >= 0.4 && inSecond < 0.44)
            sound[i] =
                static_cast<float>(0.5 * std::sin(2 * M_PI * (500 + 200 * second) * inSecond));
    }
    for (const std::size_t piece : {std::size_t{37}, std::size_t{1024}, sound.size()}) {
        SoundListener finder;
        for (std::size_t at = 0; at < sound.size(); at += piece) {
            const auto end = std::min(at + piece, sound.size());
            finder.add(after(1000.0 * static_cast<double>(at) / rate), rate,
                       {sound.begin() + static_cast<std::ptrdiff_t>(at),
                        sound.begin() + static_cast<std::ptrdiff_t>(end)});
        }
        ASSERT_EQ(finder.heard().pulses.size(), 3U);
        for (int second = 0; second < 3; ++second) {
            const auto& pulse = finder.heard().pulses[static_cast<std::size_t>(second)];
            EXPECT_EQ(pulse.second, second);
            EXPECT_NEAR(milliseconds(after(1000 * second + 400), pulse.time), 0, 1);
        }
        EXPECT_EQ(unheard(finder.heard().pulses, 4), 1);
    }
}

Finding finding(const std::string& check, double measured, Verdict verdict) {
    Finding result;
    result.group = "g";
    result.check = check;
    result.unit = "ms";
    result.high = 100;
    result.measured = measured;
    result.verdict = verdict;
    result.series.push_back({"t", "ms", {{0, 1}, {1, 5}}, {}, 4, "s"});
    result.evidence.push_back({"<shown>", std::string("\x89PNG\0\xff", 6)});
    return result;
}

TEST(QualifyReports, KeepAllThatWasFound) {
    auto before = finding("c", 12.5, Verdict::NotJudged);
    before.note = "a \"note\" <of> bytes \x01";
    const nlohmann::json json = before;
    const auto after = json.get<Finding>();
    EXPECT_EQ(nlohmann::json(after), json);
    EXPECT_EQ(after.evidence[0].png, before.evidence[0].png);
    EXPECT_FALSE(after.low);
    EXPECT_EQ(toleranceOf(after), "<= 100 ms");

    const Results results = {
        {"g", "what", "seen", 1, {before, finding("d", 500, Verdict::Failed)}, ""}};
    RunFacts stopped;
    stopped.incomplete = "stopped";
    EXPECT_EQ(nlohmann::json::parse(jsonReport(stopped, results))["complete"], false);
    EXPECT_EQ(nlohmann::json::parse(jsonReport({}, results))["complete"], true);
    EXPECT_NE(htmlReport(stopped, results, {}).find("Incomplete: stopped"), std::string::npos);
    const auto junit = junitReport({}, results);
    EXPECT_NE(junit.find("a &quot;note&quot; &lt;of&gt; bytes \""), std::string::npos) << junit;
    EXPECT_NE(junit.find("failures=\"1\""), std::string::npos);
    const auto page = htmlReport({}, results, {});
    EXPECT_NE(page.find("data:image/png;base64,iVBORwD/"), std::string::npos);
    EXPECT_NE(page.find("&lt;shown&gt;"), std::string::npos);
    EXPECT_NE(svgOf(after.series[0]).find("class=\"limit\""), std::string::npos);
}

TEST(QualifyReports, CompareWithAnEarlierRun) {
    const Baseline before = {{finding("a", 50, Verdict::Passed), finding("b", 50, Verdict::Passed),
                              finding("c", 50, Verdict::Passed), finding("d", 50, Verdict::Passed),
                              finding("e", 150, Verdict::Failed), finding("f", 1, Verdict::Passed)},
                             ""};
    const Results now = {{"g",
                          "",
                          "",
                          0,
                          {finding("a", 55, Verdict::Passed), finding("b", 70, Verdict::Passed),
                           finding("c", 30, Verdict::Passed), finding("d", 101, Verdict::Failed),
                           finding("e", 50, Verdict::Passed), finding("new", 1, Verdict::Passed)},
                          ""}};
    std::string said;
    for (const auto& change : compare(before, now))
        said += change.check + " " + name(change.kind) + ", ";
    EXPECT_EQ(said, "b worse, c better, d broken, e mended, new new, f gone, ");
}

} // namespace
