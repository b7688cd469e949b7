#include "walk.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace chaos {

namespace {

using Clock = std::chrono::steady_clock;

struct Promise {
    const char* what;
    milliseconds bound;
    milliseconds since; ///< fair time
    std::thread::id keeper;
};

/// Entries may vanish meanwhile.
template <typename Visit>
void eachIn(const std::filesystem::path& folder, Visit visit) {
    std::error_code error;
    for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
         at.increment(error))
        visit(at->path());
}

/// Nanoseconds that all threads of the box, the main system's too, have waited for a processor.
std::int64_t waitedForProcessor() {
    std::int64_t sum = 0;
    const auto add = [&](const std::filesystem::path& thread) {
        std::ifstream file(thread / "schedstat");
        std::int64_t ran = 0, waited = 0;
        if (file >> ran >> waited)
            sum += waited;
    };
    eachIn("/proc", [&](const std::filesystem::path& process) {
        if (std::isdigit(static_cast<unsigned char>(process.filename().native()[0])) != 0)
            eachIn(process / "task", add);
    });
    return sum;
}

/// Keeps the fair time, and looks whether promises are kept.
class Watch {
public:
    static Watch& instance() {
        static Watch& watch = *new Watch; // its thread outlives static objects
        return watch;
    }

    milliseconds fairTime() const { return milliseconds(m_fair.load() / 1000000); }

    void begin(const char* what, milliseconds bound) {
        const std::lock_guard lock(m_mutex);
        m_promises.push_back({what, bound, fairTime(), std::this_thread::get_id()});
    }
    /// The newest of the calling thread.
    void end() {
        const std::lock_guard lock(m_mutex);
        const auto own = std::find_if(m_promises.rbegin(), m_promises.rend(), [](const auto& row) {
            return row.keeper == std::this_thread::get_id();
        });
        m_promises.erase(std::next(own).base());
    }

private:
    Watch() {
        std::thread([this] { run(); }).detach();
    }

    [[noreturn]] void run() {
        auto before = Clock::now();
        std::int64_t waitedBefore = waitedForProcessor();
        for (;;) {
            std::this_thread::sleep_for(milliseconds(20));
            const auto now = Clock::now();
            const std::int64_t waited = waitedForProcessor();
            const std::int64_t passed = std::chrono::nanoseconds(now - before).count();
            m_fair += passed - std::clamp(waited - waitedBefore, std::int64_t{0}, passed);
            before = now;
            waitedBefore = waited;
            look();
        }
    }
    void look() {
        const std::lock_guard lock(m_mutex);
        for (const auto& promise : m_promises) {
            const auto took = fairTime() - promise.since;
            if (took <= promise.bound + grace)
                continue;
            std::fprintf(stderr, "hang: %s takes more than %lld ms\n", promise.what,
                         static_cast<long long>(took.count()));
            kill(getpid(), SIGSTOP);
            for (;;) // it may take a moment
                ::pause();
        }
    }

    std::atomic<std::int64_t> m_fair{0}; // nanoseconds
    std::mutex m_mutex;                  // guards m_promises
    std::list<Promise> m_promises;
};

} // namespace

void fail(const std::string& what) {
    std::fprintf(stderr, "broken: %s\n", what.c_str());
    _exit(1);
}

milliseconds fairTime() {
    return Watch::instance().fairTime();
}

Bounded::Bounded(const char* what, milliseconds bound) {
    Watch::instance().begin(what, bound);
}

Bounded::~Bounded() {
    Watch::instance().end();
}

void pause(milliseconds time) {
    std::this_thread::sleep_for(time);
}

} // namespace chaos
