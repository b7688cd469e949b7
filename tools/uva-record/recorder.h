#ifndef UVA_RECORD_RECORDER_H
#define UVA_RECORD_RECORDER_H

#include "format.h"
#include "operations.h"
#include "record_file.h"
#include "util/mutex.h"
#include "value.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

class UVAStreamConfig;

namespace record {

/// Notes what passes between host and library, for a process. Thread-safe.
class Recorder {
public:
    Recorder(std::unique_ptr<RecordFile> file, Payloads kept)
        : payloads(kept), m_file(std::move(file)) {}

    /// Numbers for calls and asks, events, samples, backends and content protections, from 1.
    std::uint32_t next() { return m_next.fetch_add(1, std::memory_order_relaxed) + 1; }
    std::uint32_t nextObject() { return m_nextObject.fetch_add(1, std::memory_order_relaxed) + 1; }

    void note(Kind kind, std::uint32_t object, std::uint32_t number, std::uint16_t code,
              const Encoder& body);
    void data(std::uint32_t object, std::uint32_t sample, const void* bytes, std::size_t size);
    void say(const std::string& text); ///< a Note, and a line on standard error

    /// The number of a configuration of these values; noted when it is new.
    std::uint32_t config(std::uint32_t object, const UVAStreamConfig& config);

    void close() { m_file->close(); }
    void abandon() { m_file->abandon(); }

    const Payloads payloads;

private:
    void append(Kind kind, std::uint32_t object, std::uint32_t number, std::uint16_t code,
                const void* body, std::size_t size);
    std::uint32_t thread();

    const std::unique_ptr<RecordFile> m_file;
    std::atomic<std::uint32_t> m_next{0};
    std::atomic<std::uint32_t> m_nextObject{0};
    std::atomic<std::uint32_t> m_threads{0};
    Mutex m_mutex; // a configuration is noted under it
    std::unordered_map<std::string, std::uint32_t> m_configs GUARDED_BY(m_mutex);
};

/// The numbers of objects that one side has named to the other, by their addresses. Nobody says
/// when one is deleted, and another may come to lie there: so they have looks, too. Thread-safe.
class Identities {
public:
    void remember(const void* object, std::uint32_t number, std::uint64_t look = 0) {
        const MutexLock lock(m_mutex);
        m_numbers[object] = {number, look};
    }
    void forget(const void* object) {
        const MutexLock lock(m_mutex);
        m_numbers.erase(object);
    }
    std::uint32_t numberOf(const void* object, std::uint64_t look = 0) const { ///< 0: unknown
        const MutexLock lock(m_mutex);
        const auto found = m_numbers.find(object);
        const bool isKnown = found != m_numbers.end() && found->second.second == look;
        return isKnown ? found->second.first : 0;
    }

private:
    mutable Mutex m_mutex; // nothing is called under it
    std::unordered_map<const void*, std::pair<std::uint32_t, std::uint64_t>>
        m_numbers GUARDED_BY(m_mutex);
};

/// Of an event: its type, and of a request for samples its members.
std::uint64_t lookOf(const UVAEvent& event);

} // namespace record

#endif
