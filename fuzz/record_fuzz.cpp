// Any bytes as a record: it is read or refused with a place and a reason, listed, held against
// itself without a difference, and what is written of it is read as the same.

#include "compare.h"
#include "fuzz_target.h"
#include "record.h"
#include "script.h"

#include <string>
#include <vector>

namespace {

std::string listOf(const record::Record& read) {
    std::string text;
    for (const auto& entry : read.entries)
        text += record::describe(entry) + "\n";
    return text;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto read = record::readRecord({data, data + size});
    if (!read.error.empty()) {
        require(read.error.compare(0, 7, "offset ") == 0);
        return 0;
    }
    require(replay::compare(read, read, {}).empty());
    std::vector<const record::Entry*> all;
    for (const auto& entry : read.entries)
        all.push_back(&entry);
    const auto again = record::readRecord(record::writeRecord(read, all));
    require(again.error.empty() && again.torn.empty());
    require(listOf(again) == listOf(read));
    return 0;
}
