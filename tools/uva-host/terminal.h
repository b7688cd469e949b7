#ifndef UVA_HOST_TERMINAL_H
#define UVA_HOST_TERMINAL_H

#include <string>
#include <vector>

namespace uvahost {

/// The user's terminal. While entered, keys come one by one and unseen; it is put back whatever
/// ends the process. One a process.
class Terminal {
public:
    Terminal();
    ~Terminal() { restore(); }

    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Standard output is a terminal on which a line can be rewritten.
    bool isLive() const { return m_live; }

    /// Takes the keyboard, if there is one and we are in the foreground. Also after having been
    /// stopped.
    void enter();
    static void restore();

    /// Standard input, while keys can be read from it; else -1.
    static int keyFd();

    /// Columns.
    static int width();

private:
    bool m_live = false;
};

enum class Key { Pause, Back, Forward, Quit };

/// Makes keys out of a terminal's bytes, which may come cut anywhere. Unknown ones are skipped.
class KeyDecoder {
public:
    std::vector<Key> decode(const std::string& bytes);

private:
    std::string m_sequence; ///< the beginning of an escape sequence
};

} // namespace uvahost

#endif
