#include "isobmff_movie.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>

namespace host {

namespace {

constexpr std::size_t mostTracks = 256;
constexpr std::size_t mostDescriptions = 4096;

/// Behind creation and modification time.
unsigned int skipTimes(BoxReader& box) {
    const auto version = box.versionAndFlags().version;
    box.skip(version == 1 ? 16 : 8);
    return version;
}

std::uint32_t readTimescale(BoxReader& box) {
    const auto timescale = box.u32();
    if (timescale == 0)
        box.fail("has the timescale 0");
    return timescale;
}

std::optional<StreamInfo::Kind> readKind(BoxReader hdlr, std::string& label) {
    hdlr.skip(8);
    const auto handler = hdlr.u32();
    hdlr.skip(12);
    label = hdlr.text();
    if (handler == fourLetters("vide"))
        return StreamInfo::Kind::Video;
    if (handler == fourLetters("soun"))
        return StreamInfo::Kind::Audio;
    return std::nullopt;
}

/// Three letters of five bits each; empty for "und".
std::string languageOf(std::uint16_t packed) {
    std::string language;
    for (int shift = 10; shift >= 0; shift -= 5)
        language += static_cast<char>((packed >> shift & 31) + 0x60);
    const bool isCode = std::all_of(language.begin(), language.end(),
                                    [](char letter) { return letter >= 'a' && letter <= 'z'; });
    return isCode && language != "und" ? language : "";
}

/// What edits put in front, less what they cut off there.
std::int64_t readShift(BoxReader elst, std::uint32_t movieTimescale, std::uint32_t timescale) {
    constexpr double most = 1e15;
    const bool isLong = elst.versionAndFlags().version == 1;
    double shift = 0;
    for (auto count = elst.u32(); count > 0; --count) {
        const auto duration = isLong ? elst.u64() : elst.u32();
        const auto time = isLong ? static_cast<std::int64_t>(elst.u64())
                                 : std::int64_t{static_cast<std::int32_t>(elst.u32())};
        elst.skip(4); // rate
        if (time >= 0) {
            shift -= static_cast<double>(time);
            break;
        }
        shift += static_cast<double>(duration) * timescale / movieTimescale;
    }
    if (std::abs(shift) > most)
        elst.fail("moves the track too far");
    return std::llround(shift);
}

/// They would have to be read as those of a file.
void refuseSamples(const BoxReader& stbl) {
    for (const auto type :
         {fourLetters("stts"), fourLetters("stsc"), fourLetters("stco"), fourLetters("co64")}) {
        auto table = stbl.find(type);
        if (!table)
            continue;
        table->skip(4);
        if (table->u32() > 0)
            table->fail("describes samples; a media source takes those of fragments alone");
    }
}

void refuseExternalData(const BoxReader& minf) {
    const auto dinf = minf.find(fourLetters("dinf"));
    auto dref = dinf ? dinf->find(fourLetters("dref")) : std::nullopt;
    if (!dref)
        return;
    dref->skip(8);
    while (auto entry = dref->next())
        if ((entry->versionAndFlags().flags & 1) == 0)
            entry->fail("refers to media in another file");
}

std::optional<MovieTrack> readTrack(const BoxReader& trak, std::uint32_t movieTimescale) {
    MovieTrack track;
    auto tkhd = trak.need(fourLetters("tkhd"));
    skipTimes(tkhd);
    track.id = tkhd.u32();
    const auto mdia = trak.need(fourLetters("mdia"));
    const auto kind = readKind(mdia.need(fourLetters("hdlr")), track.label);
    const auto minf = mdia.need(fourLetters("minf"));
    const auto stbl = minf.need(fourLetters("stbl"));
    refuseSamples(stbl);
    if (!kind)
        return std::nullopt;
    track.kind = *kind;
    auto mdhd = mdia.need(fourLetters("mdhd"));
    const auto version = skipTimes(mdhd);
    track.timescale = readTimescale(mdhd);
    mdhd.skip(version == 1 ? 8 : 4);
    track.language = languageOf(mdhd.u16());
    if (auto elng = mdia.find(fourLetters("elng"))) {
        elng->skip(4);
        track.language = elng->text();
    }
    const auto edts = trak.find(fourLetters("edts"));
    if (const auto elst = edts ? edts->find(fourLetters("elst")) : std::nullopt)
        track.shift = readShift(*elst, movieTimescale, track.timescale);
    refuseExternalData(minf);
    auto stsd = stbl.need(fourLetters("stsd"));
    stsd.skip(8);
    while (const auto entry = stsd.next()) {
        if (track.entries.size() == mostDescriptions)
            stsd.fail("has too many descriptions");
        track.entries.push_back(readSampleEntry(*entry, track.kind));
    }
    if (track.entries.empty())
        stsd.fail("describes no samples");
    track.groups = readEncryptionGroups(stbl);
    nameScheme(track.groups, track.entries, stbl);
    return track;
}

void readDefaults(BoxReader trex, Movie& movie) {
    trex.skip(4);
    const auto id = trex.u32();
    movie.fragmented.insert(id);
    for (auto& track : movie.tracks) {
        if (track.id != id)
            continue;
        track.defaults.entry = trex.u32();
        track.defaults.duration = trex.u32();
        track.defaults.size = trex.u32();
        track.defaults.flags = trex.u32();
    }
}

/// In the movie's timescale; 0: not said.
std::uint64_t readDuration(BoxReader& box, unsigned int version) {
    const auto duration = version == 1 ? box.u64() : box.u32();
    const auto unknown =
        version == 1 ? ~std::uint64_t{0} : std::numeric_limits<std::uint32_t>::max();
    return duration == unknown ? 0 : duration;
}

} // namespace

const MovieTrack* Movie::find(std::uint32_t id) const {
    const auto found = std::find_if(tracks.begin(), tracks.end(),
                                    [id](const MovieTrack& track) { return track.id == id; });
    return found == tracks.end() ? nullptr : &*found;
}

void nameScheme(EncryptionGroups& groups, const std::vector<SampleDescription>& entries,
                const BoxReader& box) {
    const auto named = std::find_if(entries.begin(), entries.end(),
                                    [](const auto& entry) { return entry.encryption.has_value(); });
    for (auto& group : groups.descriptions) {
        if (group.encrypted && named == entries.end())
            box.fail("has keys for samples whose description names no protection scheme");
        if (group.encrypted)
            group.scheme = named->encryption->scheme;
    }
}

Movie readMovie(const BoxReader& moov) {
    Movie movie;
    auto mvhd = moov.need(fourLetters("mvhd"));
    const auto version = skipTimes(mvhd);
    const auto timescale = readTimescale(mvhd);
    auto duration = readDuration(mvhd, version);
    const auto mvex = moov.find(fourLetters("mvex"));
    if (!mvex)
        moov.fail("has no 'mvex': the file is not fragmented, which a media source needs; package "
                  "it anew in fragments");
    if (auto mehd = mvex->find(fourLetters("mehd"))) {
        const auto mehdVersion = mehd->versionAndFlags().version;
        if (const auto whole = readDuration(*mehd, mehdVersion); whole > 0)
            duration = whole;
    }
    movie.duration = duration == 0 ? std::numeric_limits<double>::infinity()
                                   : static_cast<double>(duration) / timescale;
    moov.forEach(fourLetters("trak"), [&](const BoxReader& trak) {
        auto track = readTrack(trak, timescale);
        if (track && movie.find(track->id) != nullptr)
            trak.fail("has the number of another track");
        if (track && movie.tracks.size() == mostTracks)
            trak.fail("is one of too many tracks");
        if (track)
            movie.tracks.push_back(std::move(*track));
    });
    mvex->forEach(fourLetters("trex"), [&](const BoxReader& trex) { readDefaults(trex, movie); });
    for (const auto& track : movie.tracks)
        if (movie.fragmented.count(track.id) == 0)
            mvex->fail("has no 'trex' for the track " + std::to_string(track.id));
    movie.initData = readInitData(moov);
    return movie;
}

} // namespace host
