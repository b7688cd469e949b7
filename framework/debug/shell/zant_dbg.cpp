#include "debug/shell/zant_dbg.h"

#include "debug/trace/zant_trace.h"

#include <algorithm>
#include <malloc.h>

CZantDbgCmdEntry::CZantDbgCmdEntry(uint32_t commandId, T_ZantDbgFunction commandFunction)
    : id(commandId), function(commandFunction) {
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_DEBUG,
               "CZantDbgCmdEntry Constructor: DbgCmdId = %u\n", id);
}

CZantDbgCmdEntry::~CZantDbgCmdEntry() {
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_DEBUG, "CZantDbgCmdEntry Destructor\n");
}

int32_t CZantDbg::AddZantDbgCmd(unsigned id, T_ZantDbgFunction function) {
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_DEBUG,
               "CZantDbg::AddZantDbgCmd() Inserting zant dbg cmd: DbgCmdId = %u\n", id);
    if (!function) {
        ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_ERROR,
                   "CZantDbg::AddZantDbgCmd() Without a function: DbgCmdId = %u\n", id);
        return 0;
    }
    const MutexLock lock(m_mutex);
    if (find(id))
        ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_WARNING,
                   "CZantDbg::AddZantDbgCmd() Zant dbg cmd already defined: DbgCmdId = %u\n", id);
    else
        m_entries.push_back(std::make_unique<CZantDbgCmdEntry>(id, function));
    return 0;
}

CZantDbgCmdEntry* CZantDbg::GetZantDbgCmdEntry(unsigned id) {
    const MutexLock lock(m_mutex);
    return find(id);
}

CZantDbgCmdEntry* CZantDbg::find(unsigned id) {
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_DEBUG,
               "CZantDbg::GetZantDbgCmdEntry() - searching DbgCmdId = %u\n", id);
    for (const auto& entry : m_entries) {
        ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_DEBUG,
                   "CZantDbg::GetZantDbgCmdEntry() - processing entry: DbgCmdId = %u\n", entry->id);
        if (entry->id == id)
            return entry.get();
    }
    return nullptr;
}

int32_t CZantDbg::ExecuteZantDbgCmd(unsigned id) {
    const CZantDbgCmdEntry* const entry = GetZantDbgCmdEntry(id);
    if (!entry) {
        ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_SYSINFO,
                   "CZantDbg::ExecuteZantDbgCmd() - Unknown DbgCmd: DbgCmdId = %u\n", id);
        return unknownCommand;
    }
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_SYSINFO,
               "CZantDbg::ExecuteZantDbgCmd() - Executing DbgCmd: DbgCmdId = %u\n", id);
    const int32_t result = entry->function(id);
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_SYSINFO,
               "CZantDbg::ExecuteZantDbgCmd() - DbgCmd executed: DbgCmdId = %u, return_code = "
               "%d\n",
               id, result);
    return result;
}

int32_t AddZantDbgCmd(unsigned id, T_ZantDbgFunction function) {
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_INFO,
               "AddZantDbgCmd() called : DbgCmdId = %u\n", id);
    return zantDbg.AddZantDbgCmd(id, function);
}

int32_t ExecuteZantDbgCmd(unsigned id) {
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_INFO,
               "ExecuteZantDbgCmd() called : DbgCmdId = %u\n", id);
    return zantDbg.ExecuteZantDbgCmd(id);
}

int ZantDbgCmdTestFunction(unsigned id) {
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_SYSINFO,
               "EXECUTING ZantDbgCmdTestFunction(): DbgCmdId = %u\n", id);
    return 0;
}

void DisplayMallocInfo() {
    static Mutex mutex;
    static size_t max = 0;
    static size_t mean = 0;
    static bool isFirst = true;

    const size_t current = mallinfo2().uordblks;
    const MutexLock lock(mutex);
    max = std::max(max, current);
    mean = isFirst ? current : (mean + current) / 2;
    isFirst = false;
    ZANT_TRACE(TRACEUNIT_DEBUG_COMMANDS, TRACELEVEL_SYSINFO,
               "$$$ MALLOC INFO (uordblks): max =%zu, mean = %zu, current = %zu\n", max, mean,
               current);
}
