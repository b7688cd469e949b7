#ifndef HOST_FRAGMENTED_FILE_H
#define HOST_FRAGMENTED_FILE_H

#include "file_bytes.h"
#include "isobmff_movie.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// The track of a movie that is played: the first of its kind that can be. Null: none.
const MovieTrack* findTrack(const Movie& movie, StreamInfo::Kind kind);

/// Where things are in an MP4 whose samples are in fragments. A plain value.
struct FragmentedFile {
    struct MoviePlace {
        std::uint64_t position = 0;
        std::size_t size = 0;
    };
    /// A fragment in which decoding can start.
    struct Start {
        double time = 0; ///< seconds; decoding time of the first sample that allows it
        std::uint64_t position = 0;
        std::size_t movie = 0; ///< that is in force there
    };
    struct Track {
        StreamInfo info;
        std::vector<Start> starts; ///< in the order of the file; some or all
        double end = 0;            ///< seconds: where its last sample ends; 0: unknown
    };

    std::vector<MoviePlace> movies; ///< the first one at least
    std::vector<Track> tracks;      ///< at most one of a kind; none: none of it can be played
    double start = 0;               ///< seconds: the earliest presentation time
    /// Fragments tell their times: they can be read from any of them on.
    bool hasTimes = true;
};

/// Looks at the boxes, those of a local file to its end. Nothing for what is no fragmented MP4, or
/// is damaged before its first fragment. The bytes are open. Blocks.
std::optional<FragmentedFile> indexFragments(FileBytes& bytes);

} // namespace host

#endif
