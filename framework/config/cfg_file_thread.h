#ifndef CONFIG_CFG_FILE_THREAD_H
#define CONFIG_CFG_FILE_THREAD_H

#include "messaging/queue_thread/thread_object_with_queue.h"
#include "util/mutex.h"

#include <atomic>
#include <cstdint>

/// Runs configuration files one after another on a thread of its own, which comes with the first
/// of them. Any thread may ask for a file.
class CCfgFileThread : public CThreadObjectWithQueue {
public:
    ~CCfgFileThread() override { StopThreadAndWait(); }

    /// Opens the queue and starts the thread, the first time it is called. 0 or what failed then,
    /// which is not tried again.
    int32_t Init() EXCLUDES(m_initMutex);

    /// Asks for a file and goes on at once. Five files may wait; further ones are dropped with a
    /// trace of the queue.
    void ExecuteCfgFileInSeparateThread(const char* path);

    void ProcessZantMsg(CZantMsg* msg) override;

private:
    int32_t start();
    static void RxExecuteCfgFile(const CZantMsg& msg);

    /// Held while the thread is started.
    Mutex m_initMutex;
    bool m_isInitialised GUARDED_BY(m_initMutex) = false;
    int32_t m_initResult GUARDED_BY(m_initMutex) = 0;
};

/// The one thread of the process. Never destroyed.
extern CCfgFileThread& cfgFileThread;

#endif
