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
    if (!parsed.options->record.empty())
        setenv("UVA_RECORD", parsed.options->record.c_str(), 1);

    const auto outcome = uvahost::Session(std::move(*parsed.options)).run();
    if (outcome.abandoned)
        std::_Exit(outcome.exitCode);
    return outcome.exitCode;
}
