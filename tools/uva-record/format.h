#ifndef UVA_RECORD_FORMAT_H
#define UVA_RECORD_FORMAT_H

#include <cstddef>
#include <cstdint>

/// The file of a record: a header, then entries, each at a multiple of 8 bytes. All numbers are
/// little endian. See docs/reference/uva-record.md.
namespace record {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are written as memory has them");

inline constexpr char magic[8] = {'U', 'V', 'A', 'R', 'E', 'C', '\r', '\n'};
inline constexpr std::uint32_t version = 1;

/// The file grows by segments of this size, bytes; no entry lies in two.
inline constexpr std::uint32_t segmentSize = 4U << 20;
/// Kept free at the end of each, so that the end of a record finds room on a full disk.
inline constexpr std::uint32_t segmentReserve = 64;

inline constexpr std::size_t alignment = 8;
inline constexpr std::size_t largestBody = 1U << 20;  ///< of an entry, bytes
inline constexpr std::size_t largestText = 64U << 10; ///< longer ones are noted as a digest
inline constexpr std::size_t pieceSize = 256U << 10;  ///< of a payload, in one entry

enum class Payloads : std::uint32_t { Full = 0, Digest = 1 };

struct FileHeader {
    char magic[8];
    std::uint32_t version;
    std::uint32_t segmentSize;
    std::uint64_t wallClock; ///< when the record began, nanoseconds since 1970
    std::uint64_t monotonic; ///< the same of CLOCK_MONOTONIC: the entries count from there
    Payloads payloads;
    std::uint32_t process;
    std::uint8_t reserved[24];
};
static_assert(sizeof(FileHeader) == 64);

/// What an entry is. `number` names the call, event, sample or configuration that it is about.
enum class Kind : std::uint8_t {
    Call = 1,   ///< the host calls; code: Operation; arguments
    Return = 2, ///< ... and it returns; result, what came back in arguments
    Event = 3,  ///< the library delivers; code: of the event's type; its members
    Taken = 4,  ///< ... and the client returns
    Config = 5, ///< a stream configuration that samples refer to
    Sample = 6, ///< a sample that the next writeData on this thread hands over
    Data = 7,   ///< the next piece of a sample's payload, as it is
    Freed = 8,  ///< the library has deleted the sample
    Ask = 9,    ///< the library calls the content protection; code: DrmOperation; arguments
    Answer = 10,
    Thread = 11, ///< its name
    Note = 12,   ///< a text about the record itself
    End = 13,    ///< nothing follows; number: the error code of the file that did not grow
    Pad = 14,    ///< the rest of a segment; a mark alone
};
inline constexpr Kind lastKind = Kind::Pad;

struct EntryHeader {
    std::uint64_t mark;   ///< written last: see markOf()
    std::uint64_t time;   ///< nanoseconds since the record began
    std::uint32_t thread; ///< from 1, in the order in which they appeared
    std::uint32_t object; ///< the backend, from 1; of Ask and Answer the content protection
    std::uint32_t number;
    std::uint16_t code;
    std::uint16_t reserved;
};
static_assert(sizeof(EntryHeader) == 32);

/// Size (32 bits), kind (8 bits), and a check (24 bits) over both and the place in the file: what
/// a thread that was killed had not finished has none.
constexpr std::uint64_t markOf(std::uint64_t offset, Kind kind, std::uint32_t size) {
    const std::uint64_t plain = size | static_cast<std::uint64_t>(kind) << 32;
    std::uint64_t mixed = (offset ^ 0x9e3779b97f4a7c15) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ mixed >> 29 ^ plain) * 0x94d049bb133111eb;
    return plain | (mixed >> 40) << 40;
}

constexpr std::uint64_t alignedUp(std::uint64_t size) {
    return (size + alignment - 1) / alignment * alignment;
}

} // namespace record

#endif
