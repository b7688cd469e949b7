#ifndef HOST_FILE_BYTES_H
#define HOST_FILE_BYTES_H

extern "C" {
#include <libavformat/avio.h>
}

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace host {

/// One line of text for a failure of libavformat.
std::string avErrorText(int error);

/// What ends calls that block on files and networks. Thread-safe.
class Interruption {
public:
    /// They also end when `cancelled` becomes true, until forgetCancelled().
    explicit Interruption(const std::atomic<bool>& cancelled) : m_cancelled(&cancelled) {}

    void forgetCancelled() { m_cancelled = nullptr; }
    void interrupt() { m_interrupted = true; }
    bool isSet() const { return m_interrupted || (m_cancelled && *m_cancelled); }

    AVIOInterruptCB callback() const; ///< good while this object lives

private:
    const std::atomic<bool>* m_cancelled;
    std::atomic<bool> m_interrupted{false};
};

/// A file or URL of which any part can be read. Bound to one thread.
class FileBytes {
public:
    FileBytes(std::string name, std::shared_ptr<const Interruption> interruption)
        : m_name(std::move(name)), m_interruption(std::move(interruption)) {}

    std::string open(); ///< answers what went wrong

    /// Answers how many there were: fewer at the end, and when it fails.
    std::size_t read(std::uint64_t at, std::uint8_t* bytes, std::size_t size);
    /// What ended the last read, but for the end of the file.
    const std::string& error() const { return m_error; }

    const std::string& name() const { return m_name; }
    bool isLocal() const;
    std::uint64_t size() const; ///< 0: unknown

private:
    struct Close {
        void operator()(AVIOContext* io) const { avio_close(io); }
    };

    int openAnew();
    std::int64_t goTo(std::int64_t at);

    const std::string m_name;
    const std::shared_ptr<const Interruption> m_interruption;
    std::unique_ptr<AVIOContext, Close> m_io;
    std::string m_error;
};

} // namespace host

#endif
