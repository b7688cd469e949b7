#include "webm_parser.h"

#include "box_reader.h"
#include "codec_conversion.h"
#include "packet_protection.h"
#include "stream_format.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace host {

namespace {

constexpr std::uint64_t largestElement = 64 * 1024 * 1024;
constexpr std::uint64_t latestTime = std::uint64_t{1} << 53; ///< ticks
constexpr double nanoseconds = 1e9;                          ///< of a second
/// Of a track whose only frame in a cluster does not tell it.
constexpr double guessedDuration = 0.025;

const webm::Status completed(webm::Status::kOkCompleted);
const webm::Status wouldBlock(webm::Status::kWouldBlock);

std::string textOf(const webm::ElementMetadata& element) {
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "the element 0x%X at byte %llu",
                  static_cast<unsigned int>(element.id),
                  static_cast<unsigned long long>(element.position));
    return text.data();
}

[[noreturn]] void fail(const webm::ElementMetadata& element, const std::string& what) {
    throw StreamFault{textOf(element) + " " + what};
}

const char* meaningOf(webm::Status status) {
    switch (status.code) {
    case webm::Status::kInvalidElementId:
        return "is followed by bytes that begin no element";
    case webm::Status::kInvalidElementSize:
        return "or one behind it has an impossible size";
    case webm::Status::kIndefiniteUnknownElement:
        return "or one behind it is unknown and does not tell its size";
    case webm::Status::kElementOverflow:
        return "holds more than its size says";
    case webm::Status::kNotEnoughMemory:
        return "is too large";
    case webm::Status::kInvalidElementValue:
        return "or one in it has an impossible value";
    default:
        return "cannot be read";
    }
}

/// Elements that are not held as a whole.
bool isOpen(webm::Id id) {
    return id == webm::Id::kSegment || id == webm::Id::kCluster || id == webm::Id::kVoid ||
           id == webm::Id::kCues || id == webm::Id::kTags || id == webm::Id::kChapters;
}

bool isPassedOver(webm::Id id) {
    return id == webm::Id::kSeekHead || id == webm::Id::kCues || id == webm::Id::kTags ||
           id == webm::Id::kChapters;
}

using Kind = StreamInfo::Kind;
using Bytes = std::vector<std::uint8_t>;
struct Row {
    const char* id;
    Kind kind;
    AVCodecID codec;
    const char* name;                                              ///< of the codecs parameter
    Bytes (*headers)(const std::uint8_t* bytes, std::size_t size); ///< empty: damaged
};
constexpr Row rows[] = {
    {"V_VP8", Kind::Video, AV_CODEC_ID_VP8, "vp8", nullptr},
    {"V_VP9", Kind::Video, AV_CODEC_ID_VP9, "vp9", nullptr},
    {"A_OPUS", Kind::Audio, AV_CODEC_ID_OPUS, "opus", turnOpusHeader},
    {"A_VORBIS", Kind::Audio, AV_CODEC_ID_VORBIS, "vorbis", joinVorbisHeaders},
};

const Row& findRow(const std::string& id, Kind kind) {
    const auto* row = std::find_if(std::begin(rows), std::end(rows), [&](const Row& candidate) {
        return id == candidate.id && kind == candidate.kind;
    });
    if (row == std::end(rows))
        throw StreamFault{std::string("the ") + (kind == Kind::Video ? "video" : "audio") +
                          " codec " + id + " of a WebM track cannot be played"};
    return *row;
}

/// "vp09.00.10.08" where the features in front of the frames tell so much, else "vp9".
std::string vp9Name(const Bytes& features) {
    enum Feature { Profile = 1, Level, BitDepth, Count };
    std::array<int, Count> values = {-1, -1, -1, -1};
    for (std::size_t at = 0; at + 2 < features.size(); at += 2U + features[at + 1])
        if (features[at] < Count && features[at + 1] == 1)
            values.at(features[at]) = features[at + 2];
    if (values[Profile] < 0 || values[Level] < 0 || values[BitDepth] < 0)
        return "vp9";
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "vp09.%02d.%02d.%02d", values[Profile], values[Level],
                  values[BitDepth]);
    return text.data();
}

