#ifndef UVA_RECORD_ARGUMENT_WRITER_H
#define UVA_RECORD_ARGUMENT_WRITER_H

#include "recorder.h"
#include "uva/uva_media_backend.h"
#include "value.h"

#include <map>
#include <string>
#include <type_traits>
#include <vector>

namespace record {

/// Puts arguments and results as values: what goes in before a call, what comes back behind it. A
/// parameter that is a reference to what is not const comes back. Texts of the host's are read to
/// their NUL. Bound to one thread.
class ArgumentWriter {
public:
    ArgumentWriter(Encoder& out, const Identities& identities)
        : m_out(out), m_identities(identities) {}

    template <typename Parameter, typename Argument>
    void in(const Argument& argument) {
        if constexpr (!comesBack<Parameter>)
            put(argument);
    }
    template <typename Parameter, typename Argument>
    void back(const Argument& argument) {
        if constexpr (comesBack<Parameter>)
            put(argument);
    }

    void put(bool value) { m_out.boolean(value); }
    void put(int value) { m_out.integer(value); }
    void put(unsigned int value) { m_out.integer(value); }
    void put(unsigned long long value) { m_out.integer(static_cast<std::int64_t>(value)); }
    void put(double value) { m_out.real(value); }
    void put(const char* value) { m_out.text(value); }
    void put(const std::string& value) { m_out.text(value); }
    template <typename Enum, typename = std::enable_if_t<std::is_enum_v<Enum>>>
    void put(Enum value) {
        m_out.integer(static_cast<std::int64_t>(value));
    }
    void put(const UVABackend::Rect& rect);
    void put(const UVABackend::ByteRange& range);
    void put(const UVABackend::TimeRange& range);
    void put(const UVAMediaBackend::SpeedRange& range);
    void put(const UVATime& time);
    void put(const UVAKeySystemConfig& config);
    void put(const UVABackend::ContentDescription& description);
    void put(const UVABackend::SourceDescription& source);
    void put(const UVABackend::SourceDescription* source);
    void put(UVABackend::SourceDescription** sources);
    void put(const UVABackend::AVComponent* component); ///< by its number, and what it is
    /// By its number, 0 if the host has made it; of a request also its members.
    void put(const UVAEvent* event);
    void put(unsigned char* memory) { put(memory != nullptr); }
    void put(UVABackend::ByteRange** ranges) { put(ranges != nullptr); }
    void put(UVABackend::TimeRange** ranges);
    void put(char** texts);
    template <typename Item>
    void put(const std::vector<Item>& items) {
        m_out.list(items.size());
        for (const auto& item : items)
            put(item);
    }
    void put(const std::map<std::string, std::string>& map);

private:
    template <typename Parameter>
    static constexpr bool comesBack = std::is_lvalue_reference_v<Parameter> &&
                                      !std::is_const_v<std::remove_reference_t<Parameter>>;

    Encoder& m_out;
    const Identities& m_identities;
};

/// What an event says, its members in the order of its row.
void putMembers(const UVAEvent& event, Encoder& out, ArgumentWriter& arguments);

} // namespace record

#endif
