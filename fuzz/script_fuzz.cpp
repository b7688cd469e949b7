// Any text as a script: it compiles or says where not, and what compiles ends within its bounds,
// one way or another.

#include "fuzz_target.h"
#include "quiet_traces.h"
#include "script/script.h"

#include <string>

namespace {

/// What waits would hold the fuzzer up, and what runs commands is another target's.
const std::string harmless = "sleep, wait, wait_until, wait_trace, wait_signal, wait_state, "
                             "expect_signal, expect_no_signal, expect_state, state = nil ";

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::QuietTraces quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto compilation = SILCompileText("fuzz", text);
    require(compilation.script.has_value() == compilation.error.empty());
    if (!compilation.script)
        return 0;
    const auto guarded = SILCompileText("fuzz", harmless + text);
    if (!guarded.script)
        return 0;

    ScriptLimits limits;
    limits.memory = 1024 * 1024;
    limits.steps = 100000;
    ScriptControl control;
    const auto outcome = SILRun(*guarded.script, {"argument", 7}, control, limits);
    require(outcome.end != ScriptOutcome::End::Stopped);
    require((outcome.end == ScriptOutcome::End::Finished) == outcome.error.empty());
    return 0;
}
