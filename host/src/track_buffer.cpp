#include "host/track_buffer.h"

#include "locks/mutex.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>

namespace host {

namespace {

constexpr double smallestGap = 0.15; // seconds; shorter ones are played over
constexpr double rounding = 0.001;   // seconds; of times in files
constexpr double gapInFrames = 2;    // ... of the longest frame
constexpr std::uint64_t neverRead = 0;

bool hasNoTimes(const BufferedFrame& frame) {
    return !std::isfinite(frame.sample.pts) || !std::isfinite(frame.sample.dts) ||
           std::isinf(frame.sample.duration);
}

struct Entry {
    BufferedFrame frame;
    std::uint64_t readBy = neverRead; ///< the round of reading that has handed it over

    double begin() const { return frame.sample.pts; }
    double end() const { return begin() + std::max(0.0, frame.sample.duration); }
    double decodedUntil() const { return frame.sample.dts + std::max(0.0, frame.sample.duration); }
};

/// What is decoded from one key frame.
struct Group {
    std::vector<Entry> entries; ///< in the order of their sequences; never empty
    double begin = std::numeric_limits<double>::infinity(); ///< of the presentation, seconds
    double end = -begin;

    bool startsWithKeyFrame() const {
        const auto& first = entries.front().frame;
        return first.sequence == first.group && first.sample.keyFrame;
    }
    void add(Entry entry) {
        begin = std::min(begin, entry.begin());
        end = std::max(end, entry.end());
        entries.insert(behind(entry.frame.sequence), std::move(entry));
    }
    /// Once some were taken out.
    void measure() {
        begin = std::numeric_limits<double>::infinity();
        end = -begin;
        for (const auto& entry : entries) {
            begin = std::min(begin, entry.begin());
            end = std::max(end, entry.end());
        }
    }
    std::vector<Entry>::iterator behind(std::uint64_t sequence) {
        return std::upper_bound(
            entries.begin(), entries.end(), sequence,
            [](std::uint64_t s, const Entry& entry) { return s < entry.frame.sequence; });
    }
};

/// Groups in the order in which they are played: by the time of their first frame. That is the key
/// frame: pictures that are decoded behind it and shown before it do not count.
struct Place {
    double time = 0;
    std::uint64_t group = 0;

    bool operator<(const Place& other) const {
        return time != other.time ? time < other.time : group < other.group;
    }
};
using Groups = std::map<Place, Group>;

/// Where reading is.
struct Cursor {
    double target = 0;       ///< of the last seek
    bool isPlaced = false;   ///< something was read since
    Place place;             ///< of the group that was read last
    std::uint64_t last = 0;  ///< the sequence read last
    double end = 0;          ///< up to where the presentation has been read
    double decodedUntil = 0; ///< where decoding of `last` ends
    bool waits = false;      ///< nothing was there
    bool endTold = false;
};

} // namespace

struct TrackBuffer::State {
    explicit State(StreamInfo streamInfo) : info(std::move(streamInfo)) {}

    void insert(BufferedFrame frame) REQUIRES(mutex);
    /// Takes the entries out; answers up to when the present round had read some of them.
    std::optional<double> take(std::vector<std::uint64_t> sequences, std::vector<Entry>& taken)
        REQUIRES(mutex);
    std::optional<SampleStream::Change> arrived() REQUIRES(mutex);

    void restart(double seconds) REQUIRES(mutex);
    Entry* next() REQUIRES(mutex);
    bool hasEnded() const REQUIRES(mutex);
    void advance(Entry& entry) REQUIRES(mutex);

    void tell(const std::vector<SampleStream::Change>& changes);

