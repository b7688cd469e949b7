#include "common/script.h"

#include "debug/trace/trace_settings.h"
#include "util/scoped_handles.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace tools {

ScriptCompilation compileScript(const std::string& path) {
    const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    char part[4096];
    ssize_t length = file ? 1 : -1;
    while (length > 0 && text.size() <= longestScript) {
        length = read(file.get(), part, sizeof part);
        if (length < 0 && errno == EINTR)
            length = 1;
        else if (length > 0)
            text.append(part, static_cast<size_t>(length));
    }
    if (length < 0)
        return {std::nullopt, path + ": cannot be read: " + strerrordesc_np(errno)};
    return SILCompileText(path, text);
}

std::string runScript(const CompiledScript& script, const ScriptValues& arguments,
                      ScriptControl& control) {
    traceSettings.tracingToScreen = true;
    const ScriptOutcome outcome = SILRun(script, arguments, control);
    if (outcome.end != ScriptOutcome::End::Finished)
        return outcome.error;
    return outcome.result == false ? script.name() + ": the script has returned false" : "";
}

const char* const scriptHelp = R"(
Scripts are written in Lua 5.4, without files and processes; docs/reference/script.md has all
of it (installed: /usr/share/doc/uva-tools).
Times are in seconds. The same in every program, and nil when nothing came in time:
  wait_signal(name, timeout [, parameters])   the first such signal since the last one waited for
  wait_state(text, timeout)                   a state that is, or comes
  wait_trace(text, timeout)                   a line of the log
  wait_until(function, timeout)               what the function gives, once it is true
  when(name, function)                        calls it with each such signal, during waits
  sleep(seconds)
  expect_signal, expect_no_signal, expect_state    as above, and the script fails if not so
A script fails with file and line; 'return false' is a failure too.
)";

} // namespace tools
