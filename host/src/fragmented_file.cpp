#include "fragmented_file.h"

#include "box_source.h"
#include "isobmff_fragment.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

namespace host {

namespace {

constexpr StreamInfo::Kind kinds[] = {StreamInfo::Kind::Audio, StreamInfo::Kind::Video};

class Indexer {
public:
    explicit Indexer(FileBytes& bytes) : m_bytes(bytes), m_boxes(bytes) {}

    std::optional<FragmentedFile> run();

private:
    bool take(const OuterBox& header);
    void takeMovie(const BoxReader& moov);
    void takeFragment(const BoxReader& moof);
    void takeIndex(BoxReader sidx, std::uint64_t end);
    void takeRandomAccess();
    void takeRandomAccess(BoxReader tfra);
    void addEverywhere(double time, std::uint64_t position);
    FragmentedFile::Track* trackFor(const MovieTrack& track);

    FileBytes& m_bytes;
    BoxSource m_boxes;
    FragmentedFile m_file;
    std::shared_ptr<const Movie> m_movie;
    std::map<std::uint32_t, std::int64_t> m_nextDts;
    bool m_hasFragment = false;
    bool m_hasIndex = false;
};

std::optional<FragmentedFile> Indexer::run() {
    const bool isWhole = m_bytes.isLocal();
    try {
        while (isWhole || !m_hasFragment) {
            const auto header = m_boxes.next();
            if (!header || !take(*header))
                break;
        }
        if (!isWhole && m_hasFragment && !m_hasIndex)
            takeRandomAccess();
    } catch (const StreamFault&) {
        // What is read comes upon it too, and tells of it.
        if (!m_hasFragment)
            return std::nullopt;
    }
    if (m_movie == nullptr || m_file.tracks.empty())
        return std::nullopt;
    if (!std::isfinite(m_file.start))
        m_file.start = 0;
    for (auto& track : m_file.tracks)
        track.info.duration = track.end;
    return std::move(m_file);
}

/// A file that is none of boxes ends here.
bool canBegin(std::uint32_t type) {
    constexpr std::uint32_t types[] = {
        fourLetters("ftyp"), fourLetters("styp"), fourLetters("moov"), fourLetters("mdat"),
        fourLetters("sidx"), fourLetters("emsg"), fourLetters("free"), fourLetters("skip"),
        fourLetters("wide"), fourLetters("pdin"), fourLetters("uuid")};
    return std::find(std::begin(types), std::end(types), type) != std::end(types);
}

/// False: no more is to be looked at.
bool Indexer::take(const OuterBox& header) {
    if (header.position == 0 && !canBegin(header.type))
        return false;
    const bool isMoov = header.type == fourLetters("moov");
    const bool isMoof = header.type == fourLetters("moof");
    const bool isIndex = header.type == fourLetters("sidx") && !m_bytes.isLocal() && m_movie;
    if (isMoof && m_movie == nullptr)
        return false;
    if (!isMoov && !isMoof && !isIndex)
        return true;
    const auto body = m_boxes.bodyOf(header);
    const auto box = header.reader(body.data());
    if (isMoov) {
        takeMovie(box);
        m_file.movies.push_back(
            {header.position, static_cast<std::size_t>(header.end - header.position)});
    } else if (isMoof) {
        takeFragment(box);
    } else {
        takeIndex(box, header.end);
    }
    return true;
}

void Indexer::takeMovie(const BoxReader& moov) {
    const bool isFirst = m_movie == nullptr;
    m_movie = std::make_shared<const Movie>(readMovie(moov));
    m_nextDts.clear();
    if (!isFirst)
        return;
    m_file.start = std::numeric_limits<double>::infinity();
    const auto duration = std::isfinite(m_movie->duration) ? m_movie->duration : 0;
    for (const auto kind : kinds)
        if (const auto* track = findTrack(*m_movie, kind)) {
            const auto& entry = track->entries.front();
            m_file.tracks.push_back(
                {{kind, entry.mimeType, entry.codec, 0}, {}, m_bytes.isLocal() ? 0 : duration});
        }
}

FragmentedFile::Track* Indexer::trackFor(const MovieTrack& track) {
    if (findTrack(*m_movie, track.kind) != &track)
        return nullptr;
    const auto found = std::find_if(m_file.tracks.begin(), m_file.tracks.end(),
                                    [&](const auto& one) { return one.info.kind == track.kind; });
    return found == m_file.tracks.end() ? nullptr : &*found;
}

void Indexer::takeFragment(const BoxReader& moof) {
    moof.forEach(fourLetters("traf"), [this](const BoxReader& traf) {
        m_file.hasTimes = m_file.hasTimes && traf.find(fourLetters("tfdt")).has_value();
    });
    auto fragment = readFragment(moof, *m_movie, StreamRules::File, m_nextDts);
    m_hasFragment = true;
    m_file.start = std::min(m_file.start, fragment.start);
    for (auto& run : fragment.runs) {
        const auto& media = *run.fragment->track;
        auto* track = trackFor(media);
        if (track == nullptr)
            continue;
        const auto seconds = [&](std::int64_t time) {
            return static_cast<double>(time + media.shift) / media.timescale;
        };
        while (run.samples.left() > 0) {
            const auto sample = run.samples.next();
            const bool isStart = sample.isSync || media.kind == StreamInfo::Kind::Audio;
            const bool isKnown =
                !track->starts.empty() && track->starts.back().position == moof.position();
            if (isStart && !isKnown && !m_hasIndex)
                track->starts.push_back(
                    {seconds(sample.dts), moof.position(), m_file.movies.size() - 1});
            track->end = std::max(track->end, seconds(sample.pts + sample.duration));
        }
    }
}

void Indexer::addEverywhere(double time, std::uint64_t position) {
    for (auto& track : m_file.tracks)
        track.starts.push_back({time, position, 0});
}

/// Of all that follows, in one.
void Indexer::takeIndex(BoxReader sidx, std::uint64_t end) {
    const bool isLong = sidx.versionAndFlags().version != 0;
    sidx.skip(4);
    const double timescale = sidx.u32();
    auto time = isLong ? sidx.u64() : sidx.u32();
    auto position = end + (isLong ? sidx.u64() : sidx.u32());
    sidx.skip(2);
    if (m_hasIndex || timescale == 0)
        return;
    for (auto count = sidx.u16(); count > 0; --count) {
        const auto reference = sidx.u32();
        const auto duration = sidx.u32();
        sidx.skip(4);
        if (reference >> 31 != 0)
            return; // to another index
        addEverywhere(static_cast<double>(time) / timescale, position);
        time += duration;
        position += reference;
        m_hasIndex = true;
    }
    for (auto& track : m_file.tracks)
        track.end = std::max(track.end, static_cast<double>(time) / timescale);
}

/// The box 'mfra' at the end of the file.
void Indexer::takeRandomAccess() {
    constexpr std::size_t footer = 4;
    std::array<std::uint8_t, footer> bytes = {};
    const auto size = m_bytes.size();
    if (size < footer || m_bytes.read(size - footer, bytes.data(), footer) != footer)
        return;
    const auto length = BoxReader(bytes.data(), footer, 0, 0, 0).u32();
    if (length < footer || length > size)
        return;
    m_boxes.goTo(size - length);
    const auto header = m_boxes.next();
    if (!header || header->type != fourLetters("mfra") || header->end != size)
        return;
    const auto body = m_boxes.bodyOf(*header);
    const auto mfra = header->reader(body.data());
    mfra.forEach(fourLetters("tfra"), [this](const BoxReader& tfra) { takeRandomAccess(tfra); });
}

void Indexer::takeRandomAccess(BoxReader tfra) {
    const bool isLong = tfra.versionAndFlags().version == 1;
    const auto* media = m_movie->find(tfra.u32());
    auto* track = media == nullptr ? nullptr : trackFor(*media);
    if (track == nullptr)
        return;
    track->starts.clear();
    const auto lengths = tfra.u32();
    const std::size_t numbers = (lengths >> 4 & 3) + 1 + (lengths >> 2 & 3) + 1 + (lengths & 3) + 1;
    for (auto count = tfra.u32(); count > 0; --count) {
        const auto time = static_cast<double>(isLong ? tfra.u64() : tfra.u32());
        const auto position = isLong ? tfra.u64() : tfra.u32();
        tfra.skip(numbers);
        track->starts.push_back(
            {(time + static_cast<double>(media->shift)) / media->timescale, position, 0});
    }
}

} // namespace

const MovieTrack* findTrack(const Movie& movie, StreamInfo::Kind kind) {
    const auto found =
        std::find_if(movie.tracks.begin(), movie.tracks.end(), [kind](const MovieTrack& track) {
            return track.kind == kind && track.entries.front().fault.empty();
        });
    return found == movie.tracks.end() ? nullptr : &*found;
}

std::optional<FragmentedFile> indexFragments(FileBytes& bytes) {
    return Indexer(bytes).run();
}

} // namespace host