void readColour(const webm::Colour& from, OwnedConfig& config) {
    auto& to = config.colorInfo;
    to.matrix = static_cast<unsigned int>(from.matrix_coefficients.value());
    to.range = static_cast<unsigned int>(from.range.value());
    to.transfer = static_cast<unsigned int>(from.transfer_characteristics.value());
    to.primaries = static_cast<unsigned int>(from.primaries.value());
    if (from.bits_per_channel.value() > 0)
        to.bitsPerChannel = static_cast<unsigned int>(from.bits_per_channel.value());
    config.color = &to;
    if (!from.mastering_metadata.is_present())
        return;
    const auto& told = from.mastering_metadata.value();
    auto& mastering = config.masteringMetadata;
    mastering.primaryRX = told.primary_r_chromaticity_x.value();
    mastering.primaryRY = told.primary_r_chromaticity_y.value();
    mastering.primaryGX = told.primary_g_chromaticity_x.value();
    mastering.primaryGY = told.primary_g_chromaticity_y.value();
    mastering.primaryBX = told.primary_b_chromaticity_x.value();
    mastering.primaryBY = told.primary_b_chromaticity_y.value();
    mastering.whitePointX = told.white_point_chromaticity_x.value();
    mastering.whitePointY = told.white_point_chromaticity_y.value();
    mastering.luminanceMax = told.luminance_max.value();
    mastering.luminanceMin = told.luminance_min.value();
    config.mastering = &mastering;
}

int boundedInt(double value) {
    return value >= 0 && value <= std::numeric_limits<int>::max() ? static_cast<int>(value) : 0;
}

std::shared_ptr<const UVAStreamConfig> readConfig(const webm::ElementMetadata& element,
                                                  const webm::TrackEntry& entry, const Row& row) {
    constexpr std::size_t opusChannels = 9;
    constexpr int opusRate = 48000;
    const auto config = std::make_shared<OwnedConfig>();
    config->codec = findMediaSourceCodec(row.codec)->codec;
    const auto& told = entry.codec_private.value();
    if (row.headers != nullptr) {
        config->headers = row.headers(told.data(), told.size());
        if (config->headers.empty())
            fail(element, std::string("has damaged headers of the codec ") + row.name);
        config->codecData = config->headers.data();
        config->codecDataSize = config->headers.size();
    }
    if (row.kind == Kind::Video) {
        const auto& video = entry.video.value();
        config->width = boundedInt(static_cast<double>(video.pixel_width.value()));
        config->height = boundedInt(static_cast<double>(video.pixel_height.value()));
        if (video.colour.is_present())
            readColour(video.colour.value(), *config);
    } else if (row.codec == AV_CODEC_ID_OPUS) {
        config->channels = config->headers[opusChannels];
        config->sampleRate = opusRate;
    } else {
        const auto& audio = entry.audio.value();
        config->channels = boundedInt(static_cast<double>(audio.channels.value()));
        config->sampleRate = boundedInt(audio.sampling_frequency.value());
    }
    return config;
}

/// Empty: clear.
std::string readKeyId(const webm::ElementMetadata& element, const webm::TrackEntry& entry) {
    std::string keyId;
    for (const auto& item : entry.content_encodings.value().encodings) {
        const auto& encoding = item.value();
        const auto& encryption = encoding.encryption.value();
        if (encoding.type.value() != webm::ContentEncodingType::kEncryption)
            fail(element, "has compressed frames, which WebM does not allow");
        if (encryption.algorithm.value() != webm::ContentEncAlgo::kAes)
            fail(element, "is encrypted, but not with AES");
        keyId.assign(encryption.key_id.value().begin(), encryption.key_id.value().end());
        if (keyId.empty())
            fail(element, "is encrypted with a key that has no id");
    }
    return keyId;
}

/// Seconds (RFC 6716, 3.1); 0: not to be told.
double opusDuration(const std::uint8_t* packet, std::size_t size) {
    static constexpr double lengths[] = {0.010,  0.020, 0.040, 0.060, 0.010,  0.020, 0.040, 0.060,
                                         0.010,  0.020, 0.040, 0.060, 0.010,  0.020, 0.010, 0.020,
                                         0.0025, 0.005, 0.010, 0.020, 0.0025, 0.005, 0.010, 0.020,
                                         0.0025, 0.005, 0.010, 0.020, 0.0025, 0.005, 0.010, 0.020};
    if (size == 0)
        return 0;
    const unsigned int code = packet[0] & 3;
    const unsigned int frames = code == 0 ? 1 : code < 3 ? 2 : size > 1 ? packet[1] & 63 : 0;
    return lengths[packet[0] >> 3] * frames;
}

} // namespace

struct WebmParser::Draft {
    bool hasInfo = false;
    Movie movie;
    InitSegment segment;
};

WebmParser::WebmParser(Output& output) : m_output(output) {
    begin();
}

WebmParser::~WebmParser() = default;

