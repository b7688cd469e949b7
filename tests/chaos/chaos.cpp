// Preloaded, it makes rare interleavings common: threads pause at locks, conditions, queues and
// starts, calls are interrupted, waits wake for nothing, the time of day steps, and what may fail
// does. All of it is drawn from CHAOS_SEED; without that it does nothing.
//
// Each thread draws from numbers of its own, made of its parent's and of how many threads that one
// had started: so a seed has nearly the same schedule again, whatever the other threads do.
//
// Nothing here takes a lock or, once a thread has started, memory. A pause is no cancellation
// point, and errno stays.

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <glib.h>
#include <link.h>
#include <mqueue.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

/// What a seed does. Chances are of 1000, at each call that allows the effect.
struct Profile {
    const char* name;
    unsigned gap;          ///< calls between two pauses of a thread, on the average; 0: no pauses
    unsigned longest;      ///< of a pause, microseconds
    unsigned hotPlaces;    ///< chance of a place in our code to be one where pauses are long
    unsigned slowThreads;  ///< chance of a thread to pause 16 times as often
    unsigned lateStarts;   ///< ... to begin late
    unsigned interrupts;   ///< EINTR
    unsigned idleWakes;    ///< a condition's wait ends without a signal
    unsigned clockSteps;   ///< of the time of day, up to two hours either way
    unsigned failedMemory; ///< null from the operator new that may answer it
    unsigned failedStarts; ///< of threads: EAGAIN
};
constexpr Profile profiles[] = {
    {"light", 400, 2000, 40, 100, 300, 0, 0, 0, 0, 0},
    {"heavy", 30, 500, 0, 300, 500, 0, 0, 0, 0, 0},
    {"few-and-long", 1500, 30000, 40, 50, 500, 0, 0, 0, 0, 0},
    {"interrupts", 400, 1000, 40, 100, 300, 200, 0, 0, 0, 0},
    {"wakes", 300, 1000, 40, 200, 300, 0, 300, 0, 0, 0},
    {"clock", 400, 2000, 40, 100, 300, 50, 50, 100, 0, 0},
    {"failures", 400, 2000, 40, 100, 300, 50, 0, 0, 100, 0},
    {"threads", 400, 2000, 40, 100, 300, 0, 0, 0, 0, 300},
};
/// A seed draws of these. Without its threads a walk is another: that is chosen.
constexpr std::size_t drawnProfiles = 7;

enum Effect {
    Pause,
    LongPause,
    LateStart,
    Interrupt,
    IdleWake,
    ClockStep,
    FailedMemory,
    FailedStart,
    Effects
};
constexpr const char* effectNames[Effects] = {
    "pauses",     "long pauses", "late starts",        "interrupts",
    "idle wakes", "clock steps", "failed allocations", "failed starts"};

const Profile* profile = nullptr; // null: nothing is done
std::uint64_t seed = 0;
std::array<std::atomic<unsigned>, Effects> counts;
std::atomic<std::int64_t> clockOffset{0}; // nanoseconds

// ---- numbers

constexpr std::uint64_t mix(std::uint64_t value) {
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
    return value ^ (value >> 31);
}

/// Of a thread. Zeroed: it has not drawn yet.
struct Numbers {
    std::uint64_t identity;
    std::uint64_t state;
    std::uint64_t children;
    unsigned untilPause;
    bool isSlow;

    std::uint64_t next() { return mix(state += 0x9e3779b97f4a7c15U); }
    std::uint64_t below(std::uint64_t bound) { return next() % bound; }
    bool happens(unsigned chance) { return chance != 0 && below(1000) < chance; }

    void begin(std::uint64_t id) {
        identity = state = id;
        isSlow = happens(profile->slowThreads);
        drawGap();
    }
    void drawGap() {
        const unsigned mean = isSlow ? profile->gap / 16 + 1 : profile->gap;
        untilPause = 1 + static_cast<unsigned>(below(2 * std::uint64_t{mean}));
    }
};
thread_local Numbers ownNumbers __attribute__((tls_model("initial-exec")));

/// Threads that began before this library, or past it, are told apart by nothing.
Numbers& numbers() {
    if (ownNumbers.identity == 0)
        ownNumbers.begin(mix(seed + 1) | 1U);
    return ownNumbers;
}

void note(Effect effect) {
    counts[effect].fetch_add(1, std::memory_order_relaxed);
}

// ---- pauses

std::int64_t monotonic() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

std::int64_t began = 0;
std::atomic<std::int64_t> paused{0}; // nanoseconds, of all threads

