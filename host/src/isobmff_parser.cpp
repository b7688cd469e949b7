#include "isobmff_parser.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace host {

namespace {

constexpr std::uint64_t lastByte = std::numeric_limits<std::uint64_t>::max();

bool isHeldWhole(std::uint32_t type) {
    return type == fourLetters("moov") || type == fourLetters("moof") ||
           type == fourLetters("emsg");
}

bool isType(std::uint32_t type) {
    for (int shift = 24; shift >= 0; shift -= 8)
        if (const auto letter = type >> shift & 0xff; letter < ' ' || letter > '~')
            return false;
    return true;
}

double secondsOf(std::int64_t time, const MovieTrack& track) {
    return static_cast<double>(time + track.shift) / track.timescale;
}

} // namespace

bool IsobmffParser::step() {
    switch (m_step) {
    case Step::Header:
        return readHeader();
    case Step::Box:
        return readBox();
    case Step::Skip:
        return skipBox();
    case Step::Media:
        return readMedia();
    }
    return false;
}

void IsobmffParser::continueAt(std::uint64_t position) {
    restartAt(position);
    m_step = Step::Header;
    m_events.clear();
    m_fragment.reset();
    m_fragmentBytes.reset();
    m_waiting.clear();
    m_nextDts.clear();
}

bool IsobmffParser::readHeader() {
    constexpr std::size_t header = 8, longHeader = 16;
    const auto* bytes = m_bytes.peek(header);
    if (bytes == nullptr)
        return false;
    const auto position = m_bytes.position();
    BoxReader reader(bytes, header, 0, position, 0);
    std::uint64_t size = reader.u32();
    m_box = {reader.u32(), position, header, 0};
    if (!isType(m_box.type))
        throw StreamFault{"there is no box at byte " + std::to_string(position)};
    if (size == 1) {
        bytes = m_bytes.peek(longHeader);
        if (bytes == nullptr)
            return false;
        m_box.headerSize = longHeader;
        size = BoxReader(bytes + header, longHeader - header, m_box.type, position, header).u64();
    } else if (size == 0) {
        if (m_rules == StreamRules::MediaSource)
            m_box.fail("does not tell its size");
        size = lastByte - position;
    }
    if (size < m_box.headerSize || size > lastByte - position)
        m_box.fail("has an impossible size");
    m_box.end = position + size;
    begin();
    return true;
}

/// A box whose header is known.
void IsobmffParser::begin() {
    const bool isMoov = m_box.type == fourLetters("moov"),
               isMoof = m_box.type == fourLetters("moof");
    const bool isStart = m_box.type == fourLetters("ftyp") || m_box.type == fourLetters("styp");
    if (isMoov || isMoof || isStart)
        endFragment();
    const bool isMdat = m_box.type == fourLetters("mdat");
    if (m_movie == nullptr && (isMoof || (isMdat && m_rules == StreamRules::MediaSource)))
        m_box.fail("comes before an initialization segment ('moov')");
    if (isMoov || m_box.type == fourLetters("ftyp"))
        m_state = State::InitSegment;
    else if (isMoof || m_box.type == fourLetters("styp"))
        m_state = State::MediaSegment;
    m_step = Step::Skip;
    if (isMdat && m_fragment) {
        m_step = Step::Media;
    } else if (isHeldWhole(m_box.type)) {
        if (m_box.size() > largestPart)
            m_box.fail("is too large: " + std::to_string(m_box.size()) + " bytes");
        m_step = Step::Box;
        return;
    }
    m_bytes.skip(m_box.headerSize);
}

bool IsobmffParser::readBox() {
    const auto size = static_cast<std::size_t>(m_box.size());
    if (m_bytes.peek(size) == nullptr)
        return false;
    const auto bytes = m_bytes.take(size);
    const auto box = m_box.reader(bytes.get() + m_box.headerSize);
    m_step = Step::Header;
    if (m_box.type == fourLetters("moov")) {
        takeMovie(box);
    } else if (m_box.type == fourLetters("emsg")) {
        takeEvent(box);
    } else {
        m_fragmentBytes = bytes;
        takeFragment(box);
    }
    return true;
}

bool IsobmffParser::skipBox() {
    if (!skipTo(m_box.end))
        return false;
    m_step = Step::Header;
    return true;
}

