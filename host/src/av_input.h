#ifndef HOST_AV_INPUT_H
#define HOST_AV_INPUT_H

#include "mp4_scan.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <atomic>
#include <memory>
#include <string>

namespace host {

/// One line of text for a failure of libavformat.
std::string avErrorText(int error);

/// A file or URL opened with libavformat. Bound to one thread, but for interrupt().
class AvInput {
public:
    /// A call that blocks also ends when `cancelled` becomes true, until forgetCancelled().
    AvInput(std::string name, const std::atomic<bool>& cancelled);
    AvInput(const AvInput&) = delete;
    AvInput& operator=(const AvInput&) = delete;

    /// From the beginning, anew if it was open. Answers what went wrong.
    std::string open();
    void close();
    void forgetCancelled() { m_cancelled = nullptr; }

    void interrupt() { m_interrupted = true; }
    bool interrupted() const { return m_interrupted || (m_cancelled && *m_cancelled); }

    /// Null unless open() went well.
    AVFormatContext* context() const { return m_context.get(); }

    /// Of an MP4, null for anything else. Local files are covered as a whole.
    Mp4Scan* scan() const { return m_scan.get(); }
    bool isLocal() const;

private:
    struct Close {
        void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
        void operator()(AVIOContext* io) const { avio_close(io); }
    };

    int openContext();
    int openScan();

    const std::string m_name;
    const std::atomic<bool>* m_cancelled;
    std::atomic<bool> m_interrupted{false};
    // These call back into the members above.
    std::unique_ptr<AVFormatContext, Close> m_context;
    std::unique_ptr<AVIOContext, Close> m_scanned;
    std::unique_ptr<Mp4Scan> m_scan;
};

/// The name of a part of a local file, from a byte up to another; 0: to its end.
std::string partOf(const std::string& name, std::uint64_t begin, std::uint64_t end);

/// The id of the key of a Matroska track, which is encrypted then; empty for any other.
std::string matroskaKeyId(const AVStream& stream);

} // namespace host

#endif
