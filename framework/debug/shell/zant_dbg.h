#ifndef ZANT_DBG_H
#define ZANT_DBG_H

#include "util/mutex.h"

#include <cstdint>
#include <list>
#include <memory>

/// A debug function; it gets the number that it was run under.
using T_ZantDbgFunction = int (*)(unsigned);

/// One numbered debug command. Never changes.
class CZantDbgCmdEntry {
public:
    CZantDbgCmdEntry(uint32_t id, T_ZantDbgFunction function);
    virtual ~CZantDbgCmdEntry();
    CZantDbgCmdEntry(const CZantDbgCmdEntry&) = delete;
    CZantDbgCmdEntry& operator=(const CZantDbgCmdEntry&) = delete;

    const uint32_t id;
    const T_ZantDbgFunction function;
};

/// Debug functions by number: modules register them, an operator runs them with "m_dbgcmd". All
/// functions are thread-safe; entries are never removed while the object lives.
class CZantDbg {
public:
    static constexpr int32_t unknownCommand = -2500;

    CZantDbg() = default;
    virtual ~CZantDbg() = default;
    CZantDbg(const CZantDbg&) = delete;
    CZantDbg& operator=(const CZantDbg&) = delete;

    /// Nothing to be done; for applications that call it.
    void Init() {}
    /// The first registration of a number wins; a null function is refused. Always 0.
    int32_t AddZantDbgCmd(unsigned id, T_ZantDbgFunction function) EXCLUDES(m_mutex);
    /// The entry of that number, or null.
    CZantDbgCmdEntry* GetZantDbgCmdEntry(unsigned id) EXCLUDES(m_mutex);
    /// Runs the function on the calling thread. Its result, or unknownCommand.
    int32_t ExecuteZantDbgCmd(unsigned id) EXCLUDES(m_mutex);

private:
    CZantDbgCmdEntry* find(unsigned id) REQUIRES(m_mutex);

    /// Guards the list, not the entries. Nothing but traces is called under it.
    Mutex m_mutex;
    /// In order of registration.
    std::list<std::unique_ptr<CZantDbgCmdEntry>> m_entries GUARDED_BY(m_mutex);
};

/// The one registry of the process. Never destroyed.
extern CZantDbg& zantDbg;

///@{
/// The same on zantDbg.
int32_t AddZantDbgCmd(unsigned id, T_ZantDbgFunction function);
int32_t ExecuteZantDbgCmd(unsigned id);
///@}

/// A function to try the way from the shell to a function with. Returns 0.
int ZantDbgCmdTestFunction(unsigned id);

/// Traces how many bytes of the heap are in use: now, at most so far, and a mean that halves the
/// weight of the past with every call.
void DisplayMallocInfo();

#endif
