#include "mp4_scan.h"

#include <algorithm>
#include <array>
#include <limits>
#include <tuple>
#include <utility>

namespace host {

namespace {

// More than real files have; what is behind them is not known.
constexpr std::uint64_t largestBox = 64 * 1024 * 1024; ///< of those that are looked into
constexpr std::size_t mostTracks = 256;
constexpr std::size_t mostDescriptions = 4096;

constexpr std::uint32_t fourLetters(const char (&letters)[5]) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | static_cast<unsigned char>(letters[i]);
    return value;
}

constexpr std::uint32_t seig = fourLetters("seig");
constexpr std::uint32_t cbcs = fourLetters("cbcs");

bool isSame(const TrackProtection& left, const TrackProtection& right) {
    if (!left.encrypted || !right.encrypted)
        return left.encrypted == right.encrypted;
    const auto parts = [](const TrackProtection& value) {
        return std::tie(value.scheme, value.ivSize, value.cryptByteBlock, value.skipByteBlock,
                        value.keyId, value.constantIv);
    };
    return parts(left) == parts(right);
}

TrackProtection faulty(std::string fault) {
    TrackProtection protection;
    protection.fault = std::move(fault);
    return protection;
}

} // namespace

/// Bytes of a box, read from the front. Zeros follow the end.
struct Mp4Scan::View {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;

    std::uint64_t take(std::size_t bytes) {
        std::uint64_t value = 0;
        for (; bytes > 0; --bytes) {
            value = value << 8 | (size > 0 ? *data : 0U);
            skip(1);
        }
        return value;
    }
    std::uint32_t take32() { return static_cast<std::uint32_t>(take(4)); }
    void skip(std::size_t bytes) {
        bytes = std::min(bytes, size);
        data += bytes;
        size -= bytes;
    }
    std::vector<std::uint8_t> bytes(std::size_t count) {
        std::vector<std::uint8_t> copy(data, data + std::min(count, size));
        skip(count);
        return copy;
    }

    /// The next box in it, of which it is moved behind; nothing when no whole one is left.
    std::optional<std::pair<std::uint32_t, View>> nextBox() {
        View rest = *this;
        std::uint64_t length = rest.take32();
        const auto type = rest.take32();
        if (length == 1)
            length = rest.take(8);
        else if (length == 0)
            length = size;
        const std::size_t header = size - rest.size;
        if (header < 8 || length < header || length > size)
            return std::nullopt;
        const View body{rest.data, static_cast<std::size_t>(length) - header};
        skip(static_cast<std::size_t>(length));
        return std::pair{type, body};
    }
    template <typename Visit>
    void forEach(std::uint32_t type, Visit visit) const {
        View rest = *this;
        while (const auto box = rest.nextBox())
            if (box->first == type)
                visit(box->second);
    }
    /// The first box of that type; empty when there is none.
    View find(std::uint32_t type) const {
        View rest = *this;
        while (const auto box = rest.nextBox())
            if (box->first == type)
                return box->second;
        return {};
    }
    bool has(std::uint32_t type) const { return find(type).data != nullptr; }
};

struct Mp4Scan::Header {
    std::uint64_t begin = 0;
    std::uint32_t type = 0;
    std::uint64_t bodyAt = 0;
    std::uint64_t bodySize = 0; ///< the greatest: to the end of the file
};

struct Mp4Scan::Samples {
    View runs;     ///< body of the 'sbgp' of the group 'seig'; empty without
    Groups groups; ///< their own descriptions, of a fragment
    std::uint32_t count = 0;
    std::uint32_t entry = 1; ///< sample description, counts from 1
    bool haveVectors = false;
};

