#ifndef HOST_ISOBMFF_FRAGMENT_H
#define HOST_ISOBMFF_FRAGMENT_H

#include "box_reader.h"
#include "isobmff_movie.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace host {

/// What a 'trun' says of a sample; times in the timescale of its track.
struct RunSample {
    std::uint32_t size = 0;
    std::uint32_t duration = 0;
    std::int64_t dts = 0;
    std::int64_t pts = 0;
    bool isSync = false;
};

/// Goes through the samples of a 'trun'. A view.
class RunCursor {
public:
    /// Behind flags and count; throws a StreamFault when there is less than they say.
    RunCursor(BoxReader trun, std::uint32_t flags, std::uint32_t count,
              const SampleDefaults& defaults, std::int64_t dts);

    std::uint32_t left() const { return m_left; }
    std::int64_t nextDts() const { return m_dts; }
    std::uint32_t nextSize() const;
    RunSample next(); ///< there must be one

private:
    const std::uint8_t* m_at;
    std::uint32_t m_fields;
    std::uint32_t m_left;
    std::optional<std::uint32_t> m_firstFlags; ///< of the next one
    SampleDefaults m_defaults;
    std::int64_t m_dts;
};

/// What the samples of a 'traf' have in common.
struct TrackFragment {
    std::uint64_t position = 0; ///< of the box
    const MovieTrack* track = nullptr;
    const SampleDescription* description = nullptr;
    EncryptionGroups groups;
    bool mayBeEncrypted = false;

    /// Of samples in this group ('sbgp'). Throws a StreamFault when there is no such group.
    const SampleEncryption& encryptionOf(std::uint32_t group) const;
};

/// Samples that stand one behind the other. The cursors stand at the first one.
struct SampleRun {
    std::shared_ptr<const TrackFragment> fragment;
    std::uint64_t position = 0; ///< in the stream
    std::uint64_t size = 0;     ///< bytes, never 0
    RunCursor samples;
    GroupCursor groups;
    VectorCursor vectors;
    std::uint64_t vectorsPosition = 0;                ///< of vectors that are in media data
    std::size_t vectorsSize = 0;                      ///< 0: they are not
    std::shared_ptr<const std::uint8_t> vectorsBytes; ///< once they are there
};

/// A 'moof'. Its runs are views of the bytes that it was read from.
struct Fragment {
    std::vector<SampleRun> runs; ///< in the order of the 'moof'
    double start = 0;            ///< seconds: its earliest presentation time
    std::vector<InitData> initData;
};

/// What a stream promises of its fragments.
enum class StreamRules {
    MediaSource, ///< all that the byte stream format asks for
    File,        ///< also places in the file, and times that go on from fragment to fragment
};

/// `nextDts`, by the number of a track, goes on from fragment to fragment. Throws a StreamFault.
Fragment readFragment(const BoxReader& moof, const Movie& movie, StreamRules rules,
                      std::map<std::uint32_t, std::int64_t>& nextDts);

} // namespace host

#endif
