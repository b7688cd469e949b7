#ifndef UVA_RECORD_RECORD_H
#define UVA_RECORD_RECORD_H

#include "format.h"
#include "value.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace record {

/// An entry that was read. A plain value.
struct Entry {
    std::uint64_t offset = 0; ///< in the file
    Kind kind = Kind::Note;
    std::uint64_t time = 0; ///< nanoseconds since the record began
    std::uint32_t thread = 0;
    std::uint32_t object = 0;
    std::uint32_t number = 0;
    std::uint16_t code = 0;
    std::string_view body; ///< in Record::bytes
    Values values;         ///< of the body, but for Data
};

/// A stretch of the file that a thread had reserved and not finished when the process ended.
struct Torn {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

/// A record that was read whole. It is moved, never copied: its entries look into its bytes.
struct Record {
    Record() = default;
    Record(Record&&) = default;
    Record& operator=(Record&&) = default;
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    std::vector<char> bytes;
    FileHeader header{};
    std::vector<Entry> entries; ///< in the order in which room was reserved for them
    std::vector<Torn> torn;
    std::string error; ///< empty, or where it is no record and why, one line
};

/// Takes a file's bytes apart, of which nothing is trusted. Text of the kind of "offset 64: ..."
/// is the error of what is no record; what a killed process has left behind is none.
Record readRecord(std::vector<char> bytes);

/// The same of a file; one that cannot be read is an error too.
Record readRecordFile(const std::string& path);

/// A record's bytes with only those entries; the others are as if they had never been.
std::vector<char> writeRecord(const Record& record, const std::vector<const Entry*>& entries);

/// An entry as a person reads it, one line.
std::string describe(const Entry& entry);
/// The call or event alone, e.g. "setPosition(seconds=5)".
std::string nameOf(const Entry& entry);

} // namespace record

#endif
