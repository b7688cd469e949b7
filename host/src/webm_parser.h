#ifndef HOST_WEBM_PARSER_H
#define HOST_WEBM_PARSER_H

#include "byte_queue.h"
#include "ebml_reader.h"
#include "host/segment_parser.h"
#include "push_parser.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

class WebmBlock;

/// Of WebM, from the outermost elements on. What it holds is the element that is not complete yet:
/// a block, or one of the small ones in front of the clusters. The end of a cluster of unknown size
/// is seen with what follows it: until then the last frame of a track whose frames do not tell
/// their duration is held.
class WebmParser final : public PushParser {
public:
    explicit WebmParser(Output& output);
    ~WebmParser() override;

    void reset() override;

private:
    struct Track {
        TrackDescription description;
        std::string keyId;          ///< empty: clear
        double defaultDuration = 0; ///< seconds; 0: not said
    };
    struct Movie {
        std::map<std::uint64_t, Track> tracks; ///< audio and video, by number
        double tick = 0;                       ///< of times; nanoseconds
    };
    struct Draft;
    /// A block's frames, all at its time.
    struct Block {
        const Track* track = nullptr; ///< in the movie
        std::int64_t time = 0;        ///< ticks
        bool isKey = false;
        std::vector<SampleData> frames;
    };
    /// What is known of a track's blocks.
    struct Progress {
        bool isThere = false;         ///< in this cluster
        std::optional<Block> pending; ///< until the next one tells its duration
        double duration = 0;          ///< of the last frame; 0: unknown
    };

    /// What is read next.
    enum class Step { Header, Body, Skip };

    bool step() override;
    // Each answers as step().
    bool readHeader();
    bool readBody();
    bool skipBody();

    void begin();
    Step stepOf();
    const EbmlElement& parent() const;
    void takeBody(const EbmlReader& body, const ByteQueue::Bytes& owner);
    void takeInfo(const EbmlReader& info);
    void takeTrack(const EbmlReader& entry);
    void takeBlock(const EbmlReader& body, const ByteQueue::Bytes& owner);
    void takeGroup(const EbmlReader& group, const ByteQueue::Bytes& owner);
    Block blockOf(const WebmBlock& block, const ByteQueue::Bytes& owner);
    void endInit();
    void addBlock(Block block, std::optional<std::uint64_t> ticks);
    void endCluster();
    void release(Progress& progress, double duration);
    void give(Block& block, double duration);
    double secondsOf(std::int64_t ticks) const;

    Step m_step = Step::Header;
    EbmlElement m_element; ///< that began last

    std::unique_ptr<Draft> m_draft;       ///< an initialization segment that is being read
    std::shared_ptr<const Movie> m_movie; ///< in force; null: none yet

    std::optional<EbmlElement> m_cluster;       ///< that is open
    std::optional<std::uint64_t> m_clusterTime; ///< ticks
    std::optional<std::int64_t> m_latest;       ///< time of a block in it
    std::map<std::uint32_t, Progress> m_progress;
    std::vector<SampleData> m_spare; ///< empty: memory for the next block's
};

} // namespace host

#endif
