#include "box.h"
#include "failure.h"
#include "plain_run.h"

#include <cstdio>

namespace tvbox {

void notice(const std::string& text) {
    std::fprintf(stderr, "tvbox: %s\n", text.c_str());
}

namespace {

int listBoxes() {
    for (const auto& box : RunDirectory().list())
        std::printf("%s\t%d\t%s\t%s\n", box.name.c_str(), static_cast<int>(box.pid),
                    box.tmp.c_str(), box.command.c_str());
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

int run(int argc, char** argv) {
    const auto parsed = parseOptions(argc, argv);
    if (!parsed.options) {
        std::fputs(parsed.text.c_str(), parsed.exitCode == 0 ? stdout : stderr);
        return parsed.exitCode;
    }
    if (parsed.options->mode == Options::Mode::List)
        return listBoxes();
    const BlockedSignals signals;
    if (parsed.options->mode == Options::Mode::Enter)
        enterBox(*parsed.options, signals);
    return runInBox(*parsed.options, signals);
}

} // namespace

} // namespace tvbox

int main(int argc, char** argv) {
    try {
        return tvbox::run(argc, argv);
    } catch (const std::exception& failure) {
        tvbox::notice(failure.what());
    }
    return tvbox::ExitFailure;
}