namespace {

/// What 'tenc' and 'seig' have in common.
template <typename View>
TrackProtection readProtection(View body) {
    TrackProtection protection;
    body.skip(1);
    const auto pattern = static_cast<unsigned int>(body.take(1));
    protection.cryptByteBlock = pattern >> 4;
    protection.skipByteBlock = pattern & 15;
    protection.encrypted = body.take(1) == 1;
    protection.ivSize = static_cast<unsigned int>(body.take(1));
    protection.keyId = body.bytes(16);
    if (protection.encrypted && protection.ivSize == 0)
        protection.constantIv = body.bytes(static_cast<std::size_t>(body.take(1)));
    return protection;
}

/// A sample entry of 'stsd'.
template <typename View>
TrackProtection readSampleEntry(std::uint32_t type, View body) {
    constexpr std::size_t videoHeader = 78;
    constexpr std::size_t audioHeader = 28;
    if (type != fourLetters("encv") && type != fourLetters("enca"))
        return {};
    if (type == fourLetters("encv")) {
        body.skip(videoHeader);
    } else {
        body.skip(8);
        const auto version = body.take(2); // of QuickTime, whose later ones are longer
        body.skip(audioHeader - 10 + (version == 1 ? 16 : version == 2 ? 36 : 0));
    }
    const auto sinf = body.find(fourLetters("sinf"));
    auto tenc = sinf.find(fourLetters("schi")).find(fourLetters("tenc"));
    if (tenc.data == nullptr)
        return {};
    tenc.skip(4);
    auto protection = readProtection(tenc);
    auto schm = sinf.find(fourLetters("schm"));
    schm.skip(4);
    protection.scheme = schm.take32();
    return protection;
}

/// The body of the box of this type that is for the group 'seig', behind the name of the group.
template <typename View>
std::pair<unsigned int, View> findGroupBox(const View& container, std::uint32_t type) {
    std::pair<unsigned int, View> found;
    container.forEach(type, [&](View body) {
        const auto version = static_cast<unsigned int>(body.take(4) >> 24);
        if (body.take32() == seig && found.second.data == nullptr)
            found = {version, body};
    });
    return found;
}

/// Of 'sbgp' for the group 'seig': from the number of its runs on; empty when there is none.
template <typename View>
View groupRuns(const View& container) {
    auto [version, runs] = findGroupBox(container, fourLetters("sbgp"));
    runs.skip(version >= 1 ? 4 : 0); // a parameter of the grouping
    return runs;
}

/// Seconds that edits put in front, less what they cut off there.
template <typename View>
double shiftOf(View elst, double movieTimescale, double timescale) {
    const std::size_t width = elst.take(4) >> 24 == 1 ? 8 : 4;
    double shift = 0;
    for (auto count = elst.take32(); count > 0 && elst.size > 0; --count) {
        const auto duration = static_cast<double>(elst.take(width));
        const auto bits = elst.take(width);
        const bool isEmpty = bits == (width == 8 ? ~std::uint64_t{0} : 0xffffffffU);
        elst.skip(4);
        if (!isEmpty)
            return shift - static_cast<double>(bits) / timescale;
        shift += duration / movieTimescale;
    }
    return shift;
}

double orOne(std::uint32_t timescale) {
    return timescale == 0 ? 1 : timescale;
}

} // namespace

Mp4Scan::Mp4Scan(Read read) : m_read(std::move(read)) {}

void Mp4Scan::coverTo(std::uint64_t position) {
    while (!m_ended && (m_at <= position || m_movie.empty())) {
        const auto header = readHeader();
        if (!header)
            return endUnread(m_at);
        take(*header);
    }
}

std::optional<Mp4Scan::Header> Mp4Scan::readHeader() {
    std::array<std::uint8_t, 16> bytes = {};
    View view{bytes.data(), m_read(m_at, bytes.data(), bytes.size())};
    const std::size_t there = view.size;
    Header header;
    header.begin = m_at;
    std::uint64_t length = view.take32();
    header.type = view.take32();
    constexpr auto toTheEnd = std::numeric_limits<std::uint64_t>::max();
    if (length == 1)
        length = view.take(8);
    else if (length == 0)
        length = toTheEnd;
    const std::size_t size = there - view.size;
    if (there < 8 || length < size)
        return std::nullopt;
    header.bodyAt = m_at + size;
    header.bodySize = length - size;
    m_at = length > toTheEnd - m_at ? toTheEnd : m_at + length;
    return header;
}

void Mp4Scan::take(const Header& header) {
    if (header.type == fourLetters("ftyp"))
        m_fileType = header.begin;
    else if (header.type == fourLetters("mdat"))
        m_fileType.reset();
    const bool isMovie = header.type == fourLetters("moov");
    const bool isFragment = header.type == fourLetters("moof") && m_beginnings.size() == 1;
    const bool isIndex = header.type == fourLetters("sidx") && m_fragments + m_indexed == 0;
    if (!isMovie && !isFragment && !isIndex)
        return;
    if (header.bodySize > largestBox)
        return endUnread(header.begin);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(header.bodySize));
    if (m_read(header.bodyAt, bytes.data(), bytes.size()) != bytes.size())
        endUnread(header.begin);
    else if (isMovie)
        takeMovie(std::exchange(m_fileType, std::nullopt).value_or(header.begin), std::move(bytes));
    else if (isIndex)
        takeIndex({bytes.data(), bytes.size()});
    else
        takeFragment(header.begin, {bytes.data(), bytes.size()});
}

