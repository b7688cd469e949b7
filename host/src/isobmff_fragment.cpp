#include "isobmff_fragment.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

namespace host {

namespace {

// More than real media has.
constexpr std::uint32_t mostSamples = 1 << 20; ///< of a fragment
constexpr std::int64_t latestTime = std::int64_t{1} << 60;
constexpr std::uint64_t lastPosition = std::uint64_t{1} << 60;

enum RunFlags : std::uint32_t {
    DataOffset = 1,
    FirstFlags = 4,
    Durations = 0x100,
    Sizes = 0x200,
    Flags = 0x400,
    Offsets = 0x800,
};

std::uint32_t number(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
}

std::size_t fieldsBelow(std::uint32_t fields, std::uint32_t field) {
    std::size_t count = 0;
    for (std::uint32_t bit = Durations; bit < field; bit <<= 1)
        count += (fields & bit) != 0 ? 1 : 0;
    return count;
}

} // namespace

RunCursor::RunCursor(BoxReader trun, std::uint32_t flags, std::uint32_t count,
                     const SampleDefaults& defaults, std::int64_t dts)
    : m_at(nullptr), m_fields(flags & (Durations | Sizes | Flags | Offsets)), m_left(count),
      m_defaults(defaults), m_dts(dts) {
    if ((flags & FirstFlags) != 0)
        m_firstFlags = trun.u32();
    m_at = trun.data();
    if (trun.left() / 4 < fieldsBelow(m_fields, Offsets << 1) * std::uint64_t{count})
        trun.fail("is too short for its " + std::to_string(count) + " samples");
}

std::uint32_t RunCursor::nextSize() const {
    return (m_fields & Sizes) != 0 ? number(m_at + 4 * fieldsBelow(m_fields, Sizes))
                                   : m_defaults.size;
}

RunSample RunCursor::next() {
    constexpr std::uint32_t notSync = 0x10000, dependence = 0x3000000, depends = 0x1000000;
    const auto take = [this](std::uint32_t field, std::uint32_t otherwise) {
        if ((m_fields & field) == 0)
            return otherwise;
        m_at += 4;
        return number(m_at - 4);
    };
    RunSample sample;
    sample.duration = take(Durations, m_defaults.duration);
    sample.size = take(Sizes, m_defaults.size);
    auto flags = take(Flags, m_defaults.flags);
    if (m_firstFlags)
        flags = *std::exchange(m_firstFlags, std::nullopt);
    sample.isSync = (flags & notSync) == 0 && (flags & dependence) != depends;
    sample.dts = m_dts;
    sample.pts = m_dts + static_cast<std::int32_t>(take(Offsets, 0));
    m_dts += sample.duration;
    --m_left;
    return sample;
}

const SampleEncryption& TrackFragment::encryptionOf(std::uint32_t group) const {
    static const SampleEncryption clear;
    constexpr std::uint32_t fragmentGroups = 0x10000; // indices of a fragment's own come behind
    if (group == 0 && groups.defaultIndex > 0)
        group = fragmentGroups + groups.defaultIndex;
    if (group == 0)
        group = track->groups.defaultIndex;
    if (group == 0)
        return description->encryption ? *description->encryption : clear;
    const bool isOwn = group > fragmentGroups;
    const auto& all = isOwn ? groups.descriptions : track->groups.descriptions;
    const auto at = group - 1 - (isOwn ? fragmentGroups : 0);
    if (at >= all.size())
        failBox(fourLetters("traf"), position,
                "has encrypted samples of a group 'seig' that is not described ('sgpd')");
    return all[at];
}

namespace {

/// A 'traf' that is being read.
class TrackReader {
public:
    TrackReader(const BoxReader& traf, const BoxReader& moof, std::shared_ptr<TrackFragment> common,
                const SampleDefaults& defaults, std::uint64_t base, std::int64_t dts)
        : m_traf(traf), m_moof(moof), m_common(std::move(common)), m_defaults(defaults),
          m_base(base), m_groups(traf), m_vectors(traf), m_end(base), m_dts(dts) {
        readVectorPlaces();
    }

    void read(Fragment& fragment, bool needOffset) {
        m_traf.forEach(fourLetters("trun"), [&](const BoxReader& trun) {
            readRun(trun, fragment, needOffset && m_run == 0);
            ++m_run;
        });
    }

