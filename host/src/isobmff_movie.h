#ifndef HOST_ISOBMFF_MOVIE_H
#define HOST_ISOBMFF_MOVIE_H

#include "box_reader.h"
#include "host/segment_parser.h"
#include "isobmff_protection.h"
#include "isobmff_sample_entry.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace host {

/// What a 'trex' or a 'tfhd' says of samples that do not say it themselves.
struct SampleDefaults {
    std::uint32_t entry = 1; ///< sample description, counts from 1
    std::uint32_t duration = 0;
    std::uint32_t size = 0;
    std::uint32_t flags = 0;
};

struct MovieTrack {
    std::uint32_t id = 0;
    StreamInfo::Kind kind = StreamInfo::Kind::Video;
    std::uint32_t timescale = 1;
    std::int64_t shift = 0; ///< by which the edit list moves times, in the track's timescale
    std::string language;
    std::string label;
    std::vector<SampleDescription> entries; ///< never none
    EncryptionGroups groups;
    SampleDefaults defaults;
};

/// A 'moov' whose samples are in fragments. Immutable.
struct Movie {
    std::vector<MovieTrack> tracks; ///< audio and video
    double duration = 0;            ///< seconds; infinity: not said
    std::vector<InitData> initData;
    std::set<std::uint32_t> fragmented; ///< tracks of all kinds that fragments may have ('trex')

    const MovieTrack* find(std::uint32_t id) const; ///< null: none of audio or video
};

/// Throws a StreamFault, as all here do.
Movie readMovie(const BoxReader& moov);

/// Groups do not tell their scheme; it is that of the track's descriptions. `box` is to blame.
void nameScheme(EncryptionGroups& groups, const std::vector<SampleDescription>& entries,
                const BoxReader& box);

} // namespace host

#endif
