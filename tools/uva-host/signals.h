#ifndef UVA_HOST_SIGNALS_H
#define UVA_HOST_SIGNALS_H

namespace uvahost {

/// The signals that the program answers, as a descriptor to poll. Made before any thread, so that
/// they reach nobody else.
class Signals {
public:
    Signals();
    ~Signals(); ///< gives the signals their usual effect again

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int fd() const { return m_fd; }

    /// The next signal's number; 0 when there is none.
    int take();

    /// From now on the signals have their usual effect: another Ctrl-C ends a hanging process.
    void giveBack();

private:
    int m_fd = -1;
};

} // namespace uvahost

#endif
