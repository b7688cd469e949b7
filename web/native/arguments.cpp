#include "arguments.h"

#include "host/clear_key.h"

#include <algorithm>
#include <cmath>

namespace uva_native {

namespace {

constexpr double mostSeconds = 1e9;            // in nanoseconds 64 bits hold some more
constexpr double mostCount = 9007199254740991; // 2^53 - 1
constexpr std::size_t mostText = 64 * 1024;    // bytes

} // namespace

void Arguments::failType(const std::string& text) const {
    throw Napi::TypeError::New(m_info.Env(), say(text));
}

void Arguments::failRange(const std::string& text) const {
    throw Napi::RangeError::New(m_info.Env(), say(text));
}

double Arguments::number(std::size_t index, const char* name) const {
    const Napi::Value value = m_info[index];
    if (!value.IsNumber())
        failType(std::string(name) + " must be a number");
    const double number = value.As<Napi::Number>().DoubleValue();
    if (!std::isfinite(number))
        failRange(std::string(name) + " must be finite");
    return number;
}

double Arguments::seconds(std::size_t index, const char* name) const {
    return seconds(m_info[index], name);
}

double Arguments::seconds(const Napi::Value& value, const char* name) const {
    if (!value.IsNumber())
        failType(std::string(name) + " must be a number of seconds");
    const double seconds = value.As<Napi::Number>().DoubleValue();
    if (!(seconds >= 0 && seconds <= mostSeconds))
        failRange(std::string(name) + " must be 0 to 1e9 seconds");
    return seconds;
}

std::uint64_t Arguments::count(std::size_t index, const char* name) const {
    return count(m_info[index], name);
}

std::uint64_t Arguments::count(const Napi::Value& value, const char* name) const {
    if (!value.IsNumber())
        failType(std::string(name) + " must be a number");
    const double number = value.As<Napi::Number>().DoubleValue();
    if (!(number >= 0 && number <= mostCount) || number != std::floor(number))
        failRange(std::string(name) + " must be a whole number from 0 to 2^53 - 1");
    return static_cast<std::uint64_t>(number);
}

bool Arguments::boolean(std::size_t index, const char* name) const {
    const Napi::Value value = m_info[index];
    if (!value.IsBoolean())
        failType(std::string(name) + " must be true or false");
    return value.As<Napi::Boolean>().Value();
}

std::string Arguments::text(std::size_t index, const char* name) const {
    const Napi::Value value = m_info[index];
    if (!value.IsString())
        failType(std::string(name) + " must be a string");
    std::size_t size = 0;
    napi_get_value_string_utf8(m_info.Env(), value, nullptr, 0, &size);
    if (size > mostText)
        failRange(std::string(name) + " is longer than " + std::to_string(mostText) + " bytes");
    auto text = value.As<Napi::String>().Utf8Value();
    if (text.find('\0') != std::string::npos)
        failRange(std::string(name) + " has a null character in it");
    return text;
}

Napi::Object Arguments::object(std::size_t index, const char* name) const {
    if (!m_info[index].IsObject())
        failType(std::string(name) + " must be an object");
    return m_info[index].As<Napi::Object>();
}

Napi::Function Arguments::function(std::size_t index, const char* name) const {
    if (!m_info[index].IsFunction())
        failType(std::string(name) + " must be a function");
    return m_info[index].As<Napi::Function>();
}

template <typename T>
View<T> Arguments::view(std::size_t index, const char* name, napi_typedarray_type type,
                        const char* typeName) const {
    const Napi::Value value = m_info[index];
    if (!value.IsTypedArray() || value.As<Napi::TypedArray>().TypedArrayType() != type)
        failType(std::string(name) + " must be a " + typeName);
    void* data = nullptr;
    std::size_t size = 0;
    napi_value buffer = nullptr;
    napi_get_typedarray_info(m_info.Env(), value, nullptr, &size, &data, &buffer, nullptr);
    bool detached = false;
    if (napi_is_detached_arraybuffer(m_info.Env(), buffer, &detached) != napi_ok || detached)
        failType(std::string(name) + " has a buffer that is detached");
    return {static_cast<const T*>(data), size};
}

View<std::uint8_t> Arguments::bytes(std::size_t index, const char* name) const {
    return view<std::uint8_t>(index, name, napi_uint8_array, "Uint8Array");
}

View<std::uint32_t> Arguments::indices(std::size_t index, const char* name) const {
    return view<std::uint32_t>(index, name, napi_uint32_array, "Uint32Array");
}

View<double> Arguments::numbers(std::size_t index, const char* name) const {
    return view<double>(index, name, napi_float64_array, "Float64Array");
}

host::KeyBytes Arguments::key(std::size_t index, const char* name) const {
    const auto given = bytes(index, name);
    host::KeyBytes key{};
    if (given.size != key.size())
        failRange(std::string(name) + " must have 16 bytes");
    std::copy(given.begin(), given.end(), key.begin());
    return key;
}

host::KeyBytes Arguments::keyId(std::size_t index, const char* name) const {
    const auto digits = text(index, name);
    host::KeyPair pair;
    if (!host::parseKey(digits + ":" + std::string(32, '0'), pair))
        failRange(std::string(name) + " must have 32 hexadecimal digits");
    return pair.id;
}

} // namespace uva_native