std::string WebmParser::append(std::shared_ptr<const std::uint8_t> bytes, std::size_t size) {
    if (!m_fault.empty() || size == 0)
        return m_fault;
    m_bytes.append(std::move(bytes), size);
    try {
        parse();
    } catch (const StreamFault& fault) {
        m_fault = fault.text;
    } catch (const std::bad_alloc&) {
        m_fault = (m_element ? textOf(*m_element) : "the stream") + " is too large";
    }
    flush();
    return m_fault;
}

void WebmParser::parse() {
    while (true) {
        const auto status = m_parser->Feed(this, this);
        if (m_stop == m_bytes.position())
            endInit();
        else if (status.code == webm::Status::kWouldBlock)
            return;
        else if (!status.ok())
            throw StreamFault{(m_element ? textOf(*m_element) : "the stream") + " " +
                              meaningOf(status)};
    }
}

/// What comes next may be any outer element.
void WebmParser::begin() {
    m_parser = std::make_unique<webm::WebmParser>();
    m_parser->DidSeek();
    m_stop.reset();
}

void WebmParser::reset() {
    m_bytes.clear(m_bytes.position() + m_bytes.size());
    m_state = State::Waiting;
    m_fault.clear();
    m_draft.reset();
    m_element.reset();
    m_block = {};
    for (auto& [id, progress] : m_progress) {
        progress.latest.reset();
        progress.pending.reset();
    }
    begin();
}

webm::Status WebmParser::Read(std::size_t size, std::uint8_t* to, std::uint64_t* read) {
    auto count = std::min(size, m_bytes.size());
    if (m_stop)
        count =
            static_cast<std::size_t>(std::min<std::uint64_t>(count, *m_stop - m_bytes.position()));
    *read = count;
    if (count == 0)
        return wouldBlock;
    std::copy_n(m_bytes.peek(count), count, to);
    m_bytes.skip(count);
    return webm::Status(count == size ? webm::Status::kOkCompleted : webm::Status::kOkPartial);
}

webm::Status WebmParser::Skip(std::uint64_t size, std::uint64_t* skipped) {
    auto count = std::min<std::uint64_t>(size, m_bytes.size());
    if (m_stop)
        count = std::min(count, *m_stop - m_bytes.position());
    *skipped = count;
    if (count == 0)
        return wouldBlock;
    m_bytes.skip(static_cast<std::size_t>(count));
    return webm::Status(count == size ? webm::Status::kOkCompleted : webm::Status::kOkPartial);
}

webm::Status WebmParser::OnElementBegin(const webm::ElementMetadata& element,
                                        webm::Action* action) {
    m_element = element;
    *action = webm::Action::kRead;
    if (element.size != webm::kUnknownElementSize && element.size > largestElement &&
        !isOpen(element.id))
        fail(element, "is too large: " + std::to_string(element.size) + " bytes");
    switch (element.id) {
    case webm::Id::kEbml:
        m_draft = std::make_unique<Draft>();
        m_state = State::InitSegment;
        break;
    case webm::Id::kInfo:
    case webm::Id::kTracks:
        if (!m_draft)
            *action = webm::Action::kSkip; // of a segment that is known already
        else if (element.id == webm::Id::kTracks && !m_draft->hasInfo)
            fail(element, "(Tracks) comes before the segment's Info");
        else if (element.size == webm::kUnknownElementSize)
            fail(element, "does not tell its size");
        else if (element.id == webm::Id::kTracks)
            m_stop = element.position + element.header_size + element.size;
        break;
    case webm::Id::kCluster:
        if (m_draft || m_movie == nullptr)
            fail(element, "(Cluster) comes before an initialization segment is complete");
        m_state = State::MediaSegment;
        break;
    case webm::Id::kTimecode:
    case webm::Id::kSimpleBlock:
    case webm::Id::kBlockGroup:
        if (m_state != State::MediaSegment)
            fail(element, "is in no Cluster");
        break;
    default:
        if (isPassedOver(element.id))
            *action = webm::Action::kSkip;
        if (!m_draft && m_movie == nullptr)
            fail(element, "is not the EBML header that the stream must begin with");
        break;
    }
    return completed;
}

webm::Status WebmParser::OnEbml(const webm::ElementMetadata& element, const webm::Ebml& ebml) {
    const auto& type = ebml.doc_type.value();
    if (type != "webm" && type != "matroska")
        fail(element, "tells of another kind of document than WebM");
    return completed;
}

