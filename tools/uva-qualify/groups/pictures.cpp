#include "groups/pictures.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace qualify {

namespace {

void note(Sequence& sequence, const std::string& oddity) {
    constexpr std::size_t longest = 200;
    if (sequence.oddities.size() < longest)
        sequence.oddities += (sequence.oddities.empty() ? "" : ", ") + oddity;
}

} // namespace

Sequence sequenceOf(const std::vector<SeenPicture>& pictures, std::size_t from) {
    Sequence sequence;
    std::set<int> seen;
    int highest = -1;
    for (std::size_t i = from; i < pictures.size(); ++i) {
        const auto& mark = pictures[i].mark;
        if (!mark) {
            ++sequence.unreadable;
            note(sequence, "one behind " + std::to_string(sequence.last) + " unreadable");
            continue;
        }
        if (!seen.insert(mark->number).second) {
            ++sequence.repeated;
            note(sequence, std::to_string(mark->number) + " again");
        } else if (mark->number < highest) {
            ++sequence.disordered;
            note(sequence,
                 std::to_string(mark->number) + " behind " + std::to_string(sequence.last));
        }
        highest = std::max(highest, mark->number);
        if (sequence.first < 0)
            sequence.first = mark->number;
        sequence.last = mark->number;
    }
    if (seen.empty())
        return sequence;
    for (int number = *seen.begin(); number < *seen.rbegin(); ++number)
        if (seen.count(number) == 0) {
            ++sequence.missing;
            note(sequence, std::to_string(number) + " missing");
        }
    return sequence;
}

std::optional<Clock::time_point> timeOf(const std::vector<SeenPicture>& pictures, int number) {
    for (const auto& picture : pictures)
        if (picture.mark && picture.mark->number == number)
            return picture.time;
    return std::nullopt;
}

const SeenPicture* pictureAt(const std::vector<SeenPicture>& pictures, Clock::time_point time) {
    const auto behind =
        std::upper_bound(pictures.begin(), pictures.end(), time,
                         [](auto moment, const auto& picture) { return moment < picture.time; });
    return behind == pictures.begin() ? nullptr : &*(behind - 1);
}

double longestGap(const std::vector<SeenPicture>& pictures, std::size_t from) {
    double longest = 0;
    for (std::size_t i = from + 1; i < pictures.size(); ++i)
        longest = std::max(longest, milliseconds(pictures[i - 1].time, pictures[i].time));
    return longest;
}

Series intervalsOf(const std::vector<SeenPicture>& pictures, const char* title) {
    Series series{title, "ms", {}, {}, {}, "s"};
    for (std::size_t i = 1; i < pictures.size(); ++i)
        series.points.emplace_back(milliseconds(pictures.front().time, pictures[i].time) / 1000,
                                   milliseconds(pictures[i - 1].time, pictures[i].time));
    return series;
}

Series paceOf(const std::vector<SeenPicture>& pictures, std::size_t from) {
    Series series{"media time less time passed", "ms", {}, {}, {}, "s"};
    const SeenPicture* first = nullptr;
    for (std::size_t i = from; i < pictures.size(); ++i) {
        const auto& picture = pictures[i];
        if (!picture.mark || (first == nullptr && picture.still))
            continue;
        if (first == nullptr)
            first = &picture;
        const double passed = milliseconds(first->time, picture.time);
        series.points.emplace_back(passed / 1000, picture.mark->time - first->mark->time - passed);
    }
    return series;
}

double worstOf(const Series& series) {
    double worst = 0;
    for (const auto& [time, value] : series.points)
        worst = std::abs(value) > std::abs(worst) ? value : worst;
    return worst;
}

int numberAt(const Clip& clip, double seconds) {
    constexpr double hair = 1e-4; // of a picture
    return std::min(static_cast<int>(std::floor(seconds * clip.rate + hair)), clip.pictures - 1);
}

int unseen(Player& player, const Stage& stage, int number) {
    std::size_t shown = 0;
    bool came = player.waitForPicture(number);
    while (!came && player.watch().pictures().size() > shown) { // late is not lost
        shown = player.watch().pictures().size();
        came = player.waitForPicture(number);
    }
    if (!stage.observation->isExact())
        return came ? 0 : number;
    int count = 0;
    for (int before = 0; before < number; ++before)
        count += timeOf(player.watch().pictures(), before) ? 0 : 1;
    return count;
}

int unheard(const std::vector<HeardPulse>& pulses, int seconds) {
    int count = 0;
    for (int second = 0; second < seconds; ++second)
        count += std::count_if(pulses.begin(), pulses.end(),
                               [second](const auto& pulse) { return pulse.second == second; }) == 1
                     ? 0
                     : 1;
    return count;
}

double milliseconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

std::vector<Evidence> evidenceOf(Watch& watch, const std::string& caption) {
    auto png = watch.newestPng();
    if (png.empty())
        return {};
    return {{caption, std::move(png)}};
}

} // namespace qualify
