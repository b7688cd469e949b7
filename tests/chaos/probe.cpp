// Says what each call of each of its threads met, a line a thread: '.' nothing, 'i' an interrupt,
// 'n' no memory, 't' no thread, 'c' a step of the time of day. Then what was done, as libchaos.so
// tells.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <mutex>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int rounds = 200;

bool isNear(const timespec& before, const timespec& now) {
    return std::abs(now.tv_sec - before.tv_sec) < 2;
}

bool canStartThread() {
    pthread_t thread{};
    if (pthread_create(
            &thread, nullptr, [](void* none) { return none; }, nullptr) != 0)
        return false;
    return pthread_join(thread, nullptr) == 0;
}

std::string look(std::mutex& mutex) {
    std::string met;
    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    for (int i = 0; i < rounds; ++i) {
        { const std::lock_guard lock(mutex); }
        met += poll(nullptr, 0, 0) < 0 && errno == EINTR ? 'i' : '.';
        void* const memory = ::operator new(16, std::nothrow);
        met += memory == nullptr ? 'n' : '.';
        ::operator delete(memory);
        met += canStartThread() ? '.' : 't';
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        met += isNear(before, now) ? '.' : 'c';
        before = now;
    }
    return met;
}

} // namespace

int main() {
    std::mutex mutex;
    std::vector<std::string> met(3);
    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < met.size(); ++i)
        threads.emplace_back([&, i] { met[i] = look(mutex); });
    met[0] = look(mutex);
    for (auto& thread : threads)
        thread.join();
    for (const auto& line : met)
        std::puts(line.c_str());
    const auto describe = reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "chaosDescribe"));
    std::puts(describe != nullptr ? describe() : "no libchaos.so");
}
