#include "options.h"
#include "session.h"

#include <csignal>
#include <cstdio>
#include <utility>

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);               // a reader of the log that goes away ends nothing
    std::setvbuf(stdout, nullptr, _IOLBF, 1024); // one that stays sees each line at once

    auto parsed = mainsys::parseOptions(argc, argv);
    if (!parsed.options)
        return parsed.tell();
    return mainsys::Session(std::move(*parsed.options)).run();
}
