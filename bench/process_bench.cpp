// What a process with the library costs besides its playing: its start, a whole playback against
// gst-play-1.0, and what it does while there is nothing to do. Every turn is a process of its own,
// this program in a role.

#include "backend_player.h"

#include <gst/gst.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// ---- the roles

/// The library, loaded as a host loads it.
bench::BackendEntries load() {
    const char* const path = std::getenv("UVA_BACKEND_LIBRARY");
    void* const library = dlopen(path != nullptr ? path : "libuvagstbackend.so", RTLD_NOW);
    if (library == nullptr)
        bench::fail(dlerror());
    bench::BackendEntries entries{};
    *reinterpret_cast<void**>(&entries.request) = dlsym(library, "UVA_RequestBackend");
    *reinterpret_cast<void**>(&entries.release) = dlsym(library, "UVA_ReleaseBackend");
    return entries;
}

class Deaf final : public UVAClient {
    void deliverEvent(UVAEvent* event) override { delete event; }
};

/// Tells how long the first backend took to come, and how much memory.
void asStarter() {
    gst_init(nullptr, nullptr);
    Deaf client;
    const double before = bench::residentMegabytes();
    UVAMediaBackend* backend = nullptr;
    const double taken =
        bench::seconds([&] { backend = load().request(UVABackend::VideoElement, &client); });
    std::fprintf(bench::lines, "%f %f\n", taken * 1e3, bench::residentMegabytes() - before);
    load().release(backend);
}

void asPlayer() {
    bench::BackendPlayer player(load(), bench::fileUrl());
    player.play();
    player.waitForEnd();
}

[[noreturn]] void waitToBeEnded() {
    std::fprintf(bench::lines, "ready\n");
    std::fflush(bench::lines);
    for (;;)
        pause();
}

void asIdler() {
    const bench::BackendPlayer player(load(), bench::fileUrl());
    waitToBeEnded();
}

void asPauser() {
    bench::BackendPlayer player(load(), bench::fileUrl());
    player.play();
    sleep(1); // as long as it plays
    player.pause();
    waitToBeEnded();
}

void asBarePauser() {
    gst_init(nullptr, nullptr);
    GstElement* const playbin = gst_element_factory_make("playbin", nullptr);
    g_object_set(playbin, "uri", bench::fileUrl().c_str(), nullptr);
    gst_element_set_state(playbin, GST_STATE_PLAYING);
    sleep(1);
    gst_element_set_state(playbin, GST_STATE_PAUSED);
    waitToBeEnded();
}

// ---- the turns

