#include "timeline/recorder.h"

#include "timeline/timeline.h"
#include "util/cancellation_block.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <limits>
#include <pthread.h>
#include <unistd.h>
#include <utility>

namespace timeline {

namespace {

using namespace std::chrono_literals;

constexpr auto pause = 100ms; ///< between two parts: what a process that is killed may lose
constexpr std::size_t part = 256 << 10; ///< bytes that are worth the file before that

/// A row of the recorder's own.
std::string noteOf(const char* what, const char* key, long long value) {
    char text[300];
    const auto now = std::chrono::duration<double, std::micro>(Clock::now().time_since_epoch());
    std::snprintf(text, sizeof text,
                  R"({"ph":"i","cat":"timeline","name":"%s","pid":%d,"tid":%d,"ts":%.3f,"s":"p",)"
                  R"("args":{"%s":%lld}})",
                  what, getpid(), gettid(), now.count(), key, value);
    return text;
}

} // namespace

std::string Recorder::open(const std::string& path) {
    const MutexLock lock(m_fileMutex);
    return m_file.open(path);
}

bool Recorder::add(std::string_view row) {
    const MutexLock lock(m_mutex);
    if (m_isFull)
        return false;
    if (m_rows.size() + row.size() > mostBytes) {
        ++m_lost;
        return true;
    }
    if (!m_rows.empty())
        m_rows += ",\n";
    m_rows += row;
    ++m_count;
    if (!m_hasWriter)
        startWriter();
    if (m_count == 1 || m_rows.size() >= part)
        m_changed.broadcast();
    return true;
}

/// Without one the end of the process writes what there is room for.
void Recorder::startWriter() {
    m_hasWriter = true;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // signals are for the threads of others
    pthread_t thread{};
    const auto run = [](void* self) -> void* { static_cast<Recorder*>(self)->write(); };
    if (pthread_create(&thread, nullptr, run, this) == 0) {
        pthread_setname_np(thread, "timeline");
        pthread_detach(thread);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Recorder::write() {
    for (;;) {
        {
            const MutexLock lock(m_mutex);
            while (m_count == 0)
                m_changed.waitUntil(m_mutex, Clock::now() + 1h);
            const auto due = Clock::now() + pause;
            while (m_rows.size() < part && m_changed.waitUntil(m_mutex, due)) {
            }
        }
        writeOut();
    }
}

void Recorder::writeOut() {
    const MutexLock fileLock(m_fileMutex);
    std::string rows;
    std::size_t count = 0;
    {
        const MutexLock lock(m_mutex);
        count = std::exchange(m_count, 0) + noteLoss();
        rows.swap(m_rows);
    }
    if (rows.empty())
        return;
    const auto added = m_file.add(rows, m_fileLimit);
    if (added == TraceFile::Added::All)
        return;
    if (added == TraceFile::Added::Full)
        m_file.add(noteOf("the file is full: what comes is left out", "bytes", m_fileLimit),
                   std::numeric_limits<off_t>::max());
    const MutexLock lock(m_mutex);
    if (added == TraceFile::Added::Full)
        m_isFull = true;
    else
        m_lost += count;
}

/// Behind what there was room for again. How many are told of.
std::size_t Recorder::noteLoss() {
    const std::size_t lost = std::exchange(m_lost, 0);
    if (lost > 0)
        m_rows += (m_rows.empty() ? "" : ",\n") +
                  noteOf("events were lost before this", "events", static_cast<long long>(lost));
    return lost;
}

std::string Recorder::flush() {
    const CancellationBlock block;
    writeOut();
    const MutexLock lock(m_fileMutex);
    return m_file.failure();
}

} // namespace timeline