void IsobmffParser::takeMovie(const BoxReader& moov) {
    m_movie = std::make_shared<const Movie>(readMovie(moov));
    m_nextDts.clear();
    InitSegment segment;
    segment.duration = m_movie->duration;
    segment.initData = m_movie->initData;
    for (const auto& track : m_movie->tracks) {
        const auto& entry = track.entries.front();
        if (!entry.fault.empty() && m_rules == StreamRules::MediaSource)
            moov.fail("is refused: " + entry.fault);
        TrackDescription description;
        description.id = track.id;
        description.info = {track.kind, entry.mimeType, entry.codec,
                            std::isfinite(segment.duration) ? segment.duration : 0};
        description.codecs = entry.codecs;
        description.language = track.language;
        description.label = track.label;
        description.config = entry.config;
        if (entry.encryption && entry.encryption->encrypted) {
            description.scheme = entry.encryption->scheme;
            description.keyId = entry.encryption->keyId;
        }
        segment.tracks.push_back(std::move(description));
    }
    m_state = State::Waiting;
    flush();
    m_output.onInit(std::move(segment));
}

void IsobmffParser::takeEvent(BoxReader emsg) {
    const auto version = emsg.versionAndFlags().version;
    if (version > 1)
        return;
    EventMessage event;
    std::uint32_t timescale = 0, duration = 0;
    std::uint64_t time = 0;
    const auto readTimes = [&] {
        timescale = emsg.u32();
        time = version == 1 ? emsg.u64() : emsg.u32();
        duration = emsg.u32();
        event.id = emsg.u32();
    };
    if (version == 1)
        readTimes();
    event.schemeIdUri = emsg.text();
    event.value = emsg.text();
    if (version == 0)
        readTimes();
    if (timescale == 0)
        emsg.fail("has the timescale 0");
    event.presentationTime = static_cast<double>(time) / timescale;
    event.duration = duration == std::numeric_limits<std::uint32_t>::max()
                         ? std::numeric_limits<double>::infinity()
                         : static_cast<double>(duration) / timescale;
    event.data.assign(emsg.data(), emsg.data() + emsg.left());
    flush();
    if (version == 0)
        m_events.push_back(std::move(event));
    else
        m_output.onEvent(std::move(event));
}

void IsobmffParser::takeFragment(const BoxReader& moof) {
    m_fragment = readFragment(moof, *m_movie, m_rules, m_nextDts);
    flush();
    for (auto& data : m_fragment->initData)
        m_output.onInitData(std::move(data));
    for (auto& event : std::exchange(m_events, {})) {
        event.presentationTime += m_fragment->runs.empty() ? 0 : m_fragment->start;
        m_output.onEvent(std::move(event));
    }
    const auto& runs = m_fragment->runs;
    m_extents.clear();
    m_extent = 0;
    m_isOrdered = true;
    std::map<const MovieTrack*, std::uint64_t> ends;
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const auto& run = runs[i];
        m_extents.push_back({run.position, i, false});
        auto& end = ends[run.fragment->track];
        m_isOrdered = m_isOrdered && run.position >= end;
        end = run.position + run.size;
        if (run.vectorsSize == 0)
            continue;
        m_extents.push_back({run.vectorsPosition, i, true});
        m_isOrdered = m_isOrdered && run.vectorsPosition < run.position;
    }
    std::stable_sort(
        m_extents.begin(), m_extents.end(),
        [](const Extent& left, const Extent& right) { return left.position < right.position; });
}

/// In an 'mdat'.
bool IsobmffParser::readMedia() {
    while (m_extent < m_extents.size() && m_extents[m_extent].position < m_box.end) {
        const auto extent = m_extents[m_extent];
        auto& run = m_fragment->runs[extent.run];
        const auto begin = extent.isVectors ? run.vectorsPosition : run.position;
        if (begin < m_bytes.position())
            throw StreamFault{"the samples at byte " + std::to_string(begin) +
                              " are not in an 'mdat' of their own"};
        if (!skipTo(begin))
            return false;
        if (!(extent.isVectors ? takeVectors(run) : takeSamples(extent.run)))
            return false;
        ++m_extent;
    }
    if (!skipBox())
        return false;
    if (m_extent == m_extents.size())
        endFragment();
    return true;
}