    std::int64_t nextDts() const { return m_dts; }
    std::uint64_t end() const { return m_end; } ///< of its data
    std::uint32_t samples() const { return m_samples; }

private:
    void readRun(BoxReader trun, Fragment& fragment, bool needOffset);
    void readVectorPlaces();
    void placeVectors(SampleRun& run, std::size_t size);

    const BoxReader& m_traf;
    const BoxReader& m_moof;
    const std::shared_ptr<TrackFragment> m_common;
    const SampleDefaults m_defaults;
    const std::uint64_t m_base;
    // Of the next sample.
    GroupCursor m_groups;
    VectorCursor m_vectors;
    std::uint64_t m_end;
    std::int64_t m_dts;

    std::vector<std::uint64_t> m_vectorPlaces; ///< one for all runs, or one for each
    std::uint64_t m_vectorBytes = 0;           ///< of the runs before
    std::size_t m_run = 0;
    std::uint32_t m_samples = 0;
};

void TrackReader::readRun(BoxReader trun, Fragment& fragment, bool needOffset) {
    const auto flags = trun.versionAndFlags().flags;
    const auto count = trun.u32();
    if (count > mostSamples - m_samples)
        trun.fail("has too many samples: " + std::to_string(count));
    m_samples += count;
    if ((flags & DataOffset) != 0)
        m_end = m_base +
                static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(trun.u32())});
    else if (needOffset)
        trun.fail("does not say where its samples are, counted from the 'moof' (data offset)");
    if (m_end > lastPosition)
        trun.fail("has its samples in front of the stream, or too far behind");

    SampleRun run{m_common, m_end,     0, {trun, flags, count, m_defaults, m_dts},
                  m_groups, m_vectors, 0, 0,
                  nullptr};
    std::size_t vectorBytes = 0;
    auto cursor = run.samples;
    const double timescale = m_common->track->timescale;
    std::int64_t earliest = latestTime;
    while (cursor.left() > 0) {
        const auto sample = cursor.next();
        run.size += sample.size;
        earliest = std::min(earliest, sample.pts);
        if (!m_common->mayBeEncrypted)
            continue;
        const auto& encryption = m_common->encryptionOf(m_groups.next());
        if (m_vectors.isElsewhere())
            vectorBytes += m_vectors.skipSize();
        else
            m_vectors.skip(encryption);
    }
    m_dts = cursor.nextDts();
    m_end += run.size;
    if (m_dts > latestTime || m_end > lastPosition)
        trun.fail("has too long samples");
    placeVectors(run, vectorBytes);
    if (count > 0)
        fragment.start = std::min(
            fragment.start, static_cast<double>(earliest + m_common->track->shift) / timescale);
    if (run.size > 0)
        fragment.runs.push_back(std::move(run));
}

void TrackReader::readVectorPlaces() {
    m_traf.forEach(fourLetters("saio"), [this](BoxReader saio) {
        const auto [version, flags] = saio.versionAndFlags();
        if (!isOfEncryption(saio, flags) || !m_vectorPlaces.empty())
            return;
        const std::size_t width = version == 0 ? 4 : 8;
        auto count = saio.u32();
        if (saio.left() / width < count)
            saio.fail("is too short for its places");
        for (; count > 0; --count) {
            m_vectorPlaces.push_back(m_base + (version == 0 ? saio.u32() : saio.u64()));
            if (m_vectorPlaces.back() > lastPosition)
                saio.fail("names a place too far behind");
        }
    });
}

/// They may be in the 'moof' itself.
void TrackReader::placeVectors(SampleRun& run, std::size_t size) {
    if (size == 0)
        return;
    const bool isOne = m_vectorPlaces.size() == 1;
    if (!isOne && m_run >= m_vectorPlaces.size())
        m_traf.fail("does not say where the vectors of its samples are ('saio')");
    const auto place = isOne ? m_vectorPlaces[0] + m_vectorBytes : m_vectorPlaces[m_run];
    m_vectorBytes += size;
    const auto end = m_moof.place() + m_moof.left();
    if (place >= m_moof.place() && place < end) {
        if (size > end - place)
            m_traf.fail("has vectors of samples that end behind the 'moof'");
        run.vectors.setBytes(BoxReader(m_moof.data() + (place - m_moof.place()), size,
                                       fourLetters("saio"), place, 0));
        return;
    }
    run.vectorsPosition = place;
    run.vectorsSize = size;
}

