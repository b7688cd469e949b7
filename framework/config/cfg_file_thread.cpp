#include "config/cfg_file_thread.h"

#include "config/cfg_file.h"
#include "debug/trace/zant_trace_core.h"
#include "messaging/queue/zant_msg.h"

#include <cstring>
#include <string>

namespace {

constexpr const char* fileQueueName = "/Q_CfgFileThread";
constexpr int queueRoom = 5;
/// How much longer than its text the buffer of a path is.
constexpr size_t pathExtra = 3;

/// The path in a message, empty without one.
std::string pathOf(const CZantMsg& msg) {
    if (!msg.signalPtr || msg.signalSize <= 0)
        return {};
    const auto* const text = static_cast<const char*>(msg.signalPtr);
    return {text, strnlen(text, static_cast<size_t>(msg.signalSize))};
}

} // namespace

int32_t CCfgFileThread::Init() {
    const MutexLock lock(m_initMutex);
    if (!m_isInitialised)
        m_initResult = start();
    m_isInitialised = true;
    return m_initResult;
}

int32_t CCfgFileThread::start() {
    int32_t result = CThreadObjectWithQueue::Init(fileQueueName, queueRoom, 0, false, true);
    if (result != 0) {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_ERROR,
                   "CfgFileThread::Init() -  CThreadObjectWithQueue::Init failed - error code = "
                   "%d\n",
                   result);
        return result;
    }
    result = StartThread("CfgFileThread", 0, 0);
    if (result != 0)
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_ERROR,
                   "CfgFileThread::Init() -  CThreadObjectWithQueue::Start Thread failed - error "
                   "code = %d\n",
                   result);
    return result;
}

void CCfgFileThread::ExecuteCfgFileInSeparateThread(const char* path) {
    Init();
    CZantMsg msg(SIG_ID_EXECUTE_CFG_FILE_IN_THREAD);
    if (path) {
        const size_t size = strlen(path) + pathExtra;
        msg.signalPtr = memset(::operator new(size), 0, size);
        memcpy(msg.signalPtr, path, size - pathExtra);
        msg.signalSize = static_cast<int32_t>(size);
    }
    SendCmd(&msg);
}

void CCfgFileThread::ProcessZantMsg(CZantMsg* msg) {
    const char* const signalName = msg->signalName();
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_DEBUG,
               "CfgFileThread::ProcessZantMsg called -- Signal Name = %s\n", signalName);
    if (msg->signalId == SIG_ID_EXECUTE_CFG_FILE_IN_THREAD)
        RxExecuteCfgFile(*msg);
    else
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_WARNING,
                   "CfgFileThread::ProcessZantMsg unknown message ignored! SignalId = %u Signal = "
                   "%s\n",
                   msg->signalId, signalName);
    msg->FreeSignal();
}

void CCfgFileThread::RxExecuteCfgFile(const CZantMsg& msg) {
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_DEBUG,
               "CfgFileThread::RxExecuteCfgFile()\n");
    const std::string path = pathOf(msg);
    CCfgFile cfgFile;
    if (path.empty()) {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_ERROR,
                   "CfgFileThread::RxExecuteCfgFile() FAILED = no filename given\n");
    } else if (!cfgFile.file_exist(path.c_str())) {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_ERROR,
                   "CfgFileThread::RxExecuteCfgFile() FAILED -  Cfg file not found : %s\n",
                   path.c_str());
    } else {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_INFO,
                   "CfgFileThread::Processing cfg file %s\n", path.c_str());
        const int32_t result = cfgFile.ReadCfgfile(path.c_str());
        if (result >= 0)
            ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_INFO,
                       "CfgFileThread::RxExecuteCfgFile() finished successfully\n");
        else
            ZANT_TRACE(TRACEUNIT_CONFIG_FILE_THREAD, TRACELEVEL_ERROR,
                       "CfgFileThread::RxExecuteCfgFile() FAILED - error code = %d\n", result);
    }
    zantTrace.CheckAndSetMaxSizeOfLogfile();
}