/// Nothing is known of what is behind. At the end of the file nothing is behind; else encrypted
/// samples are not guessed at.
void Mp4Scan::endUnread(std::uint64_t at) {
    m_ended = true;
    Region region;
    region.begin = at;
    for (const auto& [id, track] : m_tracks)
        if (isEncrypted(id))
            region.tracks[id] = std::make_shared<TrackProtection>(
                faulty("the box at byte " + std::to_string(at) +
                       " cannot be read, without which their keys are not known; download the file "
                       "whole and play that"));
    add(std::move(region));
}

void Mp4Scan::takeIndex(View sidx) {
    constexpr std::size_t reference = 12;
    sidx.skip(sidx.take(4) >> 24 == 0 ? 18 : 26);
    const auto count = static_cast<std::size_t>(sidx.take(2));
    m_indexed = std::min(count, sidx.size / reference);
}

void Mp4Scan::takeMovie(std::uint64_t begin, std::vector<std::uint8_t> bytes) {
    if (bytes == m_movie)
        return; // said again, as in front of each segment
    Region region;
    region.begin = begin;
    const bool isFirst = m_movie.empty();
    m_movie = std::move(bytes);
    if (!isFirst) {
        m_beginnings.push_back(begin);
        region.everywhere = std::make_shared<TrackProtection>(
            faulty("the file begins anew there (another 'moov', at byte " + std::to_string(begin) +
                   "), which is read only from a local file; download it and play that"));
        return add(std::move(region));
    }
    const View moov{m_movie.data(), m_movie.size()};
    auto mvhd = moov.find(fourLetters("mvhd"));
    mvhd.skip(mvhd.take(4) >> 24 == 1 ? 16 : 8);
    const double movieTimescale = orOne(mvhd.take32());
    region.begin = 0;
    moov.forEach(fourLetters("trak"),
                 [&](const View& trak) { takeTrack(trak, movieTimescale, region); });
    add(std::move(region));
    m_fragmented = moov.has(fourLetters("mvex"));
    moov.find(fourLetters("mvex")).forEach(fourLetters("trex"), [&](View trex) {
        trex.skip(4);
        const auto track = m_tracks.find(trex.take32());
        if (track == m_tracks.end())
            return;
        track->second.entry = trex.take32();
        track->second.duration = trex.take32();
    });
}

void Mp4Scan::takeTrack(const View& trak, double movieTimescale, Region& region) {
    auto tkhd = trak.find(fourLetters("tkhd"));
    tkhd.skip(tkhd.take(4) >> 24 == 1 ? 16 : 8);
    const auto id = tkhd.take32();
    const auto mdia = trak.find(fourLetters("mdia"));
    const auto stbl = mdia.find(fourLetters("minf")).find(fourLetters("stbl"));
    Track track;
    auto mdhd = mdia.find(fourLetters("mdhd"));
    mdhd.skip(mdhd.take(4) >> 24 == 1 ? 16 : 8);
    track.timescale = orOne(mdhd.take32());
    track.shift = shiftOf(trak.find(fourLetters("edts")).find(fourLetters("elst")), movieTimescale,
                          track.timescale);
    auto stsd = stbl.find(fourLetters("stsd"));
    stsd.skip(8);
    while (track.entries.size() < mostDescriptions) {
        const auto entry = stsd.nextBox();
        if (!entry)
            break;
        track.entries.push_back(readSampleEntry(entry->first, entry->second));
    }
    track.groups = readGroups(stbl);

    auto stsz = stbl.find(fourLetters("stsz"));
    stsz.skip(8);
    Samples samples;
    samples.count = stsz.take32();
    samples.runs = groupRuns(stbl);
    samples.haveVectors = stbl.has(fourLetters("saiz")) || stbl.has(fourLetters("senc")) ||
                          trak.has(fourLetters("senc"));
    if (m_tracks.size() == mostTracks)
        return;
    if (samples.count > 0 && track.entries.size() == 1)
        judge(track, id, samples, region);
    m_tracks[id] = std::move(track);
}

