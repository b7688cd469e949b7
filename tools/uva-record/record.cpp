#include "record.h"

#include "operations.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace record {

namespace {

constexpr std::size_t mostTorn = 256;                  // threads that write at a time, and more
constexpr std::uint64_t longestTorn = 4 * largestBody; // several that follow one another

constexpr const char* kindNames[] = {"",       "call",   "return", "event", "taken",
                                     "config", "sample", "data",   "freed", "ask",
                                     "answer", "thread", "note",   "end",   "pad"};
static_assert(std::size(kindNames) == static_cast<std::size_t>(lastKind) + 1);

std::uint64_t segmentEnd(std::uint64_t offset) {
    return (offset / segmentSize + 1) * segmentSize;
}

/// Reads entries one behind the other.
class Reader {
public:
    explicit Reader(Record& record) : m_record(record), m_size(record.bytes.size()) {}

    void read() {
        if (!readHeader())
            return;
        while (m_at < m_size && m_record.error.empty() && !m_ended)
            step();
    }

private:
    void fail(std::uint64_t offset, const std::string& reason) {
        m_record.error = "offset " + std::to_string(offset) + ": " + reason;
    }

    bool readHeader() {
        auto& header = m_record.header;
        if (m_size < sizeof header)
            return fail(0, "too short to be a record"), false;
        std::memcpy(&header, m_record.bytes.data(), sizeof header);
        if (std::memcmp(header.magic, magic, sizeof magic) != 0)
            return fail(0, "no record"), false;
        if (header.version != version)
            return fail(8, "a record of version " + std::to_string(header.version) +
                               "; this program reads version " + std::to_string(version)),
                   false;
        if (header.segmentSize != segmentSize)
            return fail(12, "segments of an unknown size"), false;
        if (header.payloads != Payloads::Full && header.payloads != Payloads::Digest)
            return fail(32, "payloads of an unknown kind"), false;
        m_at = sizeof header;
        return true;
    }

    std::uint64_t wordAt(std::uint64_t offset) const {
        std::uint64_t word = 0;
        std::memcpy(&word, m_record.bytes.data() + offset, sizeof word);
        return word;
    }

    /// The size of the entry there; 0: there is none.
    std::uint64_t entryAt(std::uint64_t offset, Kind& kind) const {
        if (offset + sizeof(std::uint64_t) > m_size)
            return 0;
        const std::uint64_t mark = wordAt(offset);
        const auto size = static_cast<std::uint32_t>(mark);
        const auto code = static_cast<std::uint8_t>(mark >> 32);
        if (code == 0 || code > static_cast<std::uint8_t>(lastKind))
            return 0;
        kind = static_cast<Kind>(code);
        const std::uint64_t least = kind == Kind::Pad ? alignment : sizeof(EntryHeader);
        if (mark != markOf(offset, kind, size) || size < least || offset + size > m_size)
            return 0;
        return offset + alignedUp(size) <= segmentEnd(offset) ? size : 0;
    }

    void step() {
        Kind kind = Kind::Note;
        const std::uint64_t size = entryAt(m_at, kind);
        if (size == 0)
            return skip();
        if (kind != Kind::Pad)
            take(kind, size);
        m_at += alignedUp(size);
    }

    /// To the next entry, over the reserve at a segment's end, what a killed thread has left, or
    /// what was never written: the file has segments ahead of its threads.
    void skip() {
        const std::uint64_t begin = m_at;
        std::uint64_t written = begin; // where the last that is not 0 ends
        Kind kind = Kind::Note;
        while (m_at + alignment <= m_size && entryAt(m_at, kind) == 0) {
            m_at += alignment;
            if (wordAt(m_at - alignment) != 0)
                written = m_at;
        }
        const bool isTail = m_at + alignment > m_size;
        const bool isReserve = m_at % segmentSize == 0 && m_at - begin <= segmentReserve;
        const std::uint64_t end = isTail ? written : m_at;
        if (isTail)
            m_at = m_size;
        if (end == begin || (isReserve && written == begin))
            return;
        m_record.torn.push_back({begin, end - begin});
        if (end - begin > longestTorn || m_record.torn.size() > mostTorn)
            fail(begin, "no entry, and more than threads leave behind that are killed");
    }

    void take(Kind kind, std::uint64_t size) {
        EntryHeader header;
        std::memcpy(&header, m_record.bytes.data() + m_at, sizeof header);
        Entry entry;
        entry.offset = m_at;
        entry.kind = kind;
        entry.time = header.time;
        entry.thread = header.thread;
        entry.object = header.object;
        entry.number = header.number;
        entry.code = header.code;
        entry.body = {m_record.bytes.data() + m_at + sizeof header,
                      static_cast<std::size_t>(size - sizeof header)};
        if (!hasKnownCode(entry))
            return fail(m_at, std::string("a ") + kindNames[static_cast<std::size_t>(kind)] +
                                  " of an operation that there is not");
        std::size_t offset = 0;
        const char* reason = "";
        if (kind != Kind::Data && !decode(reinterpret_cast<const std::uint8_t*>(entry.body.data()),
                                          entry.body.size(), entry.values, offset, reason))
            return fail(m_at + sizeof header + offset, reason);
        m_ended = kind == Kind::End;
        m_record.entries.push_back(std::move(entry));
    }

