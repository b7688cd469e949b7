#ifndef UVA_RECORD_OPERATIONS_H
#define UVA_RECORD_OPERATIONS_H

#include "uva/uva_event.h"

#include <cstdint>
#include <string>

namespace record {

/// How the answers of a call compare with those of the same call in another run.
enum class Answers : std::uint8_t {
    Same,     ///< always the same
    Settles,  ///< known sooner or later: once it is, the last one is the same
    Position, ///< moves with time
    Free,     ///< anything
};

/// The code of a Call: those of a backend's virtual table in its order, then the library's own.
enum class Operation : std::uint16_t {
#define OPERATION(key, ...) key,
#include "operations.def"
#undef OPERATION
    requestBackend,
    releaseBackend,
};
inline constexpr Operation lastOperation = Operation::releaseBackend;

/// The code of an Ask.
enum class DrmOperation : std::uint16_t {
    createDecrypter,
    releaseDecrypter,
    getInterface,
    decrypt,
    getKeySlot,
    decryptSample,
};
inline constexpr DrmOperation lastDrmOperation = DrmOperation::decryptSample;

struct OperationRow {
    const char* name;
    const char* arguments; ///< their names, with ", " between
    Answers answers;
};

const OperationRow& rowOf(Operation operation);
const char* nameOf(DrmOperation operation);

/// How the events of two runs compare.
enum class Order : std::uint8_t {
    InTurn,  ///< one behind the other, as the calls that cause them
    Anyhow,  ///< as many of each, whoever comes first
    Settles, ///< the last one is the same
    Free,    ///< anything
};

struct EventRow {
    const char* name;
    const char* members; ///< their names, with ", " between
    Order order;
    bool prompt; ///< it follows a call at once, not the media
};

/// Types that there are not have a row of their own.
const EventRow& rowOf(UVAEvent::Type type);

/// The next of several names with ", " between, which it takes off.
std::string takeName(const char*& names);

} // namespace record

#endif