Mp4Scan::Groups Mp4Scan::readGroups(const View& container) {
    auto [version, sgpd] = findGroupBox(container, fourLetters("sgpd"));
    Groups groups;
    const std::size_t length = version >= 1 ? sgpd.take32() : 0;
    if (version >= 2)
        groups.defaultIndex = sgpd.take32();
    const auto count = std::min<std::size_t>(sgpd.take32(), mostDescriptions);
    while (groups.descriptions.size() < count && sgpd.size > 0) {
        std::size_t size = sgpd.size; // of all there is, in what is out of use
        if (version >= 1)
            size = length == 0 ? sgpd.take32() : length;
        groups.descriptions.push_back(readProtection(View{sgpd.data, std::min(size, sgpd.size)}));
        sgpd.skip(size);
    }
    return groups;
}

void Mp4Scan::takeFragment(std::uint64_t begin, const View& moof) {
    Region region;
    region.begin = begin;
    ++m_fragments;
    moof.forEach(fourLetters("traf"),
                 [&](const View& traf) { takeTrackFragment(begin, traf, region); });
    add(std::move(region));
}

void Mp4Scan::takeTrackFragment(std::uint64_t begin, const View& traf, Region& region) {
    auto tfhd = traf.find(fourLetters("tfhd"));
    const auto flags = tfhd.take32();
    const auto id = tfhd.take32();
    const auto found = m_tracks.find(id);
    if (found == m_tracks.end())
        return;
    auto& track = found->second;
    const auto base = (flags & 1) != 0 ? tfhd.take(8) : begin;
    Samples samples;
    samples.entry = (flags & 2) != 0 ? tfhd.take32() : track.entry;
    const auto duration = (flags & 8) != 0 ? tfhd.take32() : track.duration;
    auto tfdt = traf.find(fourLetters("tfdt"));
    double dts = track.nextDts;
    if (tfdt.data != nullptr)
        dts = static_cast<double>(tfdt.take(tfdt.take(4) >> 24 == 1 ? 8 : 4));
    traf.forEach(fourLetters("trun"),
                 [&](const View& trun) { samples.count += takeRun(trun, track, dts, duration); });
    track.nextDts = dts;

    samples.groups = readGroups(traf);
    samples.runs = groupRuns(traf);
    samples.haveVectors = traf.has(fourLetters("saiz")) || traf.has(fourLetters("senc"));
    if (samples.count > 0)
        judge(track, id, samples, region);
    if (base < begin && region.tracks.count(id) > 0)
        region.everywhere = std::make_shared<TrackProtection>(
            faulty("encrypted samples stand in front of their 'moof'"));
}

/// Answers the number of samples.
std::uint32_t Mp4Scan::takeRun(const View& trun, Track& track, double& dts,
                               std::uint32_t defaultDuration) {
    constexpr std::uint32_t durations = 0x100, sizes = 0x200, sampleFlags = 0x400, offsets = 0x800;
    View body = trun;
    const auto flags = body.take32();
    const auto count = body.take32();
    body.skip(((flags & 1) != 0 ? 4 : 0) + ((flags & 4) != 0 ? 4 : 0));
    if ((flags & (durations | offsets)) == 0) {
        dts += static_cast<double>(defaultDuration) * count;
        track.end = std::max(track.end, dts);
        return count;
    }
    for (auto left = count; left > 0 && body.size > 0; --left) {
        const auto duration = (flags & durations) != 0 ? body.take32() : defaultDuration;
        body.skip(((flags & sizes) != 0 ? 4 : 0) + ((flags & sampleFlags) != 0 ? 4 : 0));
        const auto offset = (flags & offsets) != 0 ? static_cast<std::int32_t>(body.take32()) : 0;
        dts += duration;
        track.end = std::max(track.end, dts + offset);
    }
    return count;
}

