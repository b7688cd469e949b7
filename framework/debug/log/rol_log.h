#ifndef ROL_LOG_H
#define ROL_LOG_H

#include "util/mutex.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

/// How a log is opened; kept for applications, nothing here looks at it.
enum T_openMode : int32_t { OPEN_MODE_DEFAULT = 0 };

/// A text log of limited size with one backup: when the next line would take the file past its
/// maximum, it becomes the backup, in place of the one before, and a new file begins.
///
/// Every line is on its way to the disk when the call returns. The first error closes and disables
/// the log: later lines are dropped until it is set up again. All functions are thread-safe, none
/// is a cancellation point. They return 0 or a Code.
class CRolLog {
public:
    /// What the functions answer besides 0; docs/framework.md has the causes.
    enum Code : int32_t {
        directoryTooLong = -1000,
        openFailed = -1001,
        closeFailed = -1002,
        deleteFailed = -1003,
        writeFailed = -1004,
        sizeFailed = -1005,
        backupNotRemoved = -1006,
        renameFailed = -1007,
        nameFailed = -1008,
        flushFailed = -1009,
    };

    CRolLog() : CRolLog("/", "logfile", 10000000, ".LOG", ".BAK") {}
    /// Touches no file yet. `maxSize` in bytes, 0 for no limit.
    CRolLog(const char* dir, const char* name, long maxSize, const char* ext, const char* bakExt);
    virtual ~CRolLog();
    CRolLog(const CRolLog&) = delete;
    CRolLog& operator=(const CRolLog&) = delete;

    /// Sets a closed log up: at most 499 characters each, extensions with or without a dot.
    int32_t InitLogfile(const char* dir, const char* name, const char* ext, const char* bakExt,
                        long maxSize, T_openMode openMode) EXCLUDES(m_fileMutex);
    /// Closes the log and sets it up under other names, with its maximum.
    int32_t SetFilename(const char* dir, const char* name, const char* ext, const char* bakExt)
        EXCLUDES(m_fileMutex);
    /// Forms the full names anew.
    int32_t CalcFilenames() EXCLUDES(m_fileMutex);

    ///@{
    /// Opens a closed log, or closes an open one; does nothing to any other. A log that is closed
    /// is opened for each line and closed again. `lock` is false for a caller that keeps all other
    /// threads away from the log itself.
    int32_t OpenLogfile(bool lock = true);
    int32_t CloseLogfile(bool lock = true);
    ///@}
    /// Closes the log and removes it and its backup.
    int32_t DeleteLogfile(bool lock = true);

    /// Appends the text, which brings its own line end. Each counts two bytes more than it has, on
    /// purpose: files rotate a little early.
    int32_t WriteStringToLogfile(const char* text) EXCLUDES(m_fileMutex);

    ///@{
    /// The file's size at most, bytes; 0 for no limit. It counts from the next line on.
    void SetMaxSize(long maxSize) EXCLUDES(m_fileMutex);
    long GetMaxSize() EXCLUDES(m_fileMutex);
    ///@}
    /// Whether the file is there, opened or not.
    bool LogfileExists() EXCLUDES(m_fileMutex);
    /// True after an error, until the log is set up again.
    bool IsDisabled() EXCLUDES(m_fileMutex);
    ///@{
    /// Copies of the names in force.
    std::string GetLogfileFullName() { return copyOf(&CRolLog::m_fullName); }
    std::string GetLogfilePath() { return copyOf(&CRolLog::m_directory); }
    std::string GetLogfileName() { return copyOf(&CRolLog::m_name); }
    std::string GetLogfileExt() { return copyOf(&CRolLog::m_ext); }
    std::string GetBakfileExt() { return copyOf(&CRolLog::m_bakExt); }
    ///@}

private:
    static constexpr size_t nameSize = 500;

    using Operation = int32_t (CRolLog::*)();
    int32_t run(Operation operation, bool lock);

    using Text = char (CRolLog::*)[nameSize];
    std::string copyOf(Text text) EXCLUDES(m_fileMutex);

    enum class State { open, disabled, closed };
    /// The size on disk has not been looked up.
    static constexpr int32_t unknownSize = -1;

    void setNames(const char* dir, const char* name, const char* ext, const char* bakExt)
        REQUIRES(m_fileMutex);
    int32_t init(long maxSize) REQUIRES(m_fileMutex);
    int32_t calcFilenames() REQUIRES(m_fileMutex);
    int32_t openIfClosed() REQUIRES(m_fileMutex);
    int32_t open() REQUIRES(m_fileMutex);
    int32_t close() REQUIRES(m_fileMutex);
    int32_t remove() REQUIRES(m_fileMutex);
    int32_t rotate() REQUIRES(m_fileMutex);
    int32_t moveToBackup() REQUIRES(m_fileMutex);
    int32_t write(const char* text, size_t length) REQUIRES(m_fileMutex);
    int32_t disable(int32_t code) REQUIRES(m_fileMutex);
    bool exceedsMaximum(size_t length) const REQUIRES(m_fileMutex);

    /// Guards all that follows. Nothing but the file is touched under it.
    Mutex m_fileMutex;
    char m_directory[nameSize] GUARDED_BY(m_fileMutex) = {};
    char m_name[nameSize] GUARDED_BY(m_fileMutex) = {};
    char m_ext[nameSize] GUARDED_BY(m_fileMutex) = {};
    char m_bakExt[nameSize] GUARDED_BY(m_fileMutex) = {};
    char m_fullName[nameSize] GUARDED_BY(m_fileMutex) = {};
    char m_bakFullName[nameSize] GUARDED_BY(m_fileMutex) = {};
    int32_t m_maxSize GUARDED_BY(m_fileMutex) = 0;
    T_openMode m_openMode GUARDED_BY(m_fileMutex) = OPEN_MODE_DEFAULT;
    FILE* m_file GUARDED_BY(m_fileMutex) = nullptr;
    int32_t m_currentSize GUARDED_BY(m_fileMutex) = unknownSize;
    State m_state GUARDED_BY(m_fileMutex) = State::closed;
};

/// Where an application that asks nobody else puts its log files: the drive that it looks for, and
/// the directory without one. Set before threads start. Never destroyed.
extern std::string& logfileDrive;
extern std::string& logfileDirectory;

/// The file's size in bytes, or CRolLog::sizeFailed.
long get_file_size(const char* path);

/// Flushes and closes; 0, CRolLog::flushFailed or CRolLog::closeFailed. Nothing is 0.
int32_t close_file(FILE* file);

#endif
