#ifndef TVBOX_OPTIONS_H
#define TVBOX_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

namespace tvbox {

using Words = std::vector<std::string>;

/// A file that the box shows as /etc/<name>.
struct EtcFile {
    std::string file;
    std::string name;
};

/// A program that runs beside the command.
struct Companion {
    Words words;
    bool isMainSystem = false; ///< says when it is ready, and the command waits for that
};

struct Options {
    enum class Mode { Run, List, Enter };

    Mode mode = Mode::Run;
    std::string name; ///< of the box to make or to enter; empty: the process id
    Words command;
    std::vector<EtcFile> etcFiles;
    std::string log;                   ///< file for what syslog() sends; empty: not kept
    Words keep;                        ///< patterns of files under /tmp that are brought out
    std::vector<Companion> companions; ///< in the order in which they start
    std::string companionLog;          ///< empty: standard error
    bool require = false;              ///< no box is an error
};

/// Options, or a text to print and the code to exit with.
struct ParsedOptions {
    std::optional<Options> options;
    std::string text;
    int exitCode = 0;
};

ParsedOptions parseOptions(int argc, char** argv);

/// Words as a shell would split them: blanks separate, '...' "..." and \ protect. A line that is
/// the path of an existing file is one word. Throws Failure for a quote that is not closed.
Words splitWords(const std::string& line);

} // namespace tvbox

#endif
