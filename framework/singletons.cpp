#include "config/cfg_file_thread.h"
#include "debug/log/rol_log.h"
#include "debug/shell/mshell.h"
#include "debug/shell/zant_dbg.h"
#include "debug/shell/zant_trace_mshell.h"
#include "debug/trace/sys_vars.h"
#include "debug/trace/time_trace.h"
#include "debug/trace/zant_trace_core.h"
#include "debug/trace/zant_trace_thread.h"
#include "messaging/queue/zant_msg_queue.h"
#include "messaging/thread/thread_object.h"
#include "util/never_destroyed.h"
#include "util/string_utility.h"

#include <list>
#include <string>

// The objects that live once in a process. Threads outlive static destruction, so none of them is
// ever destroyed, and each is reached through a reference that is constant from the start. They are
// built before the program's own static objects, which may start threads and open queues.

namespace {

NeverDestroyed<std::list<T_GlobalThreadInfo>> threadListStorage;
NeverDestroyed<std::list<T_GlobalMsgQueueInfo>> queueListStorage;
NeverDestroyed<CZantTrace> traceStorage;
NeverDestroyed<CZantTraceThread> traceThreadStorage;
NeverDestroyed<CMshell> shellStorage;
NeverDestroyed<CTimeTrace> timeTraceStorage;
NeverDestroyed<CZantDbg> debugCommandsStorage;
NeverDestroyed<std::string> logfileDriveStorage;
NeverDestroyed<std::string> logfileDirectoryStorage;
NeverDestroyed<CSysVarMap<std::string>> sysVarStringStorage;
NeverDestroyed<CSysVarMap<int>> sysVarIntStorage;
NeverDestroyed<CStringUtility> stringUtilityStorage;
NeverDestroyed<CCfgFileThread> cfgFileThreadStorage;

} // namespace

std::list<T_GlobalThreadInfo>& CThreadObject::globalThreadObjectList = threadListStorage.object;
std::list<T_GlobalMsgQueueInfo>& CZantMsgQueue::globalMsgQueueList = queueListStorage.object;
CZantTrace& zantTrace = traceStorage.object;
CZantTraceThread& zantTraceThread = traceThreadStorage.object;
CMshell& mshell = shellStorage.object;
CTimeTrace& timeTrace = timeTraceStorage.object;
CZantDbg& zantDbg = debugCommandsStorage.object;
std::string& logfileDrive = logfileDriveStorage.object;
std::string& logfileDirectory = logfileDirectoryStorage.object;
CSysVarMap<std::string>& sysVarStringMap = sysVarStringStorage.object;
CSysVarMap<int>& sysVarIntMap = sysVarIntStorage.object;
CStringUtility& theStringUtility = stringUtilityStorage.object;
CCfgFileThread& cfgFileThread = cfgFileThreadStorage.object;

namespace {

/// The order of construction; a library that contains the framework may have objects before these
/// (101, 102). The constructors set up memory only: no thread, no queue, no file.
[[gnu::constructor(103)]] void build() {
    threadListStorage.build();
    queueListStorage.build();
    traceStorage.build();
    traceThreadStorage.build();
    shellStorage.build();
    timeTraceStorage.build(TRACEUNIT_NONE, TRACELEVEL_INFO);
    debugCommandsStorage.build();
    logfileDriveStorage.build("/dev/sda1");
    logfileDirectoryStorage.build("/tmp");
    sysVarStringStorage.build();
    sysVarIntStorage.build();
    stringUtilityStorage.build();
    cfgFileThreadStorage.build();

    traceSettings.addShellCommands = AddZantTraceMshellCmds;
    traceSettings.runCommandFile = [](const char* path) {
        cfgFileThread.ExecuteCfgFileInSeparateThread(path);
    };
}

} // namespace
