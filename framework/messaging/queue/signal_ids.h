#ifndef MESSAGING_SIGNAL_IDS_H
#define MESSAGING_SIGNAL_IDS_H

#include <cstdint>

/// What a message is. The values are shared with the main system; signal_ids.def names those that
/// this program uses. The type holds any 32-bit value, because a message may come from anywhere.
enum SignalIds : uint32_t {
#define ZANT_SIGNAL(value, name) name = value,
#include "messaging/queue/signal_ids.def"
#undef ZANT_SIGNAL
};

/// The number of signals of the product family; they are dense from 0.
constexpr uint32_t nrOfSignalIds = SIG_ID_GENERAL_SPARE_9 + 1;

/// The signal's own name; "SIG_ID_RESERVED_" and the value for one of another program,
/// "SIG_ID_NULL" for a value that is none. Never null. Thread-safe.
const char* GetSignalIdNamePtr(SignalIds signal);

#endif
