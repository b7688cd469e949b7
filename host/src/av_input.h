#ifndef HOST_AV_INPUT_H
#define HOST_AV_INPUT_H

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
    void close() { m_context.reset(); }
    void forgetCancelled() { m_cancelled = nullptr; }

    void interrupt() { m_interrupted = true; }
    bool interrupted() const { return m_interrupted || (m_cancelled && *m_cancelled); }

    /// Null unless open() went well.
    AVFormatContext* context() const { return m_context.get(); }

private:
    struct Close {
        void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
    };

    const std::string m_name;
    const std::atomic<bool>* m_cancelled;
    std::atomic<bool> m_interrupted{false};
    std::unique_ptr<AVFormatContext, Close> m_context; ///< calls back into the members above
};

/// The id of the key of a Matroska track, which is encrypted then; empty for any other.
std::string matroskaKeyId(const AVStream& stream);

} // namespace host

#endif
