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

bool inForeground() {
    return tcgetpgrp(STDIN_FILENO) == getpgrp();
}

} // namespace

Terminal::Terminal() {
    const char* kind = std::getenv("TERM");
    const bool dumb = kind == nullptr || *kind == '\0' || std::strcmp(kind, "dumb") == 0;
    m_live = isatty(STDOUT_FILENO) == 1 && !dumb;
}

Terminal::~Terminal() {
    restore();
}

void Terminal::enter() {
    if (!m_live || isatty(STDIN_FILENO) != 1 || !inForeground())
        return;
    if (modesChanged == 0 && tcgetattr(STDIN_FILENO, &originalModes) != 0)
        return;
    static const bool prepared = [] {
        std::atexit(putModesBack);
        struct sigaction action = {};
        action.sa_handler = onFatalSignal;
        for (std::size_t i = 0; i < std::size(fatalSignals); ++i)
            sigaction(fatalSignals[i], &action, &originalActions[i]);
        return true;
    }();
    static_cast<void>(prepared);

    termios modes = originalModes;
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
    modesChanged = 1;
    m_entered = tcsetattr(STDIN_FILENO, TCSADRAIN, &modes) == 0;
}

void Terminal::restore() {
    putModesBack();
    m_entered = false;
}

int Terminal::keyFd() const {
    return m_entered ? STDIN_FILENO : -1;
}

int Terminal::width() {
    winsize size = {};
    constexpr int usual = 80;
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : usual;
}

std::vector<Key> KeyDecoder::decode(const std::string& bytes) {
    constexpr char escape = '\x1b';
    std::vector<Key> keys;
    for (const char c : bytes) {
        if (c == escape) {
            m_sequence = c;
            continue;
        }
        if (m_sequence.size() == 1 && (c == '[' || c == 'O')) {
            m_sequence += c;
            continue;
        }
        if (m_sequence.size() >= 2) {
            const bool parameter = c >= 0x20 && c < 0x40;
            if (parameter) {
                m_sequence = "\x1b[;"; // a modified key: not ours
                continue;
            }
            if (m_sequence.size() == 2 && c == 'C')
                keys.push_back(Key::Forward);
            if (m_sequence.size() == 2 && c == 'D')
                keys.push_back(Key::Back);
            m_sequence.clear();
            continue;
        }
        m_sequence.clear();
        if (c == ' ')
            keys.push_back(Key::Pause);
        if (c == 'q' || c == 'Q')
            keys.push_back(Key::Quit);
    }
    return keys;
}

} // namespace uvahost
