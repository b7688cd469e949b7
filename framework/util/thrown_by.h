#ifndef UTIL_THROWN_BY_H
#define UTIL_THROWN_BY_H

#include <cxxabi.h>
#include <exception>
#include <optional>
#include <string>

/// Runs a call that must not throw into its caller: a thread, a C function, somebody else's code.
/// What it threw, for a trace; nothing if it returned. Only the unwinding of a cancelled thread
/// passes, and is why such a caller can not be noexcept. The sanitizer is kept from that one: it is
/// caught as a reference to nothing, by design.
template <typename Call>
__attribute__((no_sanitize("null"))) std::optional<std::string> thrownBy(Call call) {
    try {
        call();
        return std::nullopt;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& exception) {
        return exception.what();
    } catch (...) {
        return "unknown exception";
    }
}

#endif
