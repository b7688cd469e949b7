#include "box.h"
#include "failure.h"
#include "plain_run.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace tvbox {

void notice(const std::string& text) {
    std::fprintf(stderr, "tvbox: %s\n", text.c_str());
}

namespace {

/// The command of a box, for people: its first process has the command line of the tvbox outside.
std::string commandOf(const std::string& process) {
    std::ifstream in(process + "/cmdline");
    Words words;
    for (std::string word; std::getline(in, word, '\0');)
        words.push_back(word);
    std::string text;
    if (!words.empty()) {
        for (const auto& word : parseOptions(words).command)
            text += (text.empty() ? "" : " ") + word;
    }
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' '; }, ' ');
    return text;
}

int printList() {
    const auto tmp = std::filesystem::canonical("/tmp");
    for (const auto& box : listBoxes()) {
        const auto process = "/proc/" + std::to_string(box.pid);
        std::printf("%s\t%d\t%s\t%s\n", box.name.c_str(), static_cast<int>(box.pid),
                    (process + "/root" + tmp.string()).c_str(), commandOf(process).c_str());
    }
    return std::fflush(stdout) == 0 ? 0 : ExitFailure;
}

int runInBox(const Options& options, const BlockedSignals& signals) {
    try {
        return Box(options, signals).run();
    } catch (const Refusal& refusal) {
        const auto why = whyNoBox(refusal.what());
        if (options.require)
            throw Failure(why);
        notice(why + "; runs plainly, one at a time, without --etc, --log and a /tmp of its own");
    }
    return runPlainly(options, signals);
}

int run(const Options& options) {
    if (options.list)
        return printList();
    const BlockedSignals signals;
    if (!options.enter.empty())
        enterBox(options, signals);
    return runInBox(options, signals);
}

} // namespace

} // namespace tvbox

int main(int argc, char** argv) {
    try {
        return tvbox::run(tvbox::parseOptions({argv, argv + argc}));
    } catch (const std::exception& failure) {
        tvbox::notice(failure.what());
    }
    return tvbox::ExitFailure;
}
