#ifndef MESSAGING_RPC_SEQUENCE_H
#define MESSAGING_RPC_SEQUENCE_H

#include <cstdint>

/// The sequence number of a remote call: eight bits, in the third byte of the control word.
namespace rpc_sequence {

constexpr uint32_t nothingYet = 0;
/// The first number of a sender that has just started.
constexpr uint32_t senderStarted = 1;

/// 2, 3, ... 254, 2, ...: counting gives neither of the two above.
constexpr uint32_t next(uint32_t number) {
    const uint32_t following = (number + 1) % 256;
    return following == 255 ? 2 : following;
}

constexpr uint32_t read(uint32_t rpcControl) {
    return (rpcControl >> 16) & 0xff;
}

constexpr uint32_t stamp(uint32_t rpcControl, uint32_t number) {
    return (rpcControl & 0xff00ffff) | (number << 16);
}

/// The queue of a remote function.
template <typename String>
String queueNameOf(const String& function) {
    return !function.empty() && function.front() == '/' ? function : '/' + function;
}

/// A shared address as logs print it; not to be followed.
inline void* asPointer(uint32_t address) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(address));
}

} // namespace rpc_sequence

#endif