    static bool hasKnownCode(const Entry& entry) {
        switch (entry.kind) {
        case Kind::Call:
        case Kind::Return:
            return entry.code <= static_cast<std::uint16_t>(lastOperation);
        case Kind::Ask:
        case Kind::Answer:
            return entry.code <= static_cast<std::uint16_t>(lastDrmOperation);
        default:
            return true;
        }
    }

    Record& m_record;
    const std::uint64_t m_size;
    std::uint64_t m_at = 0;
    bool m_ended = false;
};

void put(std::vector<char>& bytes, const void* from, std::size_t size) {
    const auto* const begin = static_cast<const char*>(from);
    bytes.insert(bytes.end(), begin, begin + size);
}

/// "name=value, name=value"; values without a name stand alone.
std::string named(const Values& values, const char* names) {
    std::string text;
    for (const auto& value : values) {
        const auto name = takeName(names);
        text += (text.empty() ? "" : ", ") + (name.empty() ? "" : name + "=") + describe(value);
    }
    return text;
}

/// The names of arguments that go in and those that come back are in one row: who has none but a
/// result names nothing.
std::string plain(const Values& values) {
    return named(values, "");
}

} // namespace

Record readRecord(std::vector<char> bytes) {
    Record record;
    record.bytes = std::move(bytes);
    Reader(record).read();
    return record;
}

Record readRecordFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) {
        Record none;
        none.error = std::strerror(errno != 0 ? errno : EIO);
        return none;
    }
    return readRecord(std::move(bytes));
}

std::vector<char> writeRecord(const Record& record, const std::vector<const Entry*>& entries) {
    std::vector<char> bytes;
    put(bytes, &record.header, sizeof record.header);
    for (const auto* entry : entries) {
        const auto size = static_cast<std::uint32_t>(sizeof(EntryHeader) + entry->body.size());
        const std::uint64_t limit = segmentEnd(bytes.size()) - segmentReserve;
        if (bytes.size() + alignedUp(size) > limit) {
            const auto rest = static_cast<std::uint32_t>(limit - bytes.size());
            const std::uint64_t mark = markOf(bytes.size(), Kind::Pad, rest);
            const std::size_t begin = bytes.size();
            bytes.resize(limit + segmentReserve);
            if (rest > 0)
                std::memcpy(bytes.data() + begin, &mark, sizeof mark);
        }
        const EntryHeader header = {markOf(bytes.size(), entry->kind, size),
                                    entry->time,
                                    entry->thread,
                                    entry->object,
                                    entry->number,
                                    entry->code,
                                    0};
        put(bytes, &header, sizeof header);
        put(bytes, entry->body.data(), entry->body.size());
        bytes.resize(alignedUp(bytes.size()));
    }
    return bytes;
}

std::string nameOf(const Entry& entry) {
    switch (entry.kind) {
    case Kind::Call: {
        const auto& row = rowOf(static_cast<Operation>(entry.code));
        return std::string(row.name) + "(" + plain(entry.values) + ")";
    }
    case Kind::Return:
        return rowOf(static_cast<Operation>(entry.code)).name;
    case Kind::Event:
    case Kind::Taken: {
        const auto& row = rowOf(static_cast<UVAEvent::Type>(entry.code));
        return std::string(row.name) +
               (entry.values.empty() ? "" : "(" + named(entry.values, row.members) + ")");
    }
    case Kind::Ask:
        return std::string(nameOf(static_cast<DrmOperation>(entry.code))) + "(" +
               plain(entry.values) + ")";
    case Kind::Answer:
        return nameOf(static_cast<DrmOperation>(entry.code));
    default:
        return plain(entry.values);
    }
}

std::string describe(const Entry& entry) {
    char head[80];
    std::snprintf(head, sizeof head, "%12.6f  t%-3u b%-3u #%-6u %-6s ",
                  static_cast<double>(entry.time) / 1e9, entry.thread, entry.object, entry.number,
                  kindNames[static_cast<std::size_t>(entry.kind)]);
    std::string text = head;
    if (entry.kind == Kind::Return || entry.kind == Kind::Answer)
        return text + nameOf(entry) + " = " + plain(entry.values);
    if (entry.kind == Kind::Data)
        return text + std::to_string(entry.body.size()) + " bytes";
    if (entry.kind == Kind::End)
        return text + "the file could not grow: " + std::strerror(static_cast<int>(entry.number));
    if (entry.kind == Kind::Sample)
        return text + named(entry.values, "event, config, pts, dts, duration, payload, protection");
    if (entry.kind == Kind::Config)
        return text + named(entry.values, "codec, codecData, sampleRate, channels, width, height, "
                                          "color, mastering");
    return text + nameOf(entry);
}

} // namespace record
