#include "terminal.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace uvahost {

namespace {

constexpr int fatalSignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// What a signal handler and exit() need: set up before `modesChanged`.
termios originalModes;
volatile std::sig_atomic_t modesChanged = 0;
struct sigaction originalActions[std::size(fatalSignals)];

void putModesBack() {
    if (modesChanged == 0)
        return;
    modesChanged = 0;
    tcsetattr(STDIN_FILENO, TCSADRAIN, &originalModes);
}

/// A crash must not leave the shell without echo. Whoever handled the signal before handles it now.
void onFatalSignal(int number) {
    putModesBack();
    for (std::size_t i = 0; i < std::size(fatalSignals); ++i)
        if (fatalSignals[i] == number)
            sigaction(number, &originalActions[i], nullptr);
    raise(number);
}

bool putBackAtEveryEnd() {
    std::atexit(putModesBack);
    struct sigaction action = {};
    action.sa_handler = onFatalSignal;
    for (std::size_t i = 0; i < std::size(fatalSignals); ++i)
        sigaction(fatalSignals[i], &action, &originalActions[i]);
    return true;
}

} // namespace

Terminal::Terminal() {
    const char* kind = std::getenv("TERM");
    const bool dumb = kind == nullptr || *kind == '\0' || std::strcmp(kind, "dumb") == 0;
    m_live = isatty(STDOUT_FILENO) == 1 && !dumb;
}

void Terminal::enter() {
    if (!m_live || isatty(STDIN_FILENO) != 1 || tcgetpgrp(STDIN_FILENO) != getpgrp())
        return;
    if (modesChanged == 0 && tcgetattr(STDIN_FILENO, &originalModes) != 0)
        return;
    [[maybe_unused]] static const bool prepared = putBackAtEveryEnd();
    termios modes = originalModes;
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
    modesChanged = 1; // before they are: an end may come any time
    modesChanged = tcsetattr(STDIN_FILENO, TCSADRAIN, &modes) == 0 ? 1 : 0;
}

void Terminal::restore() {
    putModesBack();
}

int Terminal::keyFd() {
    return modesChanged != 0 ? STDIN_FILENO : -1;
}

int Terminal::width() {
    winsize size = {};
    constexpr int usual = 80;
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : usual;
}

std::vector<Key> KeyDecoder::decode(const std::string& bytes) {
    constexpr char escape = '\x1b';
    constexpr struct {
        bool inSequence;
        char byte;
        Key key;
    } meanings[] = {{false, ' ', Key::Pause},
                    {false, 'q', Key::Quit},
                    {false, 'Q', Key::Quit},
                    {true, 'C', Key::Forward},
                    {true, 'D', Key::Back}};
    std::vector<Key> keys;
    for (const char c : bytes) {
        const auto before = m_sequence.size();
        if (c == escape) {
            m_sequence = c;
        } else if (before == 1 && (c == '[' || c == 'O')) {
            m_sequence += c;
        } else if (before >= 2 && c >= 0x20 && c < 0x40) {
            m_sequence = "\x1b[;"; // a modified key: not ours
        } else {
            m_sequence.clear();
            for (const auto& meaning : meanings)
                if (c == meaning.byte && (meaning.inSequence ? before == 2 : before < 2))
                    keys.push_back(meaning.key);
        }
    }
    return keys;
}

} // namespace uvahost