/// All threads together pause a third of the time at most, and a little more, so that what takes a
/// second longer than it may has not been held up here.
void pauseFor(std::int64_t nanoseconds, Effect effect) {
    constexpr std::int64_t atOnce = 100000000;
    const std::int64_t begin = monotonic();
    if (paused.load(std::memory_order_relaxed) > atOnce + (begin - began) / 3)
        return;
    const int error = errno;
    note(effect);
    if (nanoseconds < 20000) {
        syscall(SYS_sched_yield);
    } else {
        const timespec time{0, static_cast<long>(nanoseconds)};
        syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &time, nullptr);
    }
    paused.fetch_add(monotonic() - begin, std::memory_order_relaxed);
    errno = error;
}

/// Most pauses are short, and a few as long as they may be.
void pauseNow(Numbers& own) {
    const auto longest = std::uint64_t{profile->longest} * 1000;
    pauseFor(static_cast<std::int64_t>(own.below(longest) >> own.below(7)), Pause);
}

// ---- where it is called from

#define CALLER __builtin_extract_return_addr(__builtin_return_address(0))

/// Of the product, and of programs of this project that share its code: the caller's place in its
/// file. 0 for others' libraries.
std::uintptr_t ownPlace(void* caller) {
    dl_find_object found{};
    if (_dl_find_object(caller, &found) != 0)
        return 0;
    const char* name = found.dlfo_link_map->l_name;
    if (*name != '\0' && std::strstr(name, "/libuvagstbackend.so") == nullptr)
        return 0;
    return reinterpret_cast<std::uintptr_t>(caller) - found.dlfo_link_map->l_addr;
}

/// Others' libraries may end the process where they see a failure.
bool isOurs(void* caller) {
    return ownPlace(caller) != 0;
}

/// A race's window is often a few instructions at one place. A seed chooses some places, where
/// threads pause so long that everything else goes by, each time or a few times of a hundred: what
/// comes by rarely would else find the time for pauses used up.
unsigned chanceOfLongPause(void* caller) {
    if (profile->hotPlaces == 0)
        return 0;
    const std::uintptr_t place = ownPlace(caller);
    if (place == 0)
        return 0;
    const std::uint64_t drawn = mix(mix(seed + 1) ^ place);
    return drawn % 1000 < profile->hotPlaces ? 1000U >> (drawn >> 32) % 8 : 0;
}

/// A place where another thread may come in between.
void point(void* caller) {
    if (profile == nullptr)
        return;
    auto& own = numbers();
    if (own.happens(chanceOfLongPause(caller))) {
        constexpr std::uint64_t shortest = 2000000; // to 64 ms, each doubling as often
        const auto length = (shortest + own.below(shortest)) << own.below(5);
        return pauseFor(static_cast<std::int64_t>(length), LongPause);
    }
    if (profile->gap == 0 || --own.untilPause != 0)
        return;
    own.drawGap();
    pauseNow(own);
}

bool happens(Effect effect, unsigned Profile::*chance) {
    if (profile == nullptr || !numbers().happens(profile->*chance))
        return false;
    note(effect);
    return true;
}

bool isInterrupted(void* caller) {
    point(caller);
    if (profile == nullptr || !isOurs(caller) || !happens(Interrupt, &Profile::interrupts))
        return false;
    errno = EINTR;
    return true;
}

// ---- the calls behind

/// The next library's. Conditions have an older form beside, which dlsym may find.
void* real(std::atomic<void*>& kept, const char* name, const char* version = nullptr) {
    void* found = kept.load(std::memory_order_relaxed);
    if (found == nullptr && version != nullptr)
        found = dlvsym(RTLD_NEXT, name, version);
    if (found == nullptr)
        found = dlsym(RTLD_NEXT, name);
    kept.store(found, std::memory_order_relaxed);
    return found;
}