/// One for all, or why there is none.
TrackProtection Mp4Scan::protectionOf(const Track& track, const Samples& samples) {
    constexpr std::uint32_t fragmentGroups = 0x10000; // indices of a fragment's own come behind
    const auto describe = [&](std::uint32_t index) {
        const bool own = index > fragmentGroups;
        if (index == 0)
            index = track.groups.defaultIndex;
        if (index == 0)
            return samples.entry - 1 < track.entries.size() ? track.entries[samples.entry - 1]
                                                            : TrackProtection();
        const auto& all = own ? samples.groups.descriptions : track.groups.descriptions;
        const auto at = index - 1 - (own ? fragmentGroups : 0);
        if (at >= all.size())
            return faulty("the sample group 'seig' of encrypted samples is not described ('sgpd')");
        auto protection = all[at];
        if (!track.entries.empty())
            protection.scheme = track.entries[0].scheme;
        return protection;
    };
    const auto rest =
        samples.groups.defaultIndex > 0 ? fragmentGroups + samples.groups.defaultIndex : 0;

    View runs = samples.runs;
    std::uint64_t left = samples.count;
    std::optional<TrackProtection> found;
    std::optional<std::uint32_t> latest;
    for (auto count = runs.take32(); left > 0;) {
        const bool named = count > 0 && runs.size > 0;
        const auto size = named ? std::min<std::uint64_t>(runs.take32(), left) : left;
        const auto index = named ? runs.take32() : 0U;
        count -= named ? 1 : 0;
        left -= size;
        if (size == 0 || index == latest)
            continue;
        latest = index;
        auto protection = describe(index == 0 ? rest : index);
        if (!protection.fault.empty())
            return protection;
        if (found && !isSame(*found, protection))
            return faulty("samples of one fragment are in several sample groups 'seig', with "
                          "different keys or partly clear");
        found = std::move(protection);
    }
    return *found;
}

/// libavformat tells of encryption what the first sample description and the samples' own vectors
/// say; where that is not all, the region gets it.
void Mp4Scan::judge(const Track& track, std::uint32_t id, const Samples& samples, Region& region) {
    auto wanted = protectionOf(track, samples);
    const auto told = track.entries.empty() ? TrackProtection() : track.entries[0];
    if (wanted.fault.empty() && wanted.encrypted) {
        if (samples.entry != 1)
            wanted.fault = "encrypted samples have not the first sample description";
        else if (samples.haveVectors ? wanted.ivSize != told.ivSize
                                     : wanted.constantIv.empty() || wanted.scheme != cbcs)
            wanted.fault = samples.haveVectors
                               ? "the sample group 'seig' has vectors of another size than 'tenc'"
                               : "encrypted samples have no initialization vectors";
    }
    const bool known =
        wanted.encrypted ? samples.haveVectors && isSame(wanted, told) : !told.encrypted;
    if (!known || !wanted.fault.empty())
        region.tracks[id] = std::make_shared<TrackProtection>(std::move(wanted));
}

void Mp4Scan::add(Region region) {
    const auto isPlain = [](const Region& candidate) {
        return candidate.tracks.empty() && candidate.everywhere == nullptr;
    };
    if (!isPlain(region) || (!m_regions.empty() && !isPlain(m_regions.back())))
        m_regions.push_back(std::move(region));
}

std::shared_ptr<const TrackProtection> Mp4Scan::protectionAt(std::uint64_t position,
                                                             std::uint32_t track) const {
    static const auto unindexed = std::make_shared<const TrackProtection>(
        faulty("its encrypted fragments have no index (one 'sidx' of them all, in front), without "
               "which libavformat confuses their vectors; package it anew with one"));
    const bool alone = m_ended && m_fragments == 1;
    if (m_indexed < m_fragments && !alone && isEncrypted(track))
        return unindexed;
    const auto behind = std::upper_bound(
        m_regions.begin(), m_regions.end(), position,
        [](std::uint64_t place, const Region& region) { return place < region.begin; });
    if (behind == m_regions.begin())
        return nullptr;
    const auto& region = *std::prev(behind);
    if (region.everywhere != nullptr)
        return region.everywhere;
    const auto found = region.tracks.find(track);
    return found == region.tracks.end() ? nullptr : found->second;
}

bool Mp4Scan::isEncrypted(std::uint32_t track) const {
    const auto found = m_tracks.find(track);
    return found != m_tracks.end() &&
           std::any_of(found->second.entries.begin(), found->second.entries.end(),
                       [](const TrackProtection& entry) { return entry.encrypted; });
}

std::optional<double> Mp4Scan::endOf(std::uint32_t track) const {
    const auto found = m_tracks.find(track);
    if (!m_ended || !m_fragmented || found == m_tracks.end() || found->second.end == 0)
        return std::nullopt;
    return found->second.end / found->second.timescale + found->second.shift;
}

} // namespace host
