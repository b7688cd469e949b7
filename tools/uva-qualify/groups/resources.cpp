#include "clip_player.h"
#include "groups/groups.h"

#include <filesystem>
#include <malloc.h>

namespace qualify {

namespace {

namespace fs = std::filesystem;

double entriesIn(const char* folder) {
    std::error_code error;
    double count = 0;
    for (auto it = fs::directory_iterator(folder, error); !error && it != fs::directory_iterator();
         it.increment(error))
        ++count;
    return count;
}

/// What a process holds.
struct Holdings {
    double descriptors = 0, threads = 0, queues = 0;
    double memory = 0; ///< kB, of the heap
};

/// What is allocated: what the allocator keeps for later does not count.
double heap() {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) / 1024;
}

Holdings holdings() {
    return {entriesIn("/proc/self/fd"), entriesIn("/proc/self/task"),
            entriesIn("/dev/mqueue") + entriesIn("/dev/shm"), heap()};
}

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

/// Threads end a little behind whom they served.
Holdings settledHoldings(const Holdings& before) {
    waitUntil([&] { return holdings().threads <= before.threads; }, Milliseconds(3000));
    return holdings();
}

} // namespace

void checkResources(Stage& stage, Findings& findings) {
    constexpr int warmUp = 6; // what is made once, is made then
    for (int i = 0; i < warmUp; ++i)
        playOnce(stage, i % 2 == 1);
    const auto before = settledHoldings(holdings());
    const int cycles = stage.isShort() ? 12 : 200;
    Series memory{"heap", "kB", {}, {}, {}, "elements"};
    for (int i = 0; i < cycles; ++i) {
        playOnce(stage, i % 2 == 1);
        memory.points.emplace_back(i, heap());
    }
    const auto after = settledHoldings(before);
    const auto note = "over " + std::to_string(cycles) + " elements";
    findings.measure("descriptors", after.descriptors - before.descriptors, note);
    findings.measure("threads", after.threads - before.threads, note);
    findings.measure("queues", after.queues - before.queues, note);
    // What is made once is made in the first half, whatever it hangs on.
    const double middle = memory.points[memory.points.size() / 2].second;
    findings.measure("memory", (after.memory - middle) / (cycles / 2.0 - 1), note, {memory});
}

} // namespace qualify