#define REAL(name, ...)                                                                            \
    ([] {                                                                                          \
        static std::atomic<void*> kept{nullptr};                                                   \
        return reinterpret_cast<decltype(&name)>(real(kept, #name, ##__VA_ARGS__));                \
    }())

const Profile* findProfile(const char* name) {
    for (const auto& row : profiles)
        if (name != nullptr && std::strcmp(row.name, name) == 0)
            return &row;
    return nullptr;
}

__attribute__((constructor(101))) void begin() {
    const char* text = std::getenv("CHAOS_SEED");
    if (text == nullptr)
        return;
    seed = std::strtoull(text, nullptr, 10);
    began = monotonic();
    const char* name = std::getenv("CHAOS_PROFILE");
    profile = name != nullptr ? findProfile(name) : &profiles[seed % drawnProfiles];
    if (profile != nullptr)
        return;
    std::fprintf(stderr, "chaos: no profile '%s'; there are", name);
    for (const auto& row : profiles)
        std::fprintf(stderr, " %s", row.name);
    std::fprintf(stderr, "\n");
    _exit(2);
}

// ---- threads

struct Start {
    void* (*function)(void*);
    void* argument;
    std::uint64_t identity;
};

void* startThread(void* given) {
    const Start start = *static_cast<Start*>(given);
    delete static_cast<Start*>(given);
    auto& own = ownNumbers;
    own.begin(start.identity);
    if (own.happens(profile->lateStarts)) {
        note(LateStart);
        pauseNow(own);
    }
    return start.function(start.argument);
}

/// Only what our code starts itself: GLib ends the process where a thread of its own or of
/// GStreamer's cannot start, and a std::thread is the C++ library's.
bool cannotStart(void* caller) {
    return profile != nullptr && isOurs(caller) && happens(FailedStart, &Profile::failedStarts);
}

/// So that one step of the clock is seen by all.
std::int64_t offsetOfClock() {
    if (happens(ClockStep, &Profile::clockSteps)) {
        constexpr std::int64_t most = 7200LL * 1000000000;
        const auto range = static_cast<std::int64_t>(2 * most) >> numbers().below(24);
        clockOffset = static_cast<std::int64_t>(numbers().below(range)) - range / 2;
    }
    return clockOffset.load(std::memory_order_relaxed);
}

} // namespace

/// What was done, for a person. Static memory: one caller at a time.
EXPORTED const char* chaosDescribe();
EXPORTED const char* chaosDescribe() {
    static char text[256];
    int length = std::snprintf(text, sizeof text,
                               "seed %llu, profile %s:", static_cast<unsigned long long>(seed),
                               profile != nullptr ? profile->name : "none");
    for (int i = 0; i < Effects; ++i)
        if (const unsigned count = counts[i]; count != 0)
            length += std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length),
                                    " %u %s", count, effectNames[i]);
    return text;
}

EXPORTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                            void* (*function)(void*), void* argument) {
    auto* const next = REAL(pthread_create);
    if (profile == nullptr)
        return next(thread, attributes, function, argument);
    point(CALLER);
    if (cannotStart(CALLER))
        return EAGAIN;
    auto& own = numbers();
    auto* const start =
        new Start{function, argument, mix(own.identity + ++own.children * 0x9e3779b9U) | 1U};
    const int result = next(thread, attributes, startThread, start);
    if (result != 0)
        delete start;
    point(CALLER);
    return result;
}

EXPORTED GThread* g_thread_try_new(const gchar* name, GThreadFunc function, gpointer argument,
                                   GError** error) {
    if (!cannotStart(CALLER))
        return REAL(g_thread_try_new)(name, function, argument, error);
    g_set_error(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "%s", g_strerror(EAGAIN));
    return nullptr;
}

// ---- locks and conditions

EXPORTED int pthread_mutex_lock(pthread_mutex_t* mutex) {
    point(CALLER);
    return REAL(pthread_mutex_lock)(mutex);
}

EXPORTED int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const int result = REAL(pthread_mutex_unlock)(mutex);
    point(CALLER);
    return result;
}

EXPORTED int pthread_cond_signal(pthread_cond_t* condition) {
    point(CALLER);
    const int result = REAL(pthread_cond_signal, "GLIBC_2.3.2")(condition);
    point(CALLER);
    return result;
}

EXPORTED int pthread_cond_broadcast(pthread_cond_t* condition) {
    point(CALLER);
    const int result = REAL(pthread_cond_broadcast, "GLIBC_2.3.2")(condition);
    point(CALLER);
    return result;
}

namespace {

/// Waits are the product's own only where its code calls for them: others' may not look again.
bool wakesForNothing(void* caller) {
    point(caller);
    return profile != nullptr && isOurs(caller) && happens(IdleWake, &Profile::idleWakes);
}

void letOthersIn(pthread_mutex_t* mutex) {
    pthread_mutex_unlock(mutex);
    pauseNow(numbers());
    pthread_mutex_lock(mutex);
}

} // namespace

EXPORTED int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    if (wakesForNothing(CALLER))
        return letOthersIn(mutex), 0;
    return REAL(pthread_cond_wait, "GLIBC_2.3.2")(condition, mutex);
}

EXPORTED int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                    const timespec* deadline) {
    if (wakesForNothing(CALLER))
        return letOthersIn(mutex), 0;
    return REAL(pthread_cond_timedwait, "GLIBC_2.3.2")(condition, mutex, deadline);
}

EXPORTED int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                    clockid_t clock, const timespec* deadline) {
    if (wakesForNothing(CALLER))
        return letOthersIn(mutex), 0;
    return REAL(pthread_cond_clockwait)(condition, mutex, clock, deadline);
}

// GLib's have nothing of the C library's beneath them.

EXPORTED void g_mutex_lock(GMutex* mutex) {
    point(CALLER);
    REAL(g_mutex_lock)(mutex);
}

EXPORTED void g_mutex_unlock(GMutex* mutex) {
    REAL(g_mutex_unlock)(mutex);
    point(CALLER);
}

