// Any bytes as a configuration file: it is read to its end or to the line that says why not, each
// keyword comes once, in order and within its bounds, and the commands in it are run.

#include "config/cfg_file.h"
#include "debug/shell/mshell.h"
#include "fuzz_target.h"
#include "quiet_traces.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

/// In place of the C library's: a file that is not read says so to nobody.
extern "C" void syslog(int, const char*, ...) {}

namespace {

int lastLine = 0;

int takeKeyword(char* keyword, char* data, const char* fileName, int lineNumber, char termChar) {
    require(lineNumber > lastLine && fileName != nullptr);
    lastLine = lineNumber;
    require(strlen(keyword) <= 63 && strpbrk(keyword, " \t\n=") == nullptr);
    require(strlen(data) <= 1997);
    RemoveWhitespaceFromString(data);
    require(*data == '\0' || (!strchr(" \t", *data) && !strchr(" \t", data[strlen(data) - 1])));
    return *keyword == termChar ? lineNumber : 0;
}

/// A command may sleep or read a file, which reads this one again.
int runCommand(char* keyword, char* data, const char* fileName, int lineNumber, char termChar) {
    constexpr const char* harmless[] = {"m_help", "m_echo", "m_tracestate", "m_traceon"};
    const bool runs =
        strcmp(keyword, "MSHELL") != 0 ||
        std::any_of(std::begin(harmless), std::end(harmless),
                    [data](const char* name) { return strncmp(data, name, strlen(name)) == 0; });
    return runs ? ProcessCfgfileData(keyword, data, fileName, lineNumber, termChar) : 0;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::QuietTraces quiet;
    static const int file = memfd_create("fuzz", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));

    CCfgFile reader;
    lastLine = 0;
    const int32_t stopped = reader.ReadCfgfileEx(path.c_str(), takeKeyword, '#', ',');
    require(stopped == 0 || stopped == lastLine || stopped == CCfgFile::badTermChar);
    reader.ReadCfgfileEx(path.c_str(), runCommand, '#', ',');
    return 0;
}
