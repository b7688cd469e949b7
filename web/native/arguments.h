#ifndef UVA_NATIVE_ARGUMENTS_H
#define UVA_NATIVE_ARGUMENTS_H

#include "host/sample.h"

#include <napi.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace uva_native {

/// Some values of a caller's typed array; valid while the call lasts.
template <typename T>
struct View {
    const T* data = nullptr;
    std::size_t size = 0;
    const T& operator[](std::size_t index) const { return data[index]; }
    const T* begin() const { return data; }
    const T* end() const { return data + size; }
};

/// The arguments of one call from JavaScript. What is not as it must be throws a TypeError, or a
/// RangeError when only its value is wrong; the text names operation and argument. Bound to Node's
/// thread.
class Arguments {
public:
    /// `operation`: as texts name it, e.g. "Player.seek".
    Arguments(const Napi::CallbackInfo& info, const char* operation)
        : m_info(info), m_operation(operation) {}

    double number(std::size_t index, const char* name) const; ///< finite
    double seconds(std::size_t index, const char* name) const;
    double seconds(const Napi::Value& value, const char* name) const;
    /// A whole number that a double holds exactly.
    std::uint64_t count(std::size_t index, const char* name) const;
    std::uint64_t count(const Napi::Value& value, const char* name) const;
    bool boolean(std::size_t index, const char* name) const;
    std::string text(std::size_t index, const char* name) const; ///< of a sensible length
    Napi::Object object(std::size_t index, const char* name) const;
    Napi::Function function(std::size_t index, const char* name) const;

    View<std::uint8_t> bytes(std::size_t index, const char* name) const;
    View<std::uint32_t> indices(std::size_t index, const char* name) const;
    View<double> numbers(std::size_t index, const char* name) const;
    /// 16 bytes.
    host::KeyBytes key(std::size_t index, const char* name) const;
    /// The text of 32 hexadecimal digits.
    host::KeyBytes keyId(std::size_t index, const char* name) const;

    bool has(std::size_t index) const { return !m_info[index].IsUndefined(); }

    [[noreturn]] void failType(const std::string& text) const;
    [[noreturn]] void failRange(const std::string& text) const;

private:
    template <typename T>
    View<T> view(std::size_t index, const char* name, napi_typedarray_type type,
                 const char* typeName) const;
    std::string say(const std::string& text) const { return m_operation + (": " + text); }

    const Napi::CallbackInfo& m_info;
    const char* const m_operation;
};

} // namespace uva_native

#endif
