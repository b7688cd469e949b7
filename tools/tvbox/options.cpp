#include "options.h"

#include "failure.h"

#include <CLI/CLI.hpp>

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
  The box's own, gone with it, but for the current directory and what --share names. Of a PATH in
  /tmp or /dev/shm the topmost entry is let through: a folder is the real one; a file can be read
  and written; what is not there is brought out when the command, having made it, has ended.
  /tmp/zant_dbg_*, /tmp/GST_DEBUG and /tmp/usb_logs are never shared.

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
  tvbox --share /tmp/a.mp4 --share /tmp/out.png uva-host --snapshot /tmp/out.png /tmp/a.mp4
  tvbox --etc traces.cfg=tracesuva.cfg --log uva.log uva-host clip.mp4
  tvbox --name tv1 --main-system zant-mainsys --companion-log main.log uva-host clip.mp4
  tvbox --list
  tvbox --enter tv1 -- zantsh
)";

/// The first word that is none of tvbox's options, and what follows, untouched.
Words commandOf(Words rest) {
    if (!rest.empty() && rest.front() == "--")
        rest.erase(rest.begin());
    else if (!rest.empty() && rest.front().size() > 1 && rest.front()[0] == '-')
        throw Failure("unknown option '" + rest.front() +
                      "'; see tvbox --help (a command that begins with '-' goes after '--')");
    return rest;
}

} // namespace

Options parseOptions(const Words& commandLine) {
    Options options;
    CLI::App app(purpose, "tvbox");
    app.footer(details);
    app.prefix_command();
    const auto one = [&](const char* option, std::string& value, const char* type,
                         const char* text) {
        return app.add_option(option, value, text)->type_name(type);
    };
    const auto many = [&](const char* option, Words& values, const char* type, const char* text) {
        app.add_option(option, values, text)->type_name(type)->allow_extra_args(false);
    };
    one("--name", options.name, "NAME", "Name of the box (default: the process id)");
    many("--share", options.share, "PATH", "Let a file or folder of /tmp or /dev/shm through");
    many("--etc", options.etc, "FILE[=NAME]", "Place FILE as /etc/NAME (default: its own name)");
    one("--log", options.log, "FILE", "Append what syslog() sends to FILE");
    one("--main-system", options.mainSystem, "PROGRAM",
        "Start PROGRAM, wait until it serves its queue, run COMMAND, end it after");
    many("--with", options.with, "'PROGRAM ARGUMENTS'",
         "The same, without waiting, for a program with arguments, one string");
    one("--companion-log", options.companionLog, "FILE",
        "Append the output of these programs to FILE (default: standard error)");
    app.add_flag("--require", options.require, "Fail where a complete box cannot be made");
    const auto ofNewBox =
        app.get_options([](const auto* option) { return option->get_name() != "--help"; });
    auto* const list =
        app.add_flag("--list", options.list, "List the boxes: name, process id, its /tmp, command");
    auto* const enter =
        one("--enter", options.enter, "NAME", "Run COMMAND in the box of that NAME");
    list->excludes(enter);
    for (auto* const other : ofNewBox) {
        list->excludes(other);
        enter->excludes(other);
    }
    try {
        app.parse(Words(commandLine.rbegin(), commandLine.rend() - 1));
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error) == 0 ? 0 : ExitFailure);
    }
    options.command = commandOf(app.remaining());
    if (options.list != options.command.empty())
        throw Failure(options.list ? "--list takes no command"
                                   : "no command; say what to run, or see tvbox --help");
    return options;
}

} // namespace tvbox
