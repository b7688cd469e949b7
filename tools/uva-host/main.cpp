#include "options.h"
#include "session.h"

#include <csignal>
#include <cstdlib>
#include <utility>

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN); // a reader of the log that goes away ends nothing

    auto parsed = uvahost::parseOptions(argc, argv);
    if (!parsed.options)
        return parsed.tell();
    if (parsed.options->standalone)
        setenv("NOX_GST_STANDALONE", "1", 1);

    bool abandoned = false;
    int exitCode = 0;
    {
        uvahost::Session session(std::move(*parsed.options));
        exitCode = session.run();
        abandoned = session.abandoned();
    }
    if (abandoned)
        std::_Exit(exitCode);
    return exitCode;
}
