#ifndef HOST_MP4_SCAN_H
#define HOST_MP4_SCAN_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// How samples of a track are encrypted, by a 'tenc' box or a sample group 'seig' (ISO/IEC
/// 23001-7). A plain value.
struct TrackProtection {
    bool encrypted = false;
    std::uint32_t scheme = 0; ///< four letters, the first in the highest byte
    unsigned int ivSize = 0;  ///< bytes of a sample's own vector; 0: the constant one
    unsigned int cryptByteBlock = 0;
    unsigned int skipByteBlock = 0;
    std::vector<std::uint8_t> keyId;
    std::vector<std::uint8_t> constantIv;
    std::string fault; ///< not empty: these samples cannot be read, and why
};

/// Reads the boxes of an MP4 beside libavformat and knows what that passes over: keys that sample
/// groups name, initialisation in the middle of a file, when fragmented tracks end. All bytes are
/// distrusted: behind what is damaged nothing is known. Bound to one thread.
class Mp4Scan {
public:
    /// Copies bytes from a place in the file; answers how many there were. Places never decrease
    /// but within one box.
    using Read =
        std::function<std::size_t(std::uint64_t at, std::uint8_t* bytes, std::size_t size)>;

    explicit Mp4Scan(Read read);

    /// Looks at all boxes of the file that begin up to this byte.
    void coverTo(std::uint64_t position);

    /// How the samples of a track at this place, which is covered, are encrypted; null: as
    /// libavformat tells.
    std::shared_ptr<const TrackProtection> protectionAt(std::uint64_t position,
                                                        std::uint32_t track) const;

    /// Where the file begins, and where it begins anew with another 'moov'.
    const std::vector<std::uint64_t>& beginnings() const { return m_beginnings; }

    bool isFragmented() const { return m_fragmented; }
    bool isEncrypted(std::uint32_t track) const; ///< some of it
    /// Seconds, in the track's presentation; nothing unless all of a fragmented file is covered.
    std::optional<double> endOf(std::uint32_t track) const;

private:
    struct View;
    struct Header;
    /// Descriptions of the sample group 'seig'.
    struct Groups {
        std::vector<TrackProtection> descriptions;
        std::uint32_t defaultIndex = 0; ///< of samples that no run names; counts from 1
    };
    struct Track {
        std::vector<TrackProtection> entries; ///< sample descriptions
        Groups groups;
        std::uint32_t entry = 1; ///< of fragments that name none
        std::uint32_t duration = 0;
        double timescale = 1;
        double shift = 0; ///< seconds by which the edit list moves times
        double nextDts = 0;
        double end = 0;
    };
    /// From here to the next one.
    struct Region {
        std::uint64_t begin = 0;
        std::map<std::uint32_t, std::shared_ptr<const TrackProtection>> tracks;
        std::shared_ptr<const TrackProtection> everywhere;
    };
    /// Samples described in one place: those of a fragment, or of the whole file.
    struct Samples;

    std::optional<Header> readHeader();
    void take(const Header& header);
    void endUnread(std::uint64_t at);
    void takeMovie(std::uint64_t begin, std::vector<std::uint8_t> bytes);
    void takeTrack(const View& trak, double movieTimescale, Region& region);
    void takeIndex(View sidx);
    void takeFragment(std::uint64_t begin, const View& moof);
    void takeTrackFragment(std::uint64_t begin, const View& traf, Region& region);
    void add(Region region);
    static std::uint32_t takeRun(const View& trun, Track& track, double& dts,
                                 std::uint32_t defaultDuration);
    static Groups readGroups(const View& container);
    static TrackProtection protectionOf(const Track& track, const Samples& samples);
    static void judge(const Track& track, std::uint32_t id, const Samples& samples, Region& region);

    const Read m_read;
    std::uint64_t m_at = 0;
    bool m_ended = false;
    bool m_fragmented = false;
    std::size_t m_fragments = 0;
    std::size_t m_indexed = 0;               ///< fragments in the 'sidx' in front of them
    std::optional<std::uint64_t> m_fileType; ///< where a 'ftyp' stands, with nothing behind it yet
    std::vector<std::uint8_t> m_movie;       ///< the 'moov' in force
    std::map<std::uint32_t, Track> m_tracks;
    std::vector<std::uint64_t> m_beginnings{0};
    std::vector<Region> m_regions;
};

} // namespace host

#endif
