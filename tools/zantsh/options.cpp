#include "options.h"

#include "exit_code.h"

namespace zantsh {

namespace {

constexpr char purpose[] =
    R"(Talks to the debug shell of a running process: of this user's, or of anybody's as root.

  zantsh [OPTIONS] COMMAND [PARAMETER]...    runs one command
  zantsh --watch SECONDS COMMAND...          runs it again and again, until Ctrl-C
  zantsh [OPTIONS]                           asks for commands; history, Tab completes names,
                                             and shows what the process prints meanwhile

'zantsh m_help' lists the commands; 'exit' or Ctrl-D leaves.)";

constexpr char details[] = R"(
Output
  The shell itself answers OK or ERR and nothing else. What a command prints goes where the
  process's own output goes; zantsh looks there, from a mark that it has the shell print (m_echo)
  before the command to one behind it, which are not shown:
    - standard output into a file, or a trace log (zanttrc*.log) that the process has open: zantsh
      follows the file and shows what is added. Output that others cause meanwhile shows too.
    - a terminal: the output appears there, not here. A pipe can be read once, by its reader.
      zantsh says which.
    - syslog: listings never go there, traces do. --follow FILE shows any file beside, such as
      /var/log/syslog; where there is only a journal, use journalctl -f.
  A process that prints nothing may have its output switched off: zantsh m_starttracingtoscreen.

Boxes
  Without --box, the shell of this system is used; if there is none, that of the only running box
  of tvbox. 'tvbox --list' lists them.

Exit code
  0 for OK, 1 for ERR, 2 when no shell answers. Without COMMAND, that of the last command.
  After a time-out the command may still be running.

Examples
  zantsh m_threadlist
  zantsh --timeout 120 m_sleep 60
  zantsh --box tv1 m_traceon 9 TRACELEVEL_DEBUG
  zantsh --watch 1 m_queuelist
)";

std::optional<std::chrono::milliseconds> parseTimeout(const std::string& text) {
    const auto seconds = tools::readNumber(text, 0.001, 1e6);
    return seconds ? std::optional(std::chrono::milliseconds(static_cast<long>(*seconds * 1000)))
                   : std::nullopt;
}

std::optional<std::string> parseSocket(const std::string& name) {
    const bool plain = !name.empty() && name.find('/') == std::string::npos;
    return plain ? std::optional(name) : std::nullopt;
}

constexpr tools::Form<std::chrono::milliseconds> timeout{
    parseTimeout, "is no time; write seconds, from 0.001 to 1000000"};
constexpr tools::Form<std::string> socketName{parseSocket,
                                              "is no name; give it alone, without /tmp/"};

} // namespace

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    Options options;
    std::vector<std::string> words;
    using tools::into;
    tools::CommandLine line{
        "zantsh",
        purpose,
        details,
        {{"Options",
          {{"--socket", "NAME", "Name of the shell's socket in /tmp (zant_dbg_server_uva)",
            into(options.socket, socketName)},
           {"--timeout", "SECONDS", "Wait that long for an answer (10)",
            into(options.timeout, timeout)},
           {"--watch", "SECONDS", "Run COMMAND again and again, with such a pause between",
            into(options.every, timeout)},
           {"--box", "NAME", "The shell inside a box of tvbox", &options.box},
           {"--follow", "FILE", "Show what is added to this file, too", &options.follow}}}}};
    line.command = &words;
    line.usageError = ExitNoShell;
    line.check = [&] {
        for (const auto& word : words)
            options.command += (options.command.empty() ? "" : " ") + word;
        return std::string(options.every && words.empty() ? "--watch needs a COMMAND to run" : "");
    };
    return tools::parse(line, argc, argv, options);
}

} // namespace zantsh
