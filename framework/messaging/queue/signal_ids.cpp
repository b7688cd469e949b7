#include "messaging/queue/signal_ids.h"

#include <iterator>

namespace {

struct Row {
    uint32_t value;
    const char* name;
};

constexpr Row rows[] = {
#define ZANT_SIGNAL(value, name) {value, #name},
#include "messaging/queue/signal_ids.def"
#undef ZANT_SIGNAL
};

constexpr bool rowsAreDense() {
    uint32_t expected = 0;
    for (const Row& row : rows) {
        if (row.value != expected++)
            return false;
    }
    return true;
}

static_assert(std::size(rows) == nrOfSignalIds, "a row of the signal table is missing");
static_assert(rowsAreDense(), "the rows of the signal table must be in the order of their values");

} // namespace

const char* GetSignalIdNamePtr(SignalIds signal) {
    return rows[signal < nrOfSignalIds ? signal : SIG_ID_NULL].name;
}
