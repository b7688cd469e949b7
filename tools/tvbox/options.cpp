#include "options.h"

#include "failure.h"

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
  The box's own, gone with it, but for the current directory (not /tmp itself) and what --share
  names. Of a PATH in /tmp or /dev/shm the topmost entry is let through: a folder is the real one; a
  file can be read and written; what is not there is brought out when the command, having made it,
  has ended.
  /tmp/zant_dbg_*, /tmp/GST_DEBUG and /tmp/usb_logs are never shared.

Files in /etc
  As outside, read-only; but tracesuva.cfg, preinit* and zantauto are there only if --etc places
  them. New files may be written to /etc; they go with the box.

Exit code
  That of COMMAND, 128+n if signal n ended it; 127 not found, 126 not executable,
  125 if tvbox itself or a companion failed.

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

} // namespace

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    Options options;
    using tools::Use;
    tools::CommandLine line{
        "tvbox",
        purpose,
        details,
        {{"Options of a new box",
          {{"--name", "NAME", "Name of the box (default: the process id)", &options.name},
           {"--share", "PATH", "Let a file or folder of /tmp or /dev/shm through", &options.share},
           {"--etc", "FILE[=NAME]", "Place FILE as /etc/NAME (default: its own name)",
            &options.etc},
           {"--log", "FILE", "Append what syslog() sends to FILE", &options.log},
           {"--main-system", "PROGRAM",
            "Start PROGRAM, wait until it serves its queue, run COMMAND, end it after",
            &options.mainSystem},
           {"--with", "'PROGRAM ARGUMENTS'",
            "The same, without waiting, for a program with arguments, one string", &options.with},
           {"--companion-log", "FILE",
            "Append the output of these programs to FILE (default: standard error)",
            &options.companionLog},
           {"--require", nullptr, "Fail where a complete box cannot be made", &options.require}}},
         {"Options that stand alone",
          {{"--list", nullptr, "List the boxes: name, process id, its /tmp, command", &options.list,
            Use::Alone},
           {"--enter", "NAME", "Run COMMAND in the box of that NAME", &options.enter,
            Use::Alone}}}}};
    line.command = &options.command;
    line.usageError = ExitFailure;
    line.check = [&] {
        const bool right = options.list == options.command.empty();
        return right          ? ""
               : options.list ? "--list takes no command"
                              : "no command; say what to run";
    };
    return tools::parse(line, argc, argv, options);
}

} // namespace tvbox
