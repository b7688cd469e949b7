#ifndef SUPPORT_NO_THREADS_H
#define SUPPORT_NO_THREADS_H

#include <cstddef>
#include <limits>
#include <pthread.h>

namespace support {

/// As long as it lives no thread can be started in this process (EAGAIN): there is no room for its
/// stack. Those that name a size of their own can.
class NoThreads {
public:
    NoThreads() {
        pthread_getattr_default_np(&m_before);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::numeric_limits<std::size_t>::max() / 4 * 3);
        pthread_setattr_default_np(&attributes);
        pthread_attr_destroy(&attributes);
    }
    ~NoThreads() {
        pthread_setattr_default_np(&m_before);
        pthread_attr_destroy(&m_before);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

private:
    pthread_attr_t m_before{};
};

} // namespace support

#endif
