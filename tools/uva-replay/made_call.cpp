#include "made_call.h"

#include "uva/uva_event.h"

#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <tuple>
#include <type_traits>
#include <vector>

namespace replay {

namespace {

using record::Tag;
using record::Value;
using record::Values;
using Component = UVABackend::AVComponent;
using Source = UVABackend::SourceDescription;

/// Keeps the texts that it points to.
class OwnSource final : public Source {
public:
    OwnSource(const Values& values, const Objects& objects) {
        type = static_cast<decltype(type)>(values[0].integer);
        set(url, m_url, values[1], objects.url(values[1].text));
        set(userAgent, m_agent, values[2], values[2].text);
        sourceId = static_cast<int>(values[3].integer);
        set(mimeType, m_mime, values[4], values[4].text);
        streamType = static_cast<int>(values[5].integer);
        durationMs = static_cast<unsigned long long>(values[6].integer);
    }

private:
    static void set(const char*& text, std::string& kept, const Value& value, std::string now) {
        kept = std::move(now);
        text = value.tag == Tag::Text ? kept.c_str() : nullptr;
    }

    std::string m_url, m_agent, m_mime;
};
constexpr std::size_t sourceValues = 7;

/// Reads an argument; false when the value is of another kind.
class Reading {
public:
    explicit Reading(Objects& objects) : m_objects(objects) {}

    bool read(const Value& value, bool& to) const {
        to = value.tag == Tag::True;
        return to || value.tag == Tag::False;
    }
    template <typename Number>
    std::enable_if_t<std::is_integral_v<Number> || std::is_enum_v<Number>, bool>
    read(const Value& value, Number& to) const {
        to = static_cast<Number>(value.integer);
        return value.tag == Tag::Integer;
    }
    bool read(const Value& value, double& to) const {
        to = value.real;
        return value.tag == Tag::Real;
    }
    bool read(const Value& value, const char*& to) const {
        to = value.tag == Tag::Text ? value.text.c_str() : nullptr;
        return to != nullptr || value.tag == Tag::Null;
    }
    bool read(const Value& value, std::string& to) const {
        to = value.text;
        return value.tag == Tag::Text;
    }
    bool read(const Value& value, UVABackend::Rect& to) const {
        return readItems(value, to.x, to.y, to.width, to.height);
    }
    bool read(const Value& value, UVABackend::ByteRange& to) const {
        return readItems(value, to.start, to.end);
    }
    bool read(const Value& value, UVATime& to) const {
        return readItems(value, to.position, to.rate, to.timestamp, to.mediaPosition);
    }
    bool read(const Value& value, UVAKeySystemConfig& to) const {
        return readItems(value, to.keySystemId, to.flags, to.client, to.value);
    }
    bool read(const Value& value, UVABackend::ContentDescription& to) const {
        return readItems(value, to.type, to.codecs, to.width, to.height, to.framerate, to.bitrate,
                         to.channels, to.cryptoblockformat, to.drmID, to.drm_robustness);
    }
    bool read(const Value& value, Source& to) const {
        return readItems(value, to.type, to.url, to.userAgent, to.sourceId, to.mimeType,
                         to.streamType, to.durationMs);
    }
    bool read(const Value& value, Source*& to) const {
        const bool good = value.items.size() == sourceValues;
        if (good)
            to = new OwnSource(value.items, m_objects);
        return good || value.tag == Tag::Null;
    }
    bool read(const Value& value, Component*& to) const {
        if (value.tag == Tag::List && value.items.size() == 5)
            to = m_objects.component(static_cast<std::uint32_t>(value.items[0].integer));
        return to != nullptr || value.tag == Tag::Null;
    }
    bool read(const Value& value, std::vector<Component*>& to) const {
        for (const auto& item : value.items)
            to.push_back(m_objects.ownComponent(item));
        return value.tag == Tag::List;
    }
    bool read(const Value&, UVAEvent*&) const { return false; }
    bool read(const Value& value, const UVAAsyncEvent*&) const { return value.tag == Tag::Null; }
    template <typename Item>
    bool read(const Value& value, std::vector<Item>& to) const {
        bool good = value.tag == Tag::List;
        for (const auto& item : value.items)
            good = read(item, to.emplace_back()) && good;
        return good;
    }
    bool read(const Value& value, std::map<std::string, std::string>& to) const {
        for (std::size_t i = 0; i + 1 < value.items.size(); i += 2)
            to[value.items[i].text] = value.items[i + 1].text;
        return value.tag == Tag::List;
    }
    bool read(const Value& value, UVABackend::ByteRange**& to) const {
        to = value.tag == Tag::True ? &m_noRanges : nullptr;
        return true;
    }

private:
    template <typename... Members>
    bool readItems(const Value& value, Members&... members) const {
        std::size_t at = 0;
        return value.items.size() == sizeof...(Members) &&
               (read(value.items[at++], members) && ...);
    }

