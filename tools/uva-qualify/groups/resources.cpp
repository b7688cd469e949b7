#include "clip_player.h"
#include "groups/groups.h"
#include "groups/holdings.h"

#include <algorithm>
#include <glib.h>
#include <iterator>
#include <set>
#include <string>

namespace qualify {

namespace {

/// An element's whole life. By turns samples and a URL.
void playOnce(Stage& stage, bool url) {
    Player player(stage, {host::ResourcePolicy::Grant, url, 0});
    player.open(stage.clips["main.mp4"]);
    player.play();
    player.waitForPicture(3);
    player.element().seek(2);
    player.waitForPicture(51);
    player.release();
}

using Names = std::set<std::string>;

Names newIn(const Names& after, const Names& before) {
    Names added;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::inserter(added, added.end()));
    return added;
}

/// Some of them, else what else is to be said.
std::string inWords(const Names& names, const std::string& otherwise) {
    std::string text;
    std::size_t count = 0;
    for (const auto& name : names) {
        constexpr std::size_t most = 5;
        if (++count <= most)
            text += (text.empty() ? "" : ", ") + name;
    }
    return text.empty() ? otherwise : text;
}

/// Threads end a little behind whom they served; those that GLib keeps for the next to ask are
/// nobody's. Of the threads only what is new since then is of interest.
Holdings settledHoldings(const Names& before) {
    constexpr Milliseconds bound{3000};
    waitUntil(
        [&] {
            g_thread_pool_stop_unused_threads();
            return newIn(threads(), before).empty();
        },
        bound);
    return holdings();
}

/// What each of many elements adds.
struct Growth {
    const char* check;
    double Memory::*value;
    Series series;
};

} // namespace

void checkResources(Stage& stage, Findings& findings) {
    constexpr int warmUp = 6; // what is made once, is made then
    for (int i = 0; i < warmUp; ++i)
        playOnce(stage, i % 2 == 1);
    Growth growths[] = {
        {"memory", &Memory::heap, {"heap", "kB", {}, {}, {}, "elements"}},
        {"resident", &Memory::resident, {"outside it", "kB", {}, {}, {}, "elements"}},
        {"address space", &Memory::mapped, {"mapped", "kB", {}, {}, {}, "elements"}}};
    const auto before = settledHoldings(threads());
    const int cycles = stage.isShort() ? 12 : 200;
    for (int i = 0; i < cycles; ++i) {
        playOnce(stage, i % 2 == 1);
        const auto memory = memoryOfProcess();
        for (auto& growth : growths)
            growth.series.points.emplace_back(i, memory.*growth.value);
    }
    const auto after = settledHoldings(before.threads);
    const auto note = "over " + std::to_string(cycles) + " elements";
    findings.measure("descriptors", after.descriptors - before.descriptors, note);
    const auto newThreads = newIn(after.threads, before.threads);
    findings.measure("threads", static_cast<double>(newThreads.size()), inWords(newThreads, note));
    findings.measure("queues", after.queues - before.queues, note);
    findings.measure("mapped", after.files - before.files, note);
    const auto newFiles = newIn(after.left, before.left);
    findings.measure("files", static_cast<double>(newFiles.size()), inWords(newFiles, note));
    // What is made once is made in the first half, whatever it hangs on.
    for (const auto& growth : growths)
        findings.measure(growth.check, slopeOf(growth.series, growth.series.points.size() / 2),
                         note, {growth.series});
}

} // namespace qualify