    const StreamInfo info;
    locks::Mutex mutex; // nothing is called under it
    Groups groups GUARDED_BY(mutex);
    std::unordered_map<std::uint64_t, Place> places GUARDED_BY(mutex);         // of groups
    std::unordered_map<std::uint64_t, std::uint64_t> frames GUARDED_BY(mutex); // their groups
    double gap GUARDED_BY(mutex) = smallestGap;
    bool ended GUARDED_BY(mutex) = false;
    std::uint64_t reader GUARDED_BY(mutex) = 0; // the stream that reads
    SampleStream::Listener listener GUARDED_BY(mutex);
    std::uint64_t round GUARDED_BY(mutex) = neverRead + 1; // of reading, from seek to seek
    Cursor cursor GUARDED_BY(mutex);

private:
    Groups::iterator groupAt(double time) REQUIRES(mutex);
    Groups::iterator groupBehind() REQUIRES(mutex);
    bool isNew(Groups::iterator group) const REQUIRES(mutex) {
        return group->second.entries.front().readBy != round;
    }
};

// ---- what comes and goes

void TrackBuffer::State::insert(BufferedFrame frame) {
    const auto id = frame.group;
    const bool begins = frame.sequence == id;
    auto known = places.find(id);
    if (known == places.end()) {
        const Place place{frame.sample.pts, id};
        known = places.emplace(id, place).first;
        groups.emplace(place, Group{});
    } else if (begins) { // it is the group's time
        auto node = groups.extract(known->second);
        node.key() = known->second = {frame.sample.pts, id};
        groups.insert(std::move(node));
    }
    gap = std::max(gap, gapInFrames * frame.sample.duration);
    frames[frame.sequence] = id;
    groups.at(known->second).add(Entry{std::move(frame)});
}

std::optional<double> TrackBuffer::State::take(std::vector<std::uint64_t> sequences,
                                               std::vector<Entry>& taken) {
    std::map<std::uint64_t, std::vector<std::uint64_t>> byGroup;
    std::sort(sequences.begin(), sequences.end());
    for (const auto sequence : sequences)
        if (const auto found = frames.find(sequence); found != frames.end()) {
            byGroup[found->second].push_back(sequence);
            frames.erase(found);
        }
    std::optional<double> readUntil;
    for (const auto& [id, gone] : byGroup) {
        const auto place = places.at(id);
        auto& entries = groups.at(place).entries;
        const auto kept =
            std::stable_partition(entries.begin(), entries.end(), [&gone = gone](const Entry& e) {
                return !std::binary_search(gone.begin(), gone.end(), e.frame.sequence);
            });
        for (auto entry = kept; entry != entries.end(); ++entry) {
            if (entry->readBy == round)
                readUntil = std::max(readUntil.value_or(entry->end()), entry->end());
            taken.push_back(std::move(*entry));
        }
        entries.erase(kept, entries.end());
        if (!entries.empty()) {
            groups.at(place).measure();
        } else {
            groups.erase(place);
            places.erase(id);
        }
    }
    return readUntil;
}

/// What the present reader has to know once something was added, or the end was told of.
std::optional<SampleStream::Change> TrackBuffer::State::arrived() {
    using Kind = SampleStream::Change::Kind;
    if (cursor.endTold && !hasEnded()) {
        cursor.endTold = false;
        return SampleStream::Change{Kind::Reopened, 0};
    }
    if (!std::exchange(cursor.waits, false))
        return std::nullopt;
    return SampleStream::Change{Kind::Arrived, 0};
}

void TrackBuffer::State::tell(const std::vector<SampleStream::Change>& changes) {
    SampleStream::Listener call;
    {
        const locks::Lock lock(mutex);
        call = listener;
    }
    if (call)
        for (const auto& change : changes)
            call(change);
}

// ---- reading

void TrackBuffer::State::restart(double seconds) {
    ++round;
    cursor = {};
    cursor.target = seconds;
}

/// The group from whose key frame a time is played; the end when none is there.
Groups::iterator TrackBuffer::State::groupAt(double time) {
    const auto behind = groups.upper_bound({time, std::numeric_limits<std::uint64_t>::max()});
    const bool hasNext = behind != groups.end() && behind->second.begin <= time + gap;
    if (behind == groups.begin())
        return hasNext ? behind : groups.end();
    const auto before = std::prev(behind);
    const double end = before->second.end;
    const bool adjoins = hasNext && behind->second.begin <= end + gap;
    if (time < end || adjoins)
        return before;
    return hasNext ? behind : time <= end + gap ? before : groups.end();
}

/// The one with which playback goes on behind the cursor's: the next, if it adjoins, or one that
/// was put there behind the cursor's back. The end when there is none.
Groups::iterator TrackBuffer::State::groupBehind() {
    auto next = groups.upper_bound(cursor.place);
    if (next != groups.end() && next->second.begin > cursor.end + gap)
        next = groups.end();
    auto at =
        groups.upper_bound({cursor.end + rounding, std::numeric_limits<std::uint64_t>::max()});
    if (at == groups.begin())
        return next;
    --at;
    const bool goesOn = isNew(at) && at->second.end > cursor.end + rounding;
    if (goesOn && (next == groups.end() || at->first < next->first))
        return at;
    if (next == groups.end() && cursor.end <= cursor.target + gap)
        if (const auto again = groupAt(cursor.target); again != groups.end() && isNew(again))
            return again; // what there was lay before the time that is sought
    return next;
}

/// Null: nothing, for now.
Entry* TrackBuffer::State::next() {
    auto group = groups.end();
    if (!cursor.isPlaced) {
        group = groupAt(cursor.target);
    } else {
        if (const auto last = groups.find(cursor.place); last != groups.end()) {
            const auto entry = last->second.behind(cursor.last);
            if (entry != last->second.entries.end())
                return entry->frame.sample.dts <= cursor.decodedUntil + gap ? &*entry : nullptr;
        }
        group = groupBehind();
    }
    if (group == groups.end() || !group->second.startsWithKeyFrame())
        return nullptr;
    cursor.place = group->first;
    return &group->second.entries.front();
}

/// Nothing lies behind what was read, and nothing will.
bool TrackBuffer::State::hasEnded() const {
    const double from = cursor.isPlaced ? cursor.end : cursor.target;
    return ended && std::none_of(groups.rbegin(), groups.rend(), [&](const auto& group) {
               return group.second.end > from + rounding;
           });
}

void TrackBuffer::State::advance(Entry& entry) {
    entry.readBy = round;
    cursor.end = cursor.isPlaced ? std::max(cursor.end, entry.end()) : entry.end();
    cursor.isPlaced = true;
    cursor.last = entry.frame.sequence;
    cursor.decodedUntil = entry.decodedUntil();
}

class TrackBuffer::Stream final : public SampleStream {
public:
    Stream(std::shared_ptr<State> state, std::uint64_t reader)
        : m_state(std::move(state)), m_reader(reader) {}
    ~Stream() override { listen(nullptr); }

