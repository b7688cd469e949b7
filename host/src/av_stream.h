#ifndef HOST_AV_STREAM_H
#define HOST_AV_STREAM_H

#include "av_input.h"
#include "host/sample_stream.h"
#include "stream_format.h"

#include <deque>
#include <optional>

namespace host {

/// One stream of an input that it has for itself. A sample's payload is the packet's own memory,
/// unless the frame needs a header in front.
class AvStream final : public SampleStream {
public:
    /// The input is open, and media sources take the codec of its stream `index`. `timeOffset`
    /// seconds become time 0. Null, and why.
    static std::unique_ptr<AvStream> make(std::unique_ptr<AvInput> input, int index,
                                          double timeOffset, std::string& error);

    const StreamInfo& info() const override { return m_info; }
    Batch read(std::size_t count) override;
    std::string seek(double seconds) override;
    void interrupt() override { m_input->interrupt(); }

private:
    struct Packet {
        std::shared_ptr<const AVPacket> av;
        std::shared_ptr<const StreamFormat> format;
        double pts = 0; ///< not a number: unknown
        double dts = 0;
        bool keyFrame = false;
    };
    using SharedFormat = std::shared_ptr<const StreamFormat>;

    AvStream(std::unique_ptr<AvInput> input, int index, double timeOffset, SharedFormat format);

    const AVStream& stream() const { return *m_input->context()->streams[m_index]; }
    bool isAudio() const { return m_info.kind == StreamInfo::Kind::Audio; }
    double seconds(std::int64_t timestamp) const;
    double endOfStream() const;
    void readOnly();

    std::optional<Packet> nextPacket();
    std::optional<Packet> readPacket();
    bool takeNewHeaders(const AVPacket& packet);
    void endWith(int error);
    bool isTruncated() const;

    bool knowsTimes() const;
    bool jump(double target);
    std::string goToStart();
    std::string reopen();
    bool hasSameStream() const;
    void startReading();
    bool readAheadTo(double target);

    std::optional<SampleData> makeSample(const Packet& packet);
    std::string takePayload(const Packet& packet, SampleData& sample) const;
    double durationOf(const Packet& packet);
    double distanceToNext(const Packet& packet);

    const std::unique_ptr<AvInput> m_input;
    const int m_index;
    const AVCodecID m_codec;
    const double m_timeOffset;
    const std::string m_keyId; ///< of an encrypted Matroska track
    StreamInfo m_info;

    SharedFormat m_format;            ///< of the packet read last
    std::deque<Packet> m_ahead;       ///< read already
    std::optional<std::string> m_end; ///< nothing follows what is read, and what went wrong if so
    std::optional<std::int64_t> m_firstRead;    ///< timestamp of the very first packet
    std::int64_t m_latestRead = AV_NOPTS_VALUE; ///< the greatest since the last seek
    double m_distance = -1;                     ///< seconds from the packet before
};

} // namespace host

#endif
