#ifndef HOST_WEBM_PARSER_H
#define HOST_WEBM_PARSER_H

#include "byte_queue.h"
#include "host/segment_parser.h"

#include <webm/callback.h>
#include <webm/reader.h>
#include <webm/webm_parser.h>

#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// Of WebM. libwebm takes the elements apart; it asks for bytes here, and stops where there are
/// none yet. The end of a cluster of unknown size is seen with what follows it: until then the last
/// frame of a track whose frames do not tell their duration is held.
class WebmParser final : public SegmentParser, webm::Callback, webm::Reader {
public:
    explicit WebmParser(Output& output);
    ~WebmParser() override;

    std::string append(std::shared_ptr<const std::uint8_t> bytes, std::size_t size) override;
    void reset() override;
    State state() const override { return m_state; }

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
        const Track* track = nullptr; ///< null: one that is skipped
        std::int64_t time = 0;        ///< ticks
        bool isKey = false;
        std::vector<SampleData> frames;
    };
    /// What is known of a track's blocks.
    struct Progress {
        std::optional<std::int64_t> latest; ///< time of a block in this cluster
        std::optional<Block> pending;       ///< until the next one tells its duration
        double duration = 0;                ///< of the last frame; 0: unknown
    };

    // What is read.
    webm::Status Read(std::size_t size, std::uint8_t* to, std::uint64_t* read) override;
    webm::Status Skip(std::uint64_t size, std::uint64_t* skipped) override;
    std::uint64_t Position() const override { return m_bytes.position(); }

    // What is found.
    webm::Status OnElementBegin(const webm::ElementMetadata& element,
                                webm::Action* action) override;
    webm::Status OnEbml(const webm::ElementMetadata& element, const webm::Ebml& ebml) override;
    webm::Status OnInfo(const webm::ElementMetadata& element, const webm::Info& info) override;
    webm::Status OnTrackEntry(const webm::ElementMetadata& element,
                              const webm::TrackEntry& entry) override;
    webm::Status OnClusterBegin(const webm::ElementMetadata& element, const webm::Cluster& cluster,
                                webm::Action* action) override;
    webm::Status OnSimpleBlockBegin(const webm::ElementMetadata& element,
                                    const webm::SimpleBlock& block, webm::Action* action) override;
    webm::Status OnSimpleBlockEnd(const webm::ElementMetadata& element,
                                  const webm::SimpleBlock& block) override;
    webm::Status OnBlockGroupBegin(const webm::ElementMetadata& element,
                                   webm::Action* action) override;
    webm::Status OnBlockBegin(const webm::ElementMetadata& element, const webm::Block& block,
                              webm::Action* action) override;
    webm::Status OnBlockGroupEnd(const webm::ElementMetadata& element,
                                 const webm::BlockGroup& group) override;
    webm::Status OnFrame(const webm::FrameMetadata& frame, webm::Reader* reader,
                         std::uint64_t* left) override;
    webm::Status OnClusterEnd(const webm::ElementMetadata& element,
                              const webm::Cluster& cluster) override;

    void begin();
    void parse();
    void endInit();
    webm::Status beginElement(const webm::ElementMetadata& element, webm::Action& action);
    void beginBlock(const webm::Block& block, bool isKey);
    void endBlock(std::optional<std::uint64_t> ticks);
    void release(Progress& progress, double duration);
    void give(Block& block, double duration);
    double secondsOf(std::int64_t ticks) const;
    void flush();

    Output& m_output;
    ByteQueue m_bytes;
    std::unique_ptr<webm::WebmParser> m_parser;
    std::optional<std::uint64_t> m_stop; ///< the parser gets no bytes from here on
    State m_state = State::Waiting;
    std::string m_fault;
    std::optional<webm::ElementMetadata> m_element; ///< that began last

    std::unique_ptr<Draft> m_draft;       ///< an initialization segment that is being read
    std::shared_ptr<const Movie> m_movie; ///< in force; null: none yet

    std::uint64_t m_clusterTime = 0; ///< ticks
    Block m_block;                   ///< that is being read
    std::map<std::uint32_t, Progress> m_progress;
    std::vector<CodedFrame> m_frames; ///< to be given
};

} // namespace host

#endif
