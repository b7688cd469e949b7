#ifndef MESSAGING_POINTER_TOKENS_H
#define MESSAGING_POINTER_TOKENS_H

#include <cstdint>

/// Pointers as 32-bit words, for messages whose layout has room for no more.
///
/// Whatever pointer travels in a message is entered here and taken out again by whoever receives
/// it, exactly once: of two takers one gets the pointer, the other null. A word that was never
/// given out here, was taken before, is of another kind or size, or comes from another process,
/// gives null as well. So a message from a stranger can do no harm.
///
/// On 64-bit machines the word is a token (index and generation); on 32-bit machines it is the
/// address itself. 0 is never a word. Thread-safe, usable from static constructors until the last
/// instruction of the process; no heap use. On 64-bit machines finding is lock-free, and the others
/// hold a lock for a few instructions.
namespace pointer_tokens {

enum class Kind : uint32_t { buffer = 1, object = 2, timer = 3 };

/// Enters a pointer that is not null. `size` is kept beside it and must be given again to take it
/// out. 0, with a trace, when the table is full.
uint32_t put(void* pointer, Kind kind, int32_t size = 0);

/// Takes the pointer out; null for a word that does not stand for one.
void* take(uint32_t word, Kind kind, int32_t size = 0);

/// The pointer, which stays entered; null for a word that does not stand for one.
void* find(uint32_t word, Kind kind);

} // namespace pointer_tokens

#endif