webm::Status WebmParser::OnInfo(const webm::ElementMetadata& element, const webm::Info& info) {
    if (m_draft == nullptr)
        fail(element, "is not in the Info of an initialization segment");
    const auto scale = static_cast<double>(info.timecode_scale.value());
    if (scale <= 0)
        fail(element, "has the time scale 0");
    m_draft->hasInfo = true;
    m_draft->movie.tick = scale;
    const auto duration = info.duration.is_present() ? info.duration.value() : 0;
    m_draft->segment.duration = std::isfinite(duration) && duration > 0
                                    ? duration * scale / nanoseconds
                                    : std::numeric_limits<double>::infinity();
    return completed;
}

webm::Status WebmParser::OnTrackEntry(const webm::ElementMetadata& element,
                                      const webm::TrackEntry& entry) {
    if (m_draft == nullptr)
        fail(element, "is not in the Tracks of an initialization segment");
    const auto type = entry.track_type.value();
    if (type != webm::TrackType::kVideo && type != webm::TrackType::kAudio)
        return completed;
    const auto kind = type == webm::TrackType::kVideo ? Kind::Video : Kind::Audio;
    const auto number = entry.track_number.value();
    if (number == 0 || number > std::numeric_limits<std::uint32_t>::max() ||
        m_draft->movie.tracks.count(number) > 0)
        fail(element, "has no number of its own");
    const auto& row = findRow(entry.codec_id.value(), kind);
    auto& segment = m_draft->segment;
    Track track;
    track.keyId = readKeyId(element, entry);
    track.defaultDuration = static_cast<double>(entry.default_duration.value()) / nanoseconds;
    auto& description = track.description;
    description.id = static_cast<std::uint32_t>(number);
    description.info = {kind, mediaSourceType(row.codec), avcodec_get_name(row.codec),
                        std::isfinite(segment.duration) ? segment.duration : 0};
    description.codecs =
        row.codec == AV_CODEC_ID_VP9 ? vp9Name(entry.codec_private.value()) : row.name;
    description.language = entry.language.value() == "und" ? "" : entry.language.value();
    description.label = entry.name.value();
    description.config = readConfig(element, entry, row);
    if (!track.keyId.empty()) {
        description.scheme = Protection::Scheme::Cenc;
        description.keyId.assign(track.keyId.begin(), track.keyId.end());
        const bool isKnown =
            std::any_of(segment.initData.begin(), segment.initData.end(),
                        [&](const InitData& data) { return data.data == description.keyId; });
        if (!isKnown)
            segment.initData.push_back({"webm", description.keyId});
    }
    segment.tracks.push_back(description);
    m_draft->movie.tracks.emplace(number, std::move(track));
    return completed;
}

/// Behind Tracks.
void WebmParser::endInit() {
    auto draft = std::move(*m_draft);
    m_draft.reset();
    m_movie = std::make_shared<const Movie>(std::move(draft.movie));
    m_progress.clear();
    m_state = State::Waiting;
    begin();
    m_output.onInit(std::move(draft.segment));
}

webm::Status WebmParser::OnClusterBegin(const webm::ElementMetadata& element,
                                        const webm::Cluster& cluster, webm::Action* action) {
    *action = webm::Action::kRead;
    if (m_state != State::MediaSegment)
        fail(element, "(Cluster) has begun in front of the stream");
    if (!cluster.timecode.is_present())
        fail(element, "(Cluster) does not tell its time before its first block");
    m_clusterTime = cluster.timecode.value();
    if (m_clusterTime > latestTime)
        fail(element, "(Cluster) has too late a time");
    return completed;
}

void WebmParser::beginBlock(const webm::Block& block, bool isKey) {
    m_block = {};
    const auto track = m_movie->tracks.find(block.track_number);
    if (track == m_movie->tracks.end())
        return;
    m_block.track = &track->second;
    m_block.time = static_cast<std::int64_t>(m_clusterTime) + block.timecode;
    m_block.isKey = isKey;
}

webm::Status WebmParser::OnSimpleBlockBegin(const webm::ElementMetadata&,
                                            const webm::SimpleBlock& block, webm::Action* action) {
    beginBlock(block, block.is_key_frame);
    *action = m_block.track == nullptr ? webm::Action::kSkip : webm::Action::kRead;
    return completed;
}

webm::Status WebmParser::OnSimpleBlockEnd(const webm::ElementMetadata&, const webm::SimpleBlock&) {
    endBlock(std::nullopt);
    return completed;
}

webm::Status WebmParser::OnBlockGroupBegin(const webm::ElementMetadata&, webm::Action* action) {
    m_block = {};
    *action = webm::Action::kRead;
    return completed;
}

