#include "debug/trace/zant_trace_core.h"

#include "debug/trace/sys_vars.h"
#include "debug/trace/trace_clock.h"
#include "util/cancellation_block.h"
#include "util/text_output.h"
#include "util/trusted_path.h"

#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned writersLeaveMicroseconds = 100000;
constexpr unsigned storageSettlesMicroseconds = 2000000;

constexpr const char* firstLogDirectory = "/tmp/usb_logs/";
constexpr const char* drives[] = {"sda", "sdb", "sdc", "sdd"};
/// The highest partition first, the whole drive last.
constexpr const char* partitions[] = {"6", "5", "4", "3", "2", "1", ""};

/// Whether something is there that may be used. What may not is told once, with the reason.
bool isUsable(const TrustedPath& found, const std::string& path) {
    if (!found.why.empty())
        printfToStdout("CZantTrace:: %s is not used: %s\n", path.c_str(), found.why.c_str());
    return static_cast<bool>(found.place);
}

std::vector<std::string> logDirectories() {
    std::vector<std::string> directories = {firstLogDirectory};
    for (const char* const drive : drives)
        for (const char* const partition : partitions)
            directories.push_back(std::string("/mnt/share/extUSB/") + drive + partition +
                                  "/zantalog/");
    return directories;
}

/// The directory for log files, and whether there are commands in it.
struct LogDirectory {
    std::string path; ///< empty if there is none
    bool hasCommands = false;
};

/// Commands run with the rights of this process, which may be root's, and a log may grow over what
/// a link leads to: a directory that others could have prepared does not count.
LogDirectory findLogDirectory(const std::string& commandFile) {
    for (const std::string& path : logDirectories()) {
        if (access(path.c_str(), F_OK) != 0)
            continue; // nothing that there would be something to say about
        const TrustedPath directory = openTrustedFolder(path);
        if (isUsable(directory, path))
            return {path,
                    isUsable(openTrustedFile(directory, path, commandFile), path + commandFile)};
    }
    return {};
}

} // namespace

CZantTrace::CZantTrace()
    : m_LogFile("/mnt/share/extUSB/sda1/zantalog/", "zanttrc", 100000000, ".log", ".bak"),
      m_savedMaxSize(m_LogFile.GetMaxSize()) {}

void CZantTrace::WriteToLogfile(const char* line) {
    if (!traceSettings.tracingToFile)
        return;
    const int32_t result = m_LogFile.WriteStringToLogfile(line);
    if (result >= 0)
        return;
    traceSettings.tracingToFile = false;
    printfToStdout("\n-- m_LogFile.WriteStringToLogfile -- Error = %d  (Writing to logfile is "
                   "disabled now)\n",
                   result);
}

int32_t CZantTrace::StartTracingToFile() {
    return StartTracingToFile(nullptr, nullptr);
}

int32_t CZantTrace::StartTracingToFile(const char* dir, const char* name) {
    {
        const CancellationBlock block;
        const MutexLock lock(m_logControlMutex);
        if (traceSettings.tracingToFile)
            return 0;
        int32_t result = 0;
        // A log that an error has disabled is set up again.
        if (dir || name || m_LogFile.IsDisabled())
            result = m_LogFile.SetFilename(dir ? dir : m_LogFile.GetLogfilePath().c_str(),
                                           name ? name : m_LogFile.GetLogfileName().c_str(),
                                           m_LogFile.GetLogfileExt().c_str(),
                                           m_LogFile.GetBakfileExt().c_str());
        if (result == 0)
            result = m_LogFile.OpenLogfile();
        const std::string file = m_LogFile.GetLogfileFullName();
        if (result != 0) {
            printfToStdout("\nCZantTrace:: LogFile open error %s : Error code: %d "
                           "===============\n",
                           file.c_str(), result);
            return result;
        }
        printfToStdout("CZantTrace:: LogFile opened : %s \n\n", file.c_str());
        beginLog();
    }
    if (void (*const initialInfo)() = traceSettings.initialInfo)
        initialInfo();
    return 0;
}

void CZantTrace::beginLog() {
    traceSettings.tracingToFile = true;
    WriteToLogfile("--- ^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^ TRACING RESTARTED "
                   "^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^ ---\n");
    if (!traceSettings.zantTraceDirectPrint || traceSettings.zantTraceWriteToLogfileIfDirectPrint)
        return;
    const int32_t written = m_LogFile.WriteStringToLogfile(
        "\n--- !!! Traces are NOT logged to this file as direct printing is enabled !!! ---\n");
    if (written < 0)
        printfToStdout("\n-- m_LogFile.WriteStringToLogfile failed-- Error = %d\n", written);
}

int32_t CZantTrace::StopTracingToFile() {
    const CancellationBlock block;
    const MutexLock lock(m_logControlMutex);
    if (!traceSettings.tracingToFile)
        return 0;
    traceSettings.tracingToFile = false;
    traceClock().sleep(writersLeaveMicroseconds);
    const int32_t result = m_LogFile.CloseLogfile();
    const std::string file = m_LogFile.GetLogfileFullName();
    if (result != 0)
        printfToStdout("CZantTrace:: LogFile close error %s : Error code: %d ===============\n",
                       file.c_str(), result);
    else
        printfToStdout("CZantTrace:: LogFile closed : %s \n", file.c_str());
    sync();
    traceClock().sleep(storageSettlesMicroseconds);
    return result;
}

int32_t CZantTrace::CheckAndStartTracingToFile(const char* suffix) {
    const std::string ending = suffix ? suffix : "";
    const std::string commandFile = "traces" + ending + ".cfg";
    const auto [directory, hasCommands] = findLogDirectory(commandFile);
    if (directory.empty())
        return 0;
    sysVarStringMap.Set("ZANTALOG_PATH", directory);
    {
        const CancellationBlock block;
        const MutexLock lock(m_logControlMutex);
        m_LogFile.SetFilename(directory.c_str(), ("zanttrc" + ending).c_str(),
                              m_LogFile.GetLogfileExt().c_str(), ".bak");
    }
    printfToStdout("CZantTrace:: %s exists - activating tracing to file %s\n", directory.c_str(),
                   m_LogFile.GetLogfileFullName().c_str());
    if (const long maxSize = m_LogFile.GetMaxSize())
        m_savedMaxSize = maxSize;
    m_LogFile.SetMaxSize(0);
    const int32_t result = StartTracingToFile();

    void (*const runCommandFile)(const char*) = traceSettings.runCommandFile;
    if (hasCommands && runCommandFile) {
        const std::string cfgFile = directory + commandFile;
        printfToStdout("CZantTrace:: Processing cfgfile: %s\n", cfgFile.c_str());
        runCommandFile(cfgFile.c_str());
    } else {
        m_LogFile.SetMaxSize(m_savedMaxSize);
    }
    return result;
}

int32_t CZantTrace::CheckAndSetMaxSizeOfLogfile() {
    if (m_LogFile.GetMaxSize() == 0)
        m_LogFile.SetMaxSize(m_savedMaxSize);
    return 0;
}

int32_t CZantTrace::SetTraceFileMaxSize(long maxSize) {
    // No limit is a limit too: it outlasts the start of a log, which puts its own aside meanwhile.
    m_savedMaxSize = maxSize;
    m_LogFile.SetMaxSize(maxSize);
    return 0;
}

std::string CZantTrace::GetLogfilePath() {
    return m_LogFile.GetLogfilePath();
}
