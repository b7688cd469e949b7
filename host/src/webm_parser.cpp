#include "webm_parser.h"

#include "box_reader.h"
#include "codec_conversion.h"
#include "packet_protection.h"
#include "stream_format.h"
#include "webm_block.h"
#include "webm_ids.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

namespace host {

namespace {

constexpr std::uint64_t latestTime = std::uint64_t{1} << 53; ///< ticks
constexpr double nanoseconds = 1e9;                          ///< of a second
/// Of a track whose only frame in a cluster does not tell it.
constexpr double guessedDuration = 0.025;

using namespace webm;

/// What ends a cluster of unknown size.
bool isOutsideCluster(std::uint32_t id) {
    static constexpr Id ids[] = {Ebml,    Segment, SeekHead, Info, Tracks,
                                 Cluster, Cues,    Chapters, Tags, Attachments};
    return std::find(std::begin(ids), std::end(ids), id) != std::end(ids);
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

const Row& findRow(const EbmlReader& from, const std::string& id, Kind kind) {
    const auto* row = std::find_if(std::begin(rows), std::end(rows), [&](const Row& candidate) {
        return id == candidate.id && kind == candidate.kind;
    });
    if (row == std::end(rows))
        from.fail(std::string("(TrackEntry) is refused: the ") +
                  (kind == Kind::Video ? "video" : "audio") + " codec " + id +
                  " of a WebM track cannot be played");
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

void readColour(const EbmlReader& colour, OwnedConfig& config) {
    constexpr std::uint64_t unspecified = 2;
    std::uint64_t matrix = unspecified, transfer = unspecified, primaries = unspecified;
    std::uint64_t range = 0, bits = 0;
    std::optional<EbmlReader> told;
    colour.read({{MatrixCoefficients, &matrix},
                 {BitsPerChannel, &bits},
                 {ColourRange, &range},
                 {TransferCharacteristics, &transfer},
                 {Primaries, &primaries},
                 {MasteringMetadata, &told}});
    auto& to = config.colorInfo;
    to.matrix = static_cast<unsigned int>(matrix);
    to.range = static_cast<unsigned int>(range);
    to.transfer = static_cast<unsigned int>(transfer);
    to.primaries = static_cast<unsigned int>(primaries);
    if (bits > 0)
        to.bitsPerChannel = static_cast<unsigned int>(bits);
    config.color = &to;
    if (!told)
        return;
    auto& mastering = config.masteringMetadata;
    told->read({{PrimaryRX, &mastering.primaryRX},
                {PrimaryRY, &mastering.primaryRY},
                {PrimaryGX, &mastering.primaryGX},
                {PrimaryGY, &mastering.primaryGY},
                {PrimaryBX, &mastering.primaryBX},
                {PrimaryBY, &mastering.primaryBY},
                {WhitePointX, &mastering.whitePointX},
                {WhitePointY, &mastering.whitePointY},
                {LuminanceMax, &mastering.luminanceMax},
                {LuminanceMin, &mastering.luminanceMin}});
    config.mastering = &mastering;
}

int boundedInt(double value) {
    return value >= 0 && value <= std::numeric_limits<int>::max() ? static_cast<int>(value) : 0;
}

void readVideo(const EbmlReader& video, OwnedConfig& config) {
    std::uint64_t width = 0, height = 0;
    std::optional<EbmlReader> colour;
    video.read({{PixelWidth, &width}, {PixelHeight, &height}, {Colour, &colour}});
    config.width = boundedInt(static_cast<double>(width));
    config.height = boundedInt(static_cast<double>(height));
    if (colour)
        readColour(*colour, config);
}

/// As an entry has it; what it does not tell is as Matroska says.
struct TrackHeader {
    std::uint64_t number = 0, type = 0, defaultDuration = 0;
    std::string codec, name, language = "eng";
    Bytes codecPrivate;
    std::optional<EbmlReader> video, audio, encodings;
};

TrackHeader readEntry(const EbmlReader& from) {
    TrackHeader entry;
    from.read({{TrackNumber, &entry.number},
               {TrackType, &entry.type},
               {DefaultDuration, &entry.defaultDuration},
               {CodecId, &entry.codec},
               {CodecPrivate, &entry.codecPrivate},
               {Name, &entry.name},
               {Language, &entry.language},
               {Video, &entry.video},
               {Audio, &entry.audio},
               {ContentEncodings, &entry.encodings}});
    return entry;
}

std::shared_ptr<const UVAStreamConfig> readConfig(const EbmlReader& from, const TrackHeader& entry,
                                                  const Row& row) {
    constexpr std::size_t opusChannels = 9;
    constexpr int opusRate = 48000;
    const auto config = std::make_shared<OwnedConfig>();
    config->codec = findMediaSourceCodec(row.codec)->codec;
    if (row.headers != nullptr) {
        config->headers = row.headers(entry.codecPrivate.data(), entry.codecPrivate.size());
        if (config->headers.empty())
            from.fail(std::string("has damaged headers of the codec ") + row.name);
        config->codecData = config->headers.data();
        config->codecDataSize = config->headers.size();
    }
    if (row.kind == Kind::Video) {
        if (entry.video)
            readVideo(*entry.video, *config);
    } else if (row.codec == AV_CODEC_ID_OPUS) {
        config->channels = config->headers[opusChannels];
        config->sampleRate = opusRate;
    } else {
        std::uint64_t channels = 1;
        double rate = 8000;
        if (entry.audio)
            entry.audio->read({{Channels, &channels}, {SamplingFrequency, &rate}});
        config->channels = boundedInt(static_cast<double>(channels));
        config->sampleRate = boundedInt(rate);
    }
    return config;
}

std::string readEncoding(const EbmlReader& encoding) {
    constexpr std::uint64_t encrypted = 1, aes = 5, counterMode = 1;
    std::uint64_t type = 0, algorithm = 0, mode = counterMode;
    Bytes key;
    std::optional<EbmlReader> encryption, settings;
    encoding.read({{ContentEncodingType, &type}, {ContentEncryption, &encryption}});
    if (encryption)
        encryption->read({{ContentEncAlgo, &algorithm},
                          {ContentEncKeyId, &key},
                          {ContentEncAesSettings, &settings}});
    if (settings)
        settings->read({{AesSettingsCipherMode, &mode}});
    if (type != encrypted)
        encoding.fail("has compressed frames, which WebM does not allow");
    if (algorithm != aes || mode != counterMode)
        encoding.fail("is encrypted, but not with AES in counter mode");
    if (key.size() != sizeof(KeyBytes))
        encoding.fail("is encrypted with a key whose id has not 16 bytes, but " +
                      std::to_string(key.size()));
    return {key.begin(), key.end()};
}

/// Empty: clear.
std::string readKeyId(const TrackHeader& entry) {
    std::string keyId;
    if (entry.encodings)
        entry.encodings->forEach(
            ContentEncoding, [&](const EbmlReader& encoding) { keyId = readEncoding(encoding); });
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
    std::optional<EbmlElement> element; ///< the Segment
    bool hasInfo = false;
    Movie movie;
    InitSegment segment;
};

WebmParser::WebmParser(Output& output) : PushParser(output) {}

WebmParser::~WebmParser() = default;

bool WebmParser::step() {
    switch (m_step) {
    case Step::Header:
        return readHeader();
    case Step::Body:
        return readBody();
    case Step::Skip:
        return skipBody();
    }
    return false;
}

void WebmParser::reset() {
    restartAt(m_bytes.position() + m_bytes.size());
    m_step = Step::Header;
    m_draft.reset();
    m_cluster.reset();
    for (auto& [id, progress] : m_progress)
        progress.pending.reset();
}

/// What comes next must be within. Behind its Tracks a segment's end counts no more: what is
/// appended may come from anywhere in it.
const EbmlElement& WebmParser::parent() const {
    static constexpr EbmlElement stream;
    if (m_cluster)
        return *m_cluster;
    return m_draft && m_draft->element ? *m_draft->element : stream;
}

bool WebmParser::readHeader() {
    const auto position = m_bytes.position();
    if (m_cluster && position == m_cluster->end)
        endCluster();
    if (position == parent().end)
        parent().fail("(Segment) ends before its Tracks");
    const auto size = std::min(m_bytes.size(), EbmlElement::longestHeader);
    const auto element = parent().child(m_bytes.peek(size), size, position);
    if (!element)
        return false;
    m_element = *element;
    m_bytes.skip(m_element.headerSize);
    begin();
    return true;
}

/// An element whose header is known.
void WebmParser::begin() {
    const auto id = m_element.id;
    if (m_cluster && isOutsideCluster(id)) {
        if (m_cluster->end != EbmlElement::unsized)
            m_element.fail("cannot be in a Cluster");
        endCluster();
    }
    m_step = stepOf();
    if (m_element.end == EbmlElement::unsized && m_step != Step::Header) {
        if (m_step == Step::Body || m_cluster)
            m_element.fail("does not tell its size");
        m_step = Step::Header; // live streams have Cues like that: their parts are skipped
    }
    if (m_step == Step::Body && m_element.size() > largestPart)
        m_element.fail("is too large: " + std::to_string(m_element.size()) + " bytes");
}

WebmParser::Step WebmParser::stepOf() {
    switch (m_element.id) {
    case Ebml:
        if (m_draft)
            m_element.fail("(EBML) comes before the initialization segment in front of it is "
                           "complete");
        m_draft = std::make_unique<Draft>();
        m_state = State::InitSegment;
        return Step::Body;
    case Info:
    case Tracks:
        if (!m_draft)
            break; // of a segment that is known already
        if (!m_draft->element)
            m_element.fail("is in no Segment");
        if (m_element.id == Tracks && !m_draft->hasInfo)
            m_element.fail("(Tracks) comes before the segment's Info");
        return Step::Body;
    case TrackEntry:
        m_element.fail("is not in the Tracks of an initialization segment");
    case Cluster:
        if (m_draft || m_movie == nullptr)
            m_element.fail("(Cluster) comes before an initialization segment is complete");
        m_cluster = m_element;
        m_clusterTime.reset();
        m_latest.reset();
        for (auto& [id, progress] : m_progress)
            progress.isThere = false;
        m_state = State::MediaSegment;
        return Step::Header;
    case Timecode:
    case SimpleBlock:
    case BlockGroup:
        if (!m_cluster)
            m_element.fail("is in no Cluster");
        return Step::Body;
    default:
        break;
    }
    if (!m_draft && m_movie == nullptr)
        m_element.fail("is not the EBML header that the stream must begin with");
    if (m_element.id != Segment)
        return Step::Skip;
    if (m_draft)
        m_draft->element = m_element;
    return Step::Header;
}

bool WebmParser::skipBody() {
    if (!skipTo(m_element.end))
        return false;
    m_step = Step::Header;
    return true;
}

bool WebmParser::readBody() {
    const auto size = static_cast<std::size_t>(m_element.size());
    if (m_bytes.peek(size) == nullptr)
        return false;
    const auto owner = m_bytes.take(size);
    m_step = Step::Header;
    takeBody(EbmlReader(m_element, owner.get()), owner);
    return true;
}

void WebmParser::takeBody(const EbmlReader& body, const ByteQueue::Bytes& owner) {
    switch (m_element.id) {
    case Ebml: {
        std::string type = "matroska";
        body.read({{DocType, &type}});
        if (type != "webm" && type != "matroska")
            body.fail("tells of another kind of document than WebM");
        break;
    }
    case Info:
        takeInfo(body);
        break;
    case Tracks:
        body.forEach(TrackEntry, [this](const EbmlReader& entry) { takeTrack(entry); });
        endInit();
        break;
    case Timecode:
        m_clusterTime = body.number();
        if (*m_clusterTime > latestTime)
            m_cluster->fail("(Cluster) has too late a time");
        break;
    default:
        if (!m_clusterTime)
            m_cluster->fail("(Cluster) does not tell its time before its first block");
        if (m_element.id == SimpleBlock)
            takeBlock(body, owner);
        else
            takeGroup(body, owner);
    }
}

void WebmParser::takeInfo(const EbmlReader& info) {
    std::uint64_t scale = 1000000;
    double duration = 0;
    info.read({{TimecodeScale, &scale}, {Duration, &duration}});
    if (scale == 0)
        info.fail("has the time scale 0");
    m_draft->hasInfo = true;
    m_draft->movie.tick = static_cast<double>(scale);
    m_draft->segment.duration = std::isfinite(duration) && duration > 0
                                    ? duration * m_draft->movie.tick / nanoseconds
                                    : std::numeric_limits<double>::infinity();
}

void WebmParser::takeTrack(const EbmlReader& from) {
    constexpr std::uint64_t video = 1, audio = 2;
    const auto entry = readEntry(from);
    if (entry.type != video && entry.type != audio)
        return;
    const auto kind = entry.type == video ? Kind::Video : Kind::Audio;
    if (entry.number == 0 || entry.number > std::numeric_limits<std::uint32_t>::max() ||
        m_draft->movie.tracks.count(entry.number) > 0)
        from.fail("has no number of its own");
    const auto& row = findRow(from, entry.codec, kind);
    auto& segment = m_draft->segment;
    Track track;
    track.keyId = readKeyId(entry);
    track.defaultDuration = static_cast<double>(entry.defaultDuration) / nanoseconds;
    auto& description = track.description;
    description.id = static_cast<std::uint32_t>(entry.number);
    description.info = {kind, mediaSourceType(row.codec), avcodec_get_name(row.codec),
                        std::isfinite(segment.duration) ? segment.duration : 0};
    description.codecs =
        row.codec == AV_CODEC_ID_VP9 ? vp9Name(entry.codecPrivate) : std::string(row.name);
    description.language = entry.language == "und" ? "" : entry.language;
    description.label = entry.name;
    description.config = readConfig(from, entry, row);
    if (!track.keyId.empty()) {
        description.scheme = Protection::Scheme::Cenc;
        const Bytes id(track.keyId.begin(), track.keyId.end());
        std::copy(id.begin(), id.end(), description.keyId.begin());
        const bool isKnown = std::any_of(segment.initData.begin(), segment.initData.end(),
                                         [&](const InitData& data) { return data.data == id; });
        if (!isKnown)
            segment.initData.push_back({"webm", id});
    }
    segment.tracks.push_back(description);
    m_draft->movie.tracks.emplace(entry.number, std::move(track));
}

/// Behind Tracks.
void WebmParser::endInit() {
    auto draft = std::move(*m_draft);
    m_draft.reset();
    m_movie = std::make_shared<const Movie>(std::move(draft.movie));
    m_progress.clear();
    m_state = State::Waiting;
    m_output.onInit(std::move(draft.segment));
}

void WebmParser::takeBlock(const EbmlReader& body, const ByteQueue::Bytes& owner) {
    const WebmBlock simple(body);
    auto block = blockOf(simple, owner);
    block.isKey = simple.isKey();
    addBlock(std::move(block), std::nullopt);
}

void WebmParser::takeGroup(const EbmlReader& group, const ByteQueue::Bytes& owner) {
    Block block;
    std::optional<std::uint64_t> ticks;
    bool isKey = true;
    auto rest = group;
    while (const auto child = rest.next()) {
        if (child->element().id == BlockOfGroup)
            block = blockOf(WebmBlock(*child), owner);
        else if (child->element().id == BlockDuration)
            ticks = child->number();
        else if (child->element().id == ReferenceBlock)
            isKey = false;
    }
    block.isKey = isKey;
    addBlock(std::move(block), ticks);
}

/// Without a track for one that is skipped.
WebmParser::Block WebmParser::blockOf(const WebmBlock& from, const ByteQueue::Bytes& owner) {
    Block block;
    const auto track = m_movie->tracks.find(from.track());
    if (track == m_movie->tracks.end())
        return block;
    block.track = &track->second;
    block.time = static_cast<std::int64_t>(*m_clusterTime) + from.time();
    block.frames = std::exchange(m_spare, {});
    from.forEachFrame([&](WebmBlock::Frame frame) {
        auto [bytes, size] = frame;
        SampleData sample;
        const auto& keyId = block.track->keyId;
        if (!keyId.empty() && size > 0)
            if (const auto error = takeWebmProtection(keyId, bytes, size, sample.protection);
                !error.empty())
                m_element.fail("(a block) cannot be decrypted: " + error);
        if (size == 0)
            return;
        sample.size = size;
        sample.payload = {owner, bytes};
        sample.config = block.track->description.config;
        block.frames.push_back(std::move(sample));
    });
    return block;
}

double WebmParser::secondsOf(std::int64_t ticks) const {
    return static_cast<double>(ticks) * m_movie->tick / nanoseconds;
}

/// `ticks`: how long it lasts, if it says so.
void WebmParser::addBlock(Block block, std::optional<std::uint64_t> ticks) {
    if (block.track == nullptr || block.frames.empty())
        return;
    if (m_latest && block.time < *m_latest)
        m_element.fail("(a block) comes behind one with a later time");
    m_latest = block.time;
    auto& progress = m_progress[block.track->description.id];
    progress.isThere = true;
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
        add({track.id, std::move(sample)});
    }
    block.frames.clear();
    m_spare = std::move(block.frames);
}

void WebmParser::endCluster() {
    for (auto& [id, progress] : m_progress) {
        if (progress.pending)
            release(progress, progress.duration > 0 ? progress.duration : guessedDuration);
    }
    for (const auto& [number, track] : m_movie->tracks)
        if (m_movie->tracks.size() > 1 && !m_progress[track.description.id].isThere)
            m_cluster->fail("(Cluster) has no block of the track " + std::to_string(number));
    flush();
    m_cluster.reset();
    m_state = State::Waiting;
    m_output.onSegmentEnd();
}

} // namespace host