bool IsobmffParser::takeVectors(SampleRun& run) {
    const auto size = run.vectorsSize;
    if (size > m_box.end - m_bytes.position())
        m_box.fail("ends before the vectors of its samples");
    if (m_bytes.peek(size) == nullptr)
        return false;
    run.vectorsBytes = m_bytes.take(size);
    run.vectors.setBytes(
        BoxReader(run.vectorsBytes.get(), size, m_box.type, run.vectorsPosition, 0));
    return true;
}

/// Of a run, those that are there.
bool IsobmffParser::takeSamples(std::size_t index) {
    auto& run = m_fragment->runs[index];
    while (run.samples.left() > 0) {
        const auto size = run.samples.nextSize();
        if (size > m_box.end - m_bytes.position())
            m_box.fail("ends before its last sample");
        if (size > largestPart)
            m_box.fail("has a sample of " + std::to_string(size) + " bytes, which is too large");
        if (m_bytes.peek(size) == nullptr)
            return false;
        takeSample(run, index);
        run.position = m_bytes.position();
    }
    return true;
}

void IsobmffParser::takeSample(SampleRun& run, std::size_t index) {
    const auto& track = *run.fragment->track;
    const auto& description = *run.fragment->description;
    const auto told = run.samples.next();
    const auto payload = m_bytes.take(told.size);
    if (told.size == 0 || !description.fault.empty())
        return;
    CodedFrame frame;
    frame.track = track.id;
    auto& sample = frame.sample;
    sample.pts = secondsOf(told.pts, track);
    sample.dts = secondsOf(told.dts, track);
    sample.duration = static_cast<double>(told.duration) / track.timescale;
    sample.keyFrame = told.isSync || track.kind == StreamInfo::Kind::Audio;
    sample.config = description.config;
    if (description.adts)
        prependAdts(*description.adts, payload.get(), told.size, sample);
    else
        sample.payload = payload;
    if (!description.adts)
        sample.size = told.size;
    if (m_isOrdered)
        addTo(run, std::move(frame));
    else
        m_waiting.push_back({index, std::move(frame)});
}

void IsobmffParser::prependAdts(const AdtsFormat& format, const std::uint8_t* bytes,
                                std::size_t size, SampleData& sample) {
    if (size > maximumAdtsPayload)
        throw StreamFault{"the AAC frame in front of byte " + std::to_string(m_bytes.position()) +
                          " is too long for an ADTS header: " + std::to_string(size) + " bytes"};
    const auto header = adtsHeader(format, size);
    const auto frame = m_memory.take(header.size() + size);
    std::copy_n(bytes, size, std::copy(header.begin(), header.end(), frame.get()));
    sample.payload = frame;
    sample.size = header.size() + size;
}

/// The next one of its run. Its vectors are there.
void IsobmffParser::addTo(SampleRun& run, CodedFrame frame) {
    const auto& fragment = *run.fragment;
    if (fragment.mayBeEncrypted) {
        auto& protection = frame.sample.protection;
        protection = run.vectors.read(fragment.encryptionOf(run.groups.next()));
        const std::size_t header = fragment.description->adts ? adtsHeaderSize : 0;
        const auto size = frame.sample.size - header;
        if (!covers(protection.subsamples, size))
            throw StreamFault{"the encrypted ranges of the sample in front of byte " +
                              std::to_string(m_bytes.position()) + " do not make up the sample"};
        if (header > 0)
            prependClear(header, size, protection);
    }
    add(std::move(frame));
}

/// If there is one.
void IsobmffParser::endFragment() {
    if (!m_fragment)
        return;
    if (m_extent < m_extents.size())
        throw StreamFault{"the samples at byte " + std::to_string(m_extents[m_extent].position) +
                          ", of which a 'moof' tells, are not there"};
    std::stable_sort(
        m_waiting.begin(), m_waiting.end(),
        [](const Waiting& left, const Waiting& right) { return left.run < right.run; });
    for (auto& waiting : std::exchange(m_waiting, {}))
        addTo(m_fragment->runs[waiting.run], std::move(waiting.frame));
    flush();
    m_fragment.reset();
    m_fragmentBytes.reset();
    m_state = State::Waiting;
    m_output.onSegmentEnd();
}

} // namespace host
