#include "options.h"

#include "failure.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <unistd.h>

namespace tvbox {

namespace {

constexpr char purpose[] =
    R"(Runs COMMAND in a television-in-a-box: its own POSIX message queues (256 messages each instead
of the usual 10), POSIX shared memory, System V IPC, /tmp, configuration files in /etc, /dev/log and
process ids. Several boxes run side by side. Works as root and, where the system allows user
namespaces, as any user. Network, home, display, sound and devices are as outside.

  tvbox [OPTIONS] [--] COMMAND [ARGUMENT]...
  tvbox --enter NAME [--] COMMAND [ARGUMENT]...
  tvbox --list)";

constexpr char details[] = R"(
Files under /tmp
  What the command line or the environment names is let through: a folder of /tmp that holds the
  current directory, the program or a media file is the real one; a file that exists directly in
  /tmp can be read and written. A file or folder that the command makes at a path under /tmp named
  on its command line, or that fits a --keep pattern, is brought out when the command has ended.
  All else in /tmp is the box's own and goes with it, above all /tmp/zant_dbg_* and /tmp/GST_DEBUG.

Files in /etc
  As outside, read-only; but tracesuva.cfg, preinit* and zantauto are there only if --etc places
  them. New files may be written to /etc; they go with the box.

Exit code
  That of COMMAND, 128+n if signal n ended it; 127 not found, 126 not executable,
  125 if tvbox itself failed.

Without namespaces
  The command runs plainly, one such run at a time, and one line on standard error says what is
  missing and how to allow it. --require makes this an error instead.

Examples
  tvbox uva-host clip.mp4
  tvbox --etc traces.cfg=tracesuva.cfg --log uva.log uva-host --snapshot /tmp/out.png /tmp/a.mp4
  tvbox --name tv1 --main-system zant-mainsys --companion-log main.log uva-host clip.mp4
  tvbox --list
  tvbox --enter tv1 -- zantsh
  tvbox --keep '/tmp/frame*.png' -- ffmpeg -i clip.mp4 /tmp/frame%03d.png
)";

EtcFile parseEtc(const std::string& value) {
    EtcFile result = {value, {}};
    const auto equals = value.rfind('=');
    if (equals != std::string::npos && access(value.c_str(), F_OK) != 0) {
        result.file = value.substr(0, equals);
        result.name = value.substr(equals + 1);
    } else {
        result.name = value.substr(value.rfind('/') + 1);
    }
    if (result.file.empty() || result.name.empty() || result.name == "." || result.name == ".." ||
        result.name.find('/') != std::string::npos)
        throw Failure("--etc '" + value +
                      "': give FILE or FILE=NAME, with a NAME directly in /etc, such as "
                      "traces.cfg=tracesuva.cfg");
    return result;
}

/// The first word that is none of tvbox's options, and what follows, untouched.
Words commandOf(Words rest) {
    if (rest.empty())
        return rest;
    if (rest.front() == "--")
        rest.erase(rest.begin());
    else if (rest.front().size() > 1 && rest.front()[0] == '-')
        throw Failure("unknown option '" + rest.front() +
                      "'; see tvbox --help (a command that begins with '-' goes after '--')");
    return rest;
}

class Parser {
public:
    Parser() {
        m_app.description(purpose);
        m_app.footer(details);
        m_app.name("tvbox");
        m_app.prefix_command();
        one("--name", m_options.name, "Name of the box (default: the process id)", "NAME");
        many("--etc", m_etc, "Place FILE as /etc/NAME (default: its own name)", "FILE[=NAME]");
        one("--log", m_options.log, "Append what syslog() sends to FILE", "FILE");
        many("--keep", m_options.keep, "Bring out what fits PATTERN, a path under /tmp", "PATTERN");
        one("--main-system", m_mainSystem,
            "Start PROGRAM, wait until it serves its queue, run COMMAND, end it after", "PROGRAM");
        many("--with", m_with,
             "The same, without waiting, for a program with arguments, one string",
             "'PROGRAM ARGUMENTS'");
        one("--companion-log", m_options.companionLog,
            "Append the output of these programs to FILE (default: standard error)", "FILE");
        m_app.add_flag("--require", m_options.require, "Fail where a complete box cannot be made");
        m_app.add_flag("--list", m_list, "List the boxes: name, process id, its /tmp, command");
        one("--enter", m_enter, "Run COMMAND in the box of that NAME", "NAME");
    }

    ParsedOptions parse(int argc, char** argv) {
        try {
            m_app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            std::ostringstream out;
            const int code = m_app.exit(error, out, out);
            return {std::nullopt, out.str(), code == 0 ? 0 : ExitFailure};
        }
        finish();
        return {std::move(m_options), {}, 0};
    }

private:
    void one(const char* option, std::string& value, const char* text, const char* type) {
        m_app.add_option(option, value, text)->type_name(type);
    }

    void many(const char* option, Words& values, const char* text, const char* type) {
        m_app.add_option(option, values, text)->type_name(type)->allow_extra_args(false);
    }

    std::size_t countOptions() const {
        const auto options = m_app.get_options();
        return static_cast<std::size_t>(
            std::count_if(options.begin(), options.end(),
                          [](const CLI::Option* option) { return option->count() > 0; }));
    }

    void finish() {
        m_options.command = commandOf(m_app.remaining());
        for (const auto& value : m_etc)
            m_options.etcFiles.push_back(parseEtc(value));
        if (!m_mainSystem.empty())
            m_options.companions.push_back({splitWords(m_mainSystem), true});
        for (const auto& line : m_with)
            m_options.companions.push_back({splitWords(line)});
        if (!m_enter.empty()) {
            m_options.mode = Options::Mode::Enter;
            m_options.name = m_enter;
        }
        if (m_list)
            m_options.mode = Options::Mode::List;
        if (m_options.mode != Options::Mode::Run && countOptions() != 1)
            throw Failure("--list and --enter take no other option");
        if (m_list != m_options.command.empty())
            throw Failure(m_list ? "--list takes no command"
                                 : "no command; say what to run, or see tvbox --help");
    }

    CLI::App m_app;
    Options m_options;
    Words m_etc;
    Words m_with;
    std::string m_mainSystem;
    std::string m_enter;
    bool m_list = false;
};

} // namespace

ParsedOptions parseOptions(int argc, char** argv) {
    return Parser().parse(argc, argv);
}

Words splitWords(const std::string& line) {
    if (access(line.c_str(), F_OK) == 0)
        return {line};
    Words words;
    bool inWord = false;
    char quote = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote == 0 && (c == ' ' || c == '\t' || c == '\n')) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.emplace_back();
        inWord = true;
        if (quote != '\'' && c == '\\' && i + 1 < line.size())
            words.back() += line[++i];
        else if (c == quote)
            quote = 0;
        else if (quote == 0 && (c == '\'' || c == '"'))
            quote = c;
        else
            words.back() += c;
    }
    if (quote != 0)
        throw Failure("a quote is not closed in '" + line + "'");
    if (words.empty())
        throw Failure("a companion needs a program: --with 'PROGRAM ARGUMENTS'");
    return words;
}

} // namespace tvbox
