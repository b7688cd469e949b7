#ifndef UVA_SCOPE_PROBE_H
#define UVA_SCOPE_PROBE_H

#include <chrono>
#include <string>
#include <vector>

namespace scope {

/// One player to look at.
struct ProbeOptions {
    std::string socket;
    std::string box; ///< empty: here
    std::vector<std::string> follow;
    std::chrono::milliseconds period{100};
};

/// Looks at a player until the end of standard input, in a process of its own: that may enter a
/// box. Orders come from standard input, what is seen goes to standard output, a JSON object a
/// line:
///
///   {"kind":"state","time":T,"process":PID,"state":TEXT,"main_system":TEXT}
///     where the state is whole once a second, and has the media alone in between
///   {"kind":"silent","reason":TEXT,"ended":BOOL}
///   {"kind":"traces"|"log","text":TEXT}
///   {"kind":"note","text":TEXT}                         where its output is, when not here
///   {"kind":"answer","id":N,"ok":BOOL,"text":TEXT,"bytes":BASE64}
///
/// for orders {"id":N,"do":"command","line":TEXT}, {"id":N,"do":"output","on":BOOL},
/// {"id":N,"do":"graph","backend":TEXT} and {"id":N,"do":"picture"}. Times are seconds of
/// CLOCK_MONOTONIC. Gives the exit code.
int runProbe(const ProbeOptions& options);

} // namespace scope

#endif