class Process {
public:
    explicit Process(std::vector<std::string> words) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            bench::fail("no pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        const int error =
            posix_spawnp(&m_id, arguments[0], &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        m_output = fdopen(ends[0], "re");
        if (error != 0)
            bench::fail(words[0] + ": " + strerror(error));
    }
    Process(const Process&) = delete;
    ~Process() {
        std::fclose(m_output);
        if (m_id < 0)
            return;
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
    }

    std::FILE* output() const { return m_output; }

    /// What it has used, once it has ended; its output is read away meanwhile.
    rusage finish() {
        while (std::fgetc(m_output) != EOF)
            ;
        int status = 0;
        rusage usage{};
        if (wait4(m_id, &status, 0, &usage) != m_id || status != 0)
            bench::fail("a process failed; see above");
        m_id = -1;
        return usage;
    }

    /// Processor time that it has used so far.
    double processorSeconds() const {
        clockid_t clock{};
        timespec used{};
        if (clock_getcpuclockid(m_id, &clock) != 0 || clock_gettime(clock, &used) != 0)
            bench::fail("a process has ended; see above");
        return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    }

    /// How often its threads have been woken.
    double wakeUps() const {
        double sum = 0;
        const auto threads = "/proc/" + std::to_string(m_id) + "/task";
        for (const auto& thread : std::filesystem::directory_iterator(threads)) {
            std::ifstream status(thread.path() / "status");
            double count = 0;
            for (std::string word; status >> word;)
                if (word == "voluntary_ctxt_switches:" && status >> count)
                    sum += count;
        }
        return sum;
    }

private:
    pid_t m_id = -1;
    std::FILE* m_output = nullptr;
};

std::vector<std::string> inRole(const char* role) {
    return {"/proc/self/exe", "1", role, bench::file};
}

void start() {
    bench::Values milliseconds, megabytes;
    for (int i = bench::share(101); i > 0; --i) {
        Process starter(inRole("as_starter"));
        double taken = 0, grown = 0;
        if (std::fscanf(starter.output(), "%lf %lf", &taken, &grown) != 2)
            bench::fail("the library did not start");
        starter.finish();
        milliseconds.push_back(taken);
        megabytes.push_back(grown);
    }
    bench::report("start", milliseconds);
    bench::report("start_memory", megabytes);
}

double processorSeconds(const rusage& usage) {
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void whole() {
    bench::Values memory[2];
    const auto side = [&memory](std::vector<std::string> words, int which) {
        return [&memory, words, which] {
            const rusage usage = Process(words).finish();
            memory[which].push_back(static_cast<double>(usage.ru_maxrss) / 1e3);
            return processorSeconds(usage);
        };
    };
    bench::compare("whole_processor", bench::share(15, 1), side(inRole("as_player"), 0),
                   side({"gst-play-1.0", "--no-interactive", "--quiet", bench::file}, 1));
    bench::report("whole_memory", memory[0], memory[1]);
}

/// Of all at the same time, each turn of a second.
void wakeUps() {
    Process sides[] = {Process(inRole("as_idler")), Process(inRole("as_pauser")),
                       Process(inRole("as_bare_pauser"))};
    for (Process& side : sides)
        if (std::fgetc(side.output()) == EOF)
            bench::fail("a process failed; see above");
    std::this_thread::sleep_for(std::chrono::seconds(bench::share(2, 0))); // until they are quiet
    bench::Values rates[3];
    for (int turn = bench::share(30, 1); turn > 0; --turn) {
        double before[3];
        for (int i = 0; i < 3; ++i)
            before[i] = sides[i].wakeUps();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        for (int i = 0; i < 3; ++i)
            rates[i].push_back(sides[i].wakeUps() - before[i]);
    }
    bench::report("wakeups_idle", rates[0]);
    bench::report("wakeups_paused", rates[1], rates[2]);
}

/// What share of a core a player takes that stands still, in percent.
double shareOfCore(const Process& player) {
    const auto seconds = std::chrono::seconds(bench::share(20, 1));
    const double before = player.processorSeconds();
    std::this_thread::sleep_for(seconds);
    return (player.processorSeconds() - before) / static_cast<double>(seconds.count()) * 100;
}

/// Looked at by uva-scope or not. That asks ten times a second, whether or not a page is open.
void watched() {
    const Process player(inRole("as_pauser"));
    if (std::fgetc(player.output()) == EOF)
        bench::fail("a process failed; see above");
    const auto settle = [] { std::this_thread::sleep_for(std::chrono::seconds(2)); };
    bench::compare(
        "watched", bench::share(5, 1),
        [&] {
            const Process scope({"uva-scope"});
            if (std::fgetc(scope.output()) == EOF) // the first of its page's address
                bench::fail("uva-scope did not start: is it built, and in PATH?");
            settle();
            return shareOfCore(player);
        },
        [&] {
            settle();
            return shareOfCore(player);
        });
}

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv,
                      {{"start", start},
                       {"whole", whole},
                       {"wakeups", wakeUps},
                       {"watched", watched},
                       {"as_starter", asStarter},
                       {"as_player", asPlayer},
                       {"as_idler", asIdler},
                       {"as_pauser", asPauser},
                       {"as_bare_pauser", asBarePauser}});
}
