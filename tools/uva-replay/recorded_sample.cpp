#include "recorded_sample.h"

#include <iterator>

namespace replay {

namespace {

using record::Tag;
using record::Value;
using record::Values;

// The places of a sample's and a configuration's values, as the recorder writes them.
enum class SampleValue : std::size_t { Event, Config, Times, Protection = 6, Count };
enum class ConfigValue : std::size_t { Codec, Data, Numbers, Color = 6, Mastering, Count };

template <typename Place>
constexpr std::size_t at(Place place) {
    return static_cast<std::size_t>(place);
}

int integer(const Value& value) {
    return static_cast<int>(value.integer);
}

unsigned int cardinal(const Value& value) {
    return static_cast<unsigned int>(value.integer);
}

} // namespace

RecordedConfig::RecordedConfig(const Entry& entry) {
    const Values& values = entry.values;
    if (values.size() != at(ConfigValue::Count))
        return;
    codec = integer(values[at(ConfigValue::Codec)]);
    if (values[at(ConfigValue::Data)].tag == Tag::Bytes) {
        codecData =
            reinterpret_cast<const std::uint8_t*>(values[at(ConfigValue::Data)].text.data());
        codecDataSize = values[at(ConfigValue::Data)].text.size();
    }
    int* const numbers[] = {&sampleRate, &channels, &width, &height};
    for (std::size_t i = 0; i < std::size(numbers); ++i)
        *numbers[i] = integer(values[at(ConfigValue::Numbers) + i]);
    if (const Values& colors = values[at(ConfigValue::Color)].items; colors.size() == 5) {
        m_color = {cardinal(colors[0]), cardinal(colors[1]), cardinal(colors[2]),
                   cardinal(colors[3]), cardinal(colors[4])};
        color = &m_color;
    }
    if (const Values& m = values[at(ConfigValue::Mastering)].items; m.size() == 10) {
        m_mastering = {m[0].real, m[1].real, m[2].real, m[3].real, m[4].real,
                       m[5].real, m[6].real, m[7].real, m[8].real, m[9].real};
        mastering = &m_mastering;
    }
}

RecordedSample::RecordedSample(const Entry& entry, const Script& script,
                               std::shared_ptr<const UVAStreamConfig> config)
    : m_config(std::move(config)) {
    if (const auto data = script.data.find(entry.number); data != script.data.end()) {
        const auto& pieces = data->second;
        if (pieces.size() > 1)
            for (const auto* piece : pieces)
                m_joined += piece->body;
        m_payload = pieces.size() > 1 ? std::string_view(m_joined) : pieces.front()->body;
    }
    if (entry.values.size() != at(SampleValue::Count))
        return;
    for (std::size_t i = 0; i < std::size(m_times); ++i)
        m_times[i] = entry.values[at(SampleValue::Times) + i].real;
    protect(entry.values[at(SampleValue::Protection)].items);
}

void RecordedSample::protect(const Values& protection) {
    if (protection.size() != 5)
        return;
    m_keyId = protection[0].text;
    m_iv = protection[1].text;
    m_cryptByteBlock = cardinal(protection[2]);
    m_skipByteBlock = cardinal(protection[3]);
    const Values& map = protection[4].items;
    for (std::size_t i = 0; i + 1 < map.size(); i += 2)
        m_subsamples.push_back({cardinal(map[i]), cardinal(map[i + 1])});
}

const std::uint8_t* RecordedSample::payload() const {
    return bytesOf(m_payload);
}

std::uint32_t configOf(const Entry& sample) {
    return sample.values.size() > at(SampleValue::Config)
               ? cardinal(sample.values[at(SampleValue::Config)])
               : 0;
}

} // namespace replay
