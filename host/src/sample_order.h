#ifndef HOST_SAMPLE_ORDER_H
#define HOST_SAMPLE_ORDER_H

#include "host/sample.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <optional>
#include <utility>

namespace host {

/// A key frame this much behind the target of a seek still counts as before it: who asks for the
/// time of a frame may have rounded it.
inline constexpr double seekTolerance = 0.001;

inline double knownOr(double fallback, double time) {
    return std::isnan(time) ? fallback : time;
}

/// Where a seek may lead, in seconds: into media of up to three years.
inline double boundedTarget(double target) {
    constexpr double longestMedia = 1e8;
    return std::clamp(knownOr(0, target), 0.0, longestMedia);
}

/// Where decoding for a time starts: what `next` gives, in decoding order, from the latest key
/// frame that is not behind the target, or from the first there is when none is; up to what tells
/// that. And whether there was one that is not behind. Items have pts, dts (not a number: unknown)
/// and keyFrame.
template <typename Item, typename Next>
std::pair<std::deque<Item>, bool> startFor(Next next, double target) {
    const auto isBehind = [&](double time) { return time > target + seekTolerance; };
    std::deque<Item> group;
    bool found = false;
    while (std::optional<Item> item = next()) {
        const bool start = item->keyFrame && !isBehind(knownOr(item->dts, item->pts));
        const bool passed = (item->keyFrame && !start) || isBehind(knownOr(item->pts, item->dts));
        if (start)
            group.clear();
        found = found || start;
        if (item->keyFrame || !group.empty())
            group.push_back(std::move(*item));
        if (passed && !group.empty())
            break;
    }
    return {std::move(group), found};
}

/// Audio that begins before time 0 is cut off there. False when nothing is left: then it only
/// filled the encoder's delay.
bool moveIntoMedia(SampleData& sample);

} // namespace host

#endif