    const StreamInfo& info() const override { return m_state->info; }
    bool isImmediate() const override { return true; }
    void interrupt() override { m_isInterrupted = true; }

    Batch read(std::size_t count) override {
        Batch batch;
        if (m_isInterrupted)
            batch.error = "reading was interrupted";
        const locks::Lock lock(m_state->mutex);
        batch.ended = !isCurrent();
        if (batch.ended || m_isInterrupted)
            return batch;
        while (batch.samples.size() < count) {
            auto* entry = m_state->next();
            if (entry == nullptr)
                break;
            m_state->advance(*entry);
            batch.samples.push_back(std::make_unique<Sample>(entry->frame.sample));
        }
        if (batch.samples.size() < count)
            batch.ended = m_state->hasEnded();
        m_state->cursor.endTold = batch.ended;
        m_state->cursor.waits = batch.samples.empty() && !batch.ended;
        return batch;
    }

    std::string seek(double seconds) override {
        const locks::Lock lock(m_state->mutex);
        if (isCurrent())
            m_state->restart(seconds);
        return {};
    }

    void listen(Listener listener) override {
        const locks::Lock lock(m_state->mutex);
        if (isCurrent())
            m_state->listener.swap(listener); // the old one goes after the lock
    }

private:
    bool isCurrent() const REQUIRES(m_state->mutex) { return m_state->reader == m_reader; }

    const std::shared_ptr<State> m_state;
    const std::uint64_t m_reader;
    std::atomic<bool> m_isInterrupted{false};
};

// ---- the buffer

TrackBuffer::TrackBuffer(StreamInfo info) : m_state(std::make_shared<State>(std::move(info))) {}

TrackBuffer::~TrackBuffer() {
    Groups gone;
    {
        const locks::Lock lock(m_state->mutex);
        gone.swap(m_state->groups);
        m_state->places.clear();
        m_state->frames.clear();
    }
    setEnded(true);
}

void TrackBuffer::add(std::vector<BufferedFrame> added) {
    added.erase(std::remove_if(added.begin(), added.end(), hasNoTimes), added.end());
    std::vector<SampleStream::Change> changes;
    std::vector<Entry> replaced;
    {
        const locks::Lock lock(m_state->mutex);
        std::vector<std::uint64_t> sequences;
        sequences.reserve(added.size());
        for (const auto& frame : added)
            sequences.push_back(frame.sequence);
        if (const auto until = m_state->take(std::move(sequences), replaced))
            changes.push_back({SampleStream::Change::Kind::Replaced, *until});
        for (auto& frame : added)
            m_state->insert(std::move(frame));
        if (const auto change = m_state->arrived())
            changes.push_back(*change);
    }
    m_state->tell(changes);
}

void TrackBuffer::remove(const std::vector<std::uint64_t>& sequences) {
    std::vector<SampleStream::Change> changes;
    std::vector<Entry> removed;
    {
        const locks::Lock lock(m_state->mutex);
        if (const auto until = m_state->take(sequences, removed))
            changes.push_back({SampleStream::Change::Kind::Replaced, *until});
    }
    m_state->tell(changes);
}

void TrackBuffer::setEnded(bool ended) {
    std::vector<SampleStream::Change> changes;
    {
        const locks::Lock lock(m_state->mutex);
        if (std::exchange(m_state->ended, ended) == ended)
            return;
        if (const auto change = m_state->arrived())
            changes.push_back(*change);
    }
    m_state->tell(changes);
}

std::size_t TrackBuffer::size() const {
    const locks::Lock lock(m_state->mutex);
    return m_state->frames.size();
}

std::unique_ptr<SampleStream> TrackBuffer::stream() {
    SampleStream::Listener gone;
    const locks::Lock lock(m_state->mutex);
    gone.swap(m_state->listener);
    m_state->restart(0);
    return std::make_unique<Stream>(m_state, ++m_state->reader);
}

} // namespace host