    Objects& m_objects;
    mutable UVABackend::ByteRange* m_noRanges = nullptr;
};

/// Room for an argument of a call. One that comes back is not read, but disposed of.
template <typename Parameter>
struct Slot {
    static constexpr bool comesBack = std::is_lvalue_reference_v<Parameter> &&
                                      !std::is_const_v<std::remove_reference_t<Parameter>>;
    std::decay_t<Parameter> value{};

    bool read([[maybe_unused]] const Reading& reading, [[maybe_unused]] const Values& values,
              [[maybe_unused]] std::size_t& at) {
        if constexpr (comesBack)
            return true;
        else
            return at < values.size() && reading.read(values[at++], value);
    }
    Parameter get() { return value; }
};

template <>
struct Slot<const UVATime&> {
    UVATime value{0, 0, 0, 0};
    bool read(const Reading& reading, const Values& values, std::size_t& at) {
        return at < values.size() && reading.read(values[at++], value);
    }
    const UVATime& get() { return value; }
};

template <>
struct Slot<Source**> {
    std::vector<Source*> value;
    bool isNull = false;
    bool read(const Reading& reading, const Values& values, std::size_t& at) {
        isNull = at < values.size() && values[at].tag == Tag::Null;
        const bool good = isNull || (at < values.size() && reading.read(values[at], value));
        value.push_back(nullptr);
        ++at;
        return good;
    }
    Source** get() { return isNull ? nullptr : value.data(); }
};

/// The size follows: a picture of that many bytes is wanted.
template <>
struct Slot<unsigned char*> {
    std::vector<unsigned char> memory;
    bool read(const Reading&, const Values& values, std::size_t& at) {
        constexpr std::int64_t largest = 64 << 20;
        const bool good = at + 1 < values.size() && values[at + 1].integer >= 0 &&
                          values[at + 1].integer <= largest;
        if (good && values[at].tag == Tag::True)
            memory.resize(static_cast<std::size_t>(values[at + 1].integer) + 1);
        ++at;
        return good;
    }
    unsigned char* get() { return memory.empty() ? nullptr : memory.data(); }
};

template <typename Parameter>
void dispose(Slot<Parameter>&) {}

void dispose(Slot<UVABackend::TimeRange**&>& slot) {
    for (auto** range = slot.value; range != nullptr && *range != nullptr; ++range)
        delete *range;
    delete[] slot.value;
}

void dispose(Slot<char**&>& slot) {
    for (char** text = slot.value; text != nullptr && *text != nullptr; ++text)
        std::free(*text);
    delete[] slot.value;
}

template <typename Result, typename... Parameters>
bool make(Result (UVAMediaBackend::*method)(Parameters...), const Values& values,
          UVAMediaBackend& backend, Objects& objects) {
    const Reading reading(objects);
    std::tuple<Slot<Parameters>...> slots;
    return std::apply(
        [&](auto&... slot) {
            [[maybe_unused]] std::size_t at = 0;
            const bool good = (slot.read(reading, values, at) && ...);
            if (good)
                (backend.*method)(slot.get()...);
            (dispose(slot), ...);
            return good;
        },
        slots);
}

/// The interface's names are known inside it.
struct Interface : UVAMediaBackend {
    static bool makeNamed(const Call& call, UVAMediaBackend& backend, Objects& objects);
};

bool Interface::makeNamed(const Call& call, UVAMediaBackend& backend, Objects& objects) {
    const Values& values = call.entry->values;
    switch (call.operation()) {
#define OPERATION(key, answers, result, name, parameters, ...)                                     \
    case Operation::key: {                                                                         \
        using Method = result(UVAMediaBackend::*) parameters;                                      \
        return make(static_cast<Method>(&UVAMediaBackend::name), values, backend, objects);        \
    }
#include "operations.def"
#undef OPERATION
    case Operation::requestBackend:
    case Operation::releaseBackend:
        break;
    }
    return false;
}

} // namespace

std::string makeCall(const Call& call, UVAMediaBackend& backend, Objects& objects) {
    return Interface::makeNamed(call, backend, objects)
               ? ""
               : record::nameOf(*call.entry) + " cannot be made: what it names is not there";
}

} // namespace replay
