#ifndef HOST_AV_INPUT_H
#define HOST_AV_INPUT_H

#include "file_bytes.h"
#include "mp4_protection.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <atomic>
#include <map>
#include <memory>
#include <string>

namespace host {

/// A pipe is no input: it can be read only once.
bool isPipe(const std::string& name);

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
    void forgetCancelled() { m_interruption->forgetCancelled(); }

    void interrupt() { m_interruption->interrupt(); }
    bool interrupted() const { return m_interruption->isSet(); }

    /// Null unless open() went well.
    AVFormatContext* context() const { return m_context.get(); }

    /// How the samples of a track of an MP4 are encrypted, where libavformat does not tell it
    /// right; null: it does.
    const TrackProtection* protectionOf(int track) const;

private:
    struct Close {
        void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
    };

    int openContext();
    void readProtection();

    const std::string m_name;
    const std::shared_ptr<Interruption> m_interruption;
    std::unique_ptr<AVFormatContext, Close> m_context; // calls back into the members above
    std::map<std::uint32_t, TrackProtection> m_protection;
};

/// The id of the key of a Matroska track, which is encrypted then; empty for any other.
std::string matroskaKeyId(const AVStream& stream);

} // namespace host

#endif
