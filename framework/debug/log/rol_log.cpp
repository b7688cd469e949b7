#include "debug/log/rol_log.h"

#include "util/cancellation_block.h"
#include "util/scoped_handles.h"
#include "util/strl.h"
#include "util/trusted_path.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <sys/stat.h>

namespace {

/// What a line counts beyond its length.
constexpr int64_t countedExtra = 2;

const char* textOrNothing(const char* text) {
    return text ? text : "";
}

const char* withoutDot(const char* extension) {
    return *extension == '.' ? extension + 1 : extension;
}

int32_t limited(int64_t size) {
    return static_cast<int32_t>(std::clamp<int64_t>(size, 0, INT32_MAX));
}

bool exists(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0;
}

/// Opens a regular file for appending. Whoever can write into the directory must not lead the log
/// elsewhere, nor own it, nor hold it up: links of either kind, files of other users, pipes and
/// devices are refused.
FILE* openForAppending(const char* path) {
    ScopedFd fd(
        open(path, O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat info {};
    if (!fd || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_nlink != 1 ||
        !belongsToUsOrRoot(info))
        return nullptr;
    FILE* const file = fdopen(fd.get(), "a+");
    if (file)
        static_cast<void>(fd.release());
    return file;
}

/// Writes and flushes in one go.
bool put(FILE* file, const char* text, size_t length) {
    return fwrite_unlocked(text, 1, length, file) == length && fflush_unlocked(file) == 0;
}

} // namespace

CRolLog::CRolLog(const char* dir, const char* name, long maxSize, const char* ext,
                 const char* bakExt) {
    const MutexLock lock(m_fileMutex);
    setNames(dir, name, ext, bakExt);
    m_maxSize = limited(maxSize);
    if (calcFilenames() != 0)
        m_state = State::disabled;
}

CRolLog::~CRolLog() {
    CloseLogfile();
}

void CRolLog::setNames(const char* dir, const char* name, const char* ext, const char* bakExt) {
    strlcpy(m_directory, textOrNothing(dir), nameSize);
    strlcpy(m_name, textOrNothing(name), nameSize);
    strlcpy(m_ext, textOrNothing(ext), nameSize);
    strlcpy(m_bakExt, textOrNothing(bakExt), nameSize);
}

int32_t CRolLog::InitLogfile(const char* dir, const char* name, const char* ext, const char* bakExt,
                             long maxSize, T_openMode openMode) {
    const CancellationBlock block;
    const MutexLock lock(m_fileMutex);
    close();
    setNames(dir, name, ext, bakExt);
    m_openMode = openMode;
    return init(maxSize);
}

int32_t CRolLog::SetFilename(const char* dir, const char* name, const char* ext,
                             const char* bakExt) {
    const CancellationBlock block;
    const MutexLock lock(m_fileMutex);
    const int32_t closed = close();
    setNames(dir, name, ext, bakExt);
    const int32_t result = init(m_maxSize);
    return closed != 0 ? closeFailed : result;
}

/// Of a log that is closed. Without good names it stays disabled.
int32_t CRolLog::init(long maxSize) {
    m_maxSize = limited(maxSize);
    m_currentSize = 0;
    m_state = State::disabled;
    if (const int32_t failed = calcFilenames())
        return failed;
    m_state = State::closed;
    if (!exists(m_fullName))
        return 0;
    const long size = get_file_size(m_fullName);
    if (size < 0)
        return sizeFailed;
    m_currentSize = limited(size);
    return 0;
}

int32_t CRolLog::CalcFilenames() {
    const MutexLock lock(m_fileMutex);
    return calcFilenames();
}

int32_t CRolLog::calcFilenames() {
    const size_t length = strlen(m_directory);
    if (length == 0 || m_directory[length - 1] != '/') {
        if (length > nameSize - 2)
            return directoryTooLong;
        strlcat(m_directory, "/", nameSize);
    }
    for (char* const extension : {m_ext, m_bakExt})
        memmove(extension, withoutDot(extension), strlen(withoutDot(extension)) + 1);
    const auto form = [&](char* out, const char* extension) {
        const int formed = snprintf(out, nameSize, "%s%s.%s", m_directory, m_name, extension);
        return formed >= 0 && static_cast<size_t>(formed) < nameSize;
    };
    return form(m_fullName, m_ext) && form(m_bakFullName, m_bakExt) ? 0 : nameFailed;
}

int32_t CRolLog::OpenLogfile(bool lock) {
    return run(&CRolLog::openIfClosed, lock);
}

int32_t CRolLog::CloseLogfile(bool lock) {
    return run(&CRolLog::close, lock);
}

int32_t CRolLog::DeleteLogfile(bool lock) {
    return run(&CRolLog::remove, lock);
}

int32_t CRolLog::run(Operation operation, bool lock) {
    const CancellationBlock block;
    if (!lock)
        return (this->*operation)();
    const MutexLock held(m_fileMutex);
    return (this->*operation)();
}

int32_t CRolLog::openIfClosed() {
    return m_state == State::closed ? open() : 0;
}

int32_t CRolLog::remove() {
    const bool closed = close() == 0;
    const bool logRemoved = unlink(m_fullName) == 0;
    const bool backupRemoved = unlink(m_bakFullName) == 0;
    m_currentSize = 0;
    return closed && logRemoved && backupRemoved ? 0 : deleteFailed;
}

int32_t CRolLog::WriteStringToLogfile(const char* text) {
    if (!text)
        return 0;
    const size_t length = strlen(text);
    const CancellationBlock block;
    const MutexLock lock(m_fileMutex);
    if (m_state == State::disabled)
        return 0;
    if (m_currentSize == unknownSize)
        m_currentSize = limited(get_file_size(m_fullName));
    if (exceedsMaximum(length)) {
        if (const int32_t failed = rotate())
            return disable(failed);
    }
    if (m_state == State::open)
        return write(text, length);

    if (open() != 0)
        return disable(openFailed);
    const int32_t written = write(text, length);
    return written != 0 ? written : close();
}

bool CRolLog::exceedsMaximum(size_t length) const {
    return m_maxSize != 0 && m_currentSize + static_cast<int64_t>(length) > m_maxSize;
}

int32_t CRolLog::rotate() {
    const bool wasOpen = m_state == State::open;
    if (close() != 0)
        return closeFailed;
    // A first line that is longer than the maximum finds nothing to move.
    if (wasOpen || exists(m_fullName)) {
        if (const int32_t failed = moveToBackup())
            return failed;
    }
    if (wasOpen && open() != 0)
        return openFailed;
    m_currentSize = 0;
    return 0;
}

int32_t CRolLog::moveToBackup() {
    if (exists(m_bakFullName) && unlink(m_bakFullName) != 0)
        return backupNotRemoved;
    return rename(m_fullName, m_bakFullName) == 0 ? 0 : renameFailed;
}

int32_t CRolLog::write(const char* text, size_t length) {
    if (!put(m_file, text, length))
        return disable(writeFailed);
    m_currentSize = limited(m_currentSize + static_cast<int64_t>(length) + countedExtra);
    return 0;
}

int32_t CRolLog::open() {
    m_file = openForAppending(m_fullName);
    if (!m_file)
        return openFailed;
    m_state = State::open;
    return 0;
}

int32_t CRolLog::close() {
    if (m_state != State::open)
        return 0;
    m_state = State::closed;
    return close_file(std::exchange(m_file, nullptr));
}

int32_t CRolLog::disable(int32_t code) {
    close();
    m_state = State::disabled;
    return code;
}

void CRolLog::SetMaxSize(long maxSize) {
    const MutexLock lock(m_fileMutex);
    m_maxSize = limited(maxSize);
}

long CRolLog::GetMaxSize() {
    const MutexLock lock(m_fileMutex);
    return m_maxSize;
}

bool CRolLog::LogfileExists() {
    const MutexLock lock(m_fileMutex);
    return exists(m_fullName);
}

bool CRolLog::IsDisabled() {
    const MutexLock lock(m_fileMutex);
    return m_state == State::disabled;
}

std::string CRolLog::copyOf(Text text) {
    const MutexLock lock(m_fileMutex);
    return this->*text;
}

long get_file_size(const char* path) {
    struct stat info {};
    if (!path || stat(path, &info) != 0)
        return CRolLog::sizeFailed;
    return static_cast<long>(std::min<off_t>(info.st_size, LONG_MAX));
}

int32_t close_file(FILE* file) {
    if (!file)
        return 0;
    clearerr(file);
    const bool flushed = fflush(file) == 0;
    const bool closed = fclose(file) == 0;
    if (!flushed)
        return CRolLog::flushFailed;
    return closed ? 0 : CRolLog::closeFailed;
}