webm::Status WebmParser::OnBlockBegin(const webm::ElementMetadata&, const webm::Block& block,
                                      webm::Action* action) {
    beginBlock(block, false);
    *action = m_block.track == nullptr ? webm::Action::kSkip : webm::Action::kRead;
    return completed;
}

webm::Status WebmParser::OnBlockGroupEnd(const webm::ElementMetadata&,
                                         const webm::BlockGroup& group) {
    m_block.isKey = group.references.empty();
    endBlock(group.duration.is_present() ? std::optional(group.duration.value()) : std::nullopt);
    return completed;
}

webm::Status WebmParser::OnFrame(const webm::FrameMetadata& frame, webm::Reader*,
                                 std::uint64_t* left) {
    const auto size = static_cast<std::size_t>(*left);
    if (m_bytes.peek(size) == nullptr)
        return wouldBlock;
    *left = 0;
    const auto owner = m_bytes.take(size);
    if (m_block.track == nullptr || size == 0)
        return completed;
    SampleData sample;
    const auto* bytes = owner.get();
    sample.size = size;
    if (const auto& keyId = m_block.track->keyId; !keyId.empty()) {
        const auto error = takeWebmProtection(keyId, bytes, sample.size, sample.protection);
        if (!error.empty())
            fail(frame.parent_element, "(a block) cannot be decrypted: " + error);
    }
    sample.payload = {owner, bytes};
    sample.config = m_block.track->description.config;
    m_block.frames.push_back(std::move(sample));
    return completed;
}

double WebmParser::secondsOf(std::int64_t ticks) const {
    return static_cast<double>(ticks) * m_movie->tick / nanoseconds;
}

/// Its frames are there. `ticks`: how long it lasts, if it says so.
void WebmParser::endBlock(std::optional<std::uint64_t> ticks) {
    auto block = std::exchange(m_block, {});
    if (block.track == nullptr || block.frames.empty())
        return;
    auto& progress = m_progress[block.track->description.id];
    if (progress.latest && block.time < *progress.latest)
        fail(*m_element, "(a block) comes behind one of the same track with a later time");
    progress.latest = block.time;
    if (progress.pending)
        release(progress, secondsOf(block.time - progress.pending->time) /
                              static_cast<double>(progress.pending->frames.size()));
    const auto count = static_cast<double>(block.frames.size());
    const bool isOpus = block.track->description.config->codec == UVAStreamConfig::CODEC_OPUS;
    for (auto& frame : block.frames) {
        if (ticks)
            frame.duration = static_cast<double>(*ticks) * m_movie->tick / nanoseconds / count;
        else if (block.track->defaultDuration > 0)
            frame.duration = block.track->defaultDuration;
        else if (isOpus && block.track->keyId.empty())
            frame.duration = opusDuration(frame.payload.get(), frame.size);
        else
            frame.duration = 0;
    }
    const bool isKnown = std::all_of(block.frames.begin(), block.frames.end(),
                                     [](const SampleData& frame) { return frame.duration > 0; });
    if (isKnown)
        give(block, 0);
    else
        progress.pending = std::move(block);
}

/// The pending block, each of whose frames lasts so long.
void WebmParser::release(Progress& progress, double duration) {
    if (duration > 0)
        progress.duration = duration;
    auto block = std::move(*progress.pending);
    progress.pending.reset();
    give(block, duration);
}

/// `duration` is that of frames that do not tell theirs.
void WebmParser::give(Block& block, double duration) {
    double time = secondsOf(block.time);
    const auto& track = block.track->description;
    for (auto& sample : block.frames) {
        if (sample.duration <= 0)
            sample.duration = duration;
        sample.pts = time;
        sample.dts = time;
        sample.keyFrame = block.isKey || track.info.kind == Kind::Audio;
        time += sample.duration;
        m_frames.push_back({track.id, std::move(sample)});
    }
}

webm::Status WebmParser::OnClusterEnd(const webm::ElementMetadata&, const webm::Cluster&) {
    if (m_state != State::MediaSegment)
        return completed;
    for (auto& [id, progress] : m_progress) {
        if (progress.pending)
            release(progress, progress.duration > 0 ? progress.duration : guessedDuration);
        progress.latest.reset();
    }
    flush();
    m_state = State::Waiting;
    m_output.onSegmentEnd();
    return completed;
}

void WebmParser::flush() {
    if (!m_frames.empty())
        m_output.onFrames(std::exchange(m_frames, {}));
}

} // namespace host
