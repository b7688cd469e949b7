#ifndef ZANTSH_INTERRUPT_H
#define ZANTSH_INTERRUPT_H

#include <stdexcept>

namespace zantsh {

/// The person has pressed Ctrl-C: what is waited for is given up.
struct Interrupted : std::runtime_error {
    Interrupted() : std::runtime_error("interrupted; the command may still be running") {}
};

/// A signal that ends the program removes this file before, if it is set. The path must stay.
void removeOnSignals(const char* path);
void cleanUpOnSignals();

/// From now on Ctrl-C ends what is waited for, not the program.
void catchInterrupts();
/// Whether Ctrl-C was pressed since the last call.
bool takeInterrupt();
/// Throws Interrupted if so.
void checkInterrupt();

} // namespace zantsh

#endif