EXPORTED void g_rec_mutex_lock(GRecMutex* mutex) {
    point(CALLER);
    REAL(g_rec_mutex_lock)(mutex);
}

EXPORTED void g_rec_mutex_unlock(GRecMutex* mutex) {
    REAL(g_rec_mutex_unlock)(mutex);
    point(CALLER);
}

EXPORTED void g_cond_signal(GCond* condition) {
    point(CALLER);
    REAL(g_cond_signal)(condition);
    point(CALLER);
}

EXPORTED void g_cond_broadcast(GCond* condition) {
    point(CALLER);
    REAL(g_cond_broadcast)(condition);
    point(CALLER);
}

namespace {

void letOthersInGLib(GMutex* mutex) {
    g_mutex_unlock(mutex);
    pauseNow(numbers());
    g_mutex_lock(mutex);
}

} // namespace

EXPORTED void g_cond_wait(GCond* condition, GMutex* mutex) {
    if (wakesForNothing(CALLER))
        return letOthersInGLib(mutex);
    REAL(g_cond_wait)(condition, mutex);
}

EXPORTED gboolean g_cond_wait_until(GCond* condition, GMutex* mutex, gint64 end) {
    if (wakesForNothing(CALLER))
        return letOthersInGLib(mutex), TRUE;
    return REAL(g_cond_wait_until)(condition, mutex, end);
}

// ---- calls of the system

EXPORTED int mq_timedsend(mqd_t queue, const char* bytes, std::size_t size, unsigned int priority,
                          const timespec* deadline) {
    if (isInterrupted(CALLER))
        return -1;
    return REAL(mq_timedsend)(queue, bytes, size, priority, deadline);
}

EXPORTED ssize_t mq_timedreceive(mqd_t queue, char* bytes, std::size_t size, unsigned int* priority,
                                 const timespec* deadline) {
    if (isInterrupted(CALLER))
        return -1;
    return REAL(mq_timedreceive)(queue, bytes, size, priority, deadline);
}

EXPORTED int poll(pollfd* waiting, nfds_t count, int timeout) {
    if (isInterrupted(CALLER))
        return -1;
    return REAL(poll)(waiting, count, timeout);
}

EXPORTED int ppoll(pollfd* waiting, nfds_t count, const timespec* timeout,
                   const sigset_t* signals) {
    if (isInterrupted(CALLER))
        return -1;
    return REAL(ppoll)(waiting, count, timeout, signals);
}

EXPORTED ssize_t recvfrom(int fd, void* bytes, std::size_t size, int flags, sockaddr* address,
                          socklen_t* length) {
    if (isInterrupted(CALLER))
        return -1;
    return REAL(recvfrom)(fd, bytes, size, flags, address, length);
}

EXPORTED ssize_t recvmsg(int fd, msghdr* message, int flags) {
    if (isInterrupted(CALLER))
        return -1;
    return REAL(recvmsg)(fd, message, flags);
}

EXPORTED ssize_t sendto(int fd, const void* bytes, std::size_t size, int flags,
                        const sockaddr* address, socklen_t length) {
    if (isInterrupted(CALLER))
        return -1;
    return REAL(sendto)(fd, bytes, size, flags, address, length);
}

/// Interrupted at its beginning: all of it is left.
EXPORTED int nanosleep(const timespec* time, timespec* left) {
    if (!isInterrupted(CALLER))
        return REAL(nanosleep)(time, left);
    if (left != nullptr)
        *left = *time;
    return -1;
}

EXPORTED int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    if (!isInterrupted(CALLER))
        return REAL(clock_nanosleep)(clock, flags, time, left);
    if (left != nullptr && (flags & TIMER_ABSTIME) == 0)
        *left = *time;
    return EINTR;
}

// ---- the time of day

EXPORTED int clock_gettime(clockid_t clock, timespec* time) {
    const int result = REAL(clock_gettime)(clock, time);
    if (result != 0 || profile == nullptr ||
        (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE))
        return result;
    const std::int64_t now = time->tv_sec * 1000000000LL + time->tv_nsec + offsetOfClock();
    time->tv_sec = now / 1000000000;
    time->tv_nsec = now % 1000000000;
    return result;
}

EXPORTED time_t time(time_t* seconds) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (seconds != nullptr)
        *seconds = now.tv_sec;
    return now.tv_sec;
}

EXPORTED int gettimeofday(timeval* time, void*) {
    timespec now{};
    const int result = clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return result;
}

// ---- memory

/// The one operator new whose callers look.
__attribute__((visibility("default"))) void* operator new(std::size_t size,
                                                          const std::nothrow_t&) noexcept {
    if (isOurs(CALLER) && happens(FailedMemory, &Profile::failedMemory))
        return nullptr;
    return std::malloc(size != 0 ? size : 1);
}