struct TrackHeader {
    SampleDefaults defaults;
    const MovieTrack* track = nullptr; ///< null: one that is skipped
    std::optional<std::uint64_t> base;
    bool isBaseMoof = false;
};

TrackHeader readHeader(BoxReader tfhd, const Movie& movie, StreamRules rules) {
    const auto flags = tfhd.versionAndFlags().flags;
    TrackHeader header;
    const auto id = tfhd.u32();
    header.track = movie.find(id);
    if (rules == StreamRules::MediaSource && movie.fragmented.count(id) == 0)
        tfhd.fail("is of the track " + std::to_string(id) + ", which the 'moov' does not have");
    if (header.track != nullptr)
        header.defaults = header.track->defaults;
    if ((flags & 1) != 0)
        header.base = tfhd.u64();
    auto& defaults = header.defaults;
    for (const auto& [bit, value] : {std::pair{0x2U, &defaults.entry},
                                     {0x8U, &defaults.duration},
                                     {0x10U, &defaults.size},
                                     {0x20U, &defaults.flags}})
        if ((flags & bit) != 0)
            *value = tfhd.u32();
    header.isBaseMoof = (flags & 0x20000) != 0;
    return header;
}

std::shared_ptr<TrackFragment> readCommon(const BoxReader& traf, const TrackHeader& header,
                                          StreamRules rules) {
    const auto fragment = std::make_shared<TrackFragment>();
    const auto& track = *header.track;
    fragment->position = traf.position();
    fragment->track = &track;
    if (header.defaults.entry - 1 >= track.entries.size())
        traf.fail("names the sample description " + std::to_string(header.defaults.entry) +
                  ", which is not there");
    fragment->description = &track.entries[header.defaults.entry - 1];
    if (rules == StreamRules::MediaSource && !fragment->description->fault.empty())
        traf.fail("is refused: " + fragment->description->fault);
    fragment->groups = readEncryptionGroups(traf);
    nameScheme(fragment->groups, track.entries, traf);
    fragment->mayBeEncrypted = fragment->description->encryption.has_value() ||
                               !fragment->groups.descriptions.empty() ||
                               !track.groups.descriptions.empty();
    return fragment;
}

std::int64_t readDecodeTime(BoxReader tfdt) {
    const auto time = tfdt.versionAndFlags().version == 1 ? tfdt.u64() : tfdt.u32();
    if (time > static_cast<std::uint64_t>(latestTime))
        tfdt.fail("has too late a time");
    return static_cast<std::int64_t>(time);
}

} // namespace

Fragment readFragment(const BoxReader& moof, const Movie& movie, StreamRules rules,
                      std::map<std::uint32_t, std::int64_t>& nextDts) {
    Fragment fragment;
    fragment.start = std::numeric_limits<double>::infinity();
    std::size_t tracks = 0;
    std::uint32_t samples = 0;
    bool isRelative = true; // all bases are the 'moof'
    std::uint64_t end = moof.position();
    moof.forEach(fourLetters("traf"), [&](const BoxReader& traf) {
        const auto header = readHeader(traf.need(fourLetters("tfhd")), movie, rules);
        ++tracks;
        isRelative = isRelative && header.isBaseMoof && !header.base;
        if (rules == StreamRules::MediaSource && (header.base || (tracks > 1 && !isRelative)))
            traf.fail("does not count the places of its samples from the 'moof'");
        const auto tfdt = traf.find(fourLetters("tfdt"));
        if (rules == StreamRules::MediaSource && !tfdt)
            traf.fail("has no decoding time ('tfdt')");
        if (header.track == nullptr)
            return;
        auto& dts = nextDts[header.track->id];
        if (tfdt)
            dts = readDecodeTime(*tfdt);
        const auto base = header.base ? *header.base : header.isBaseMoof ? moof.position() : end;
        TrackReader reader(traf, moof, readCommon(traf, header, rules), header.defaults, base, dts);
        reader.read(fragment, rules == StreamRules::MediaSource);
        dts = reader.nextDts();
        end = reader.end();
        samples += reader.samples();
        if (samples > mostSamples)
            moof.fail("has too many samples");
    });
    if (tracks == 0)
        moof.fail("has no 'traf'");
    fragment.initData = readInitData(moof);
    return fragment;
}

} // namespace host
