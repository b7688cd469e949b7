#include "messaging/queue/signal_ids.h"

#include <array>
#include <string_view>

namespace {

constexpr auto reservedNames = [] {
    std::array<std::array<char, sizeof "SIG_ID_RESERVED_670">, nrOfSignalIds> names{};
    for (uint32_t value = 0; value < nrOfSignalIds; ++value) {
        char* end = names[value].data();
        for (const char c : std::string_view("SIG_ID_RESERVED_"))
            *end++ = c;
        for (uint32_t unit = value >= 100 ? 100 : value >= 10 ? 10 : 1; unit > 0; unit /= 10)
            *end++ = static_cast<char>('0' + value / unit % 10);
    }
    return names;
}();

} // namespace

const char* GetSignalIdNamePtr(SignalIds signal) {
    switch (signal) {
#define ZANT_SIGNAL(value, name)                                                                   \
    case name:                                                                                     \
        return #name;
#include "messaging/queue/signal_ids.def"
#undef ZANT_SIGNAL
    }
    return signal < nrOfSignalIds ? reservedNames[signal].data() : "SIG_ID_NULL";
}
