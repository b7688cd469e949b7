#include "replay.h"

#include "host/backend_library.h"
#include "util/scoped_handles.h"
#include "uva/uva_drm_backend.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <map>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace replay {

namespace {

enum ChildExit { Played = 0, NoLibrary = 120, Hangs = 121 };

/// The child's side: plays, while the first thread watches for a call that hangs.
class Child {
public:
    Child(const Script& script, const Settings& settings, int record, int lines)
        : m_script(script), m_settings(settings), m_record(record), m_lines(lines) {}

    int run() const {
        if (m_settings.quiet)
            silence();
        // The pages of memory that is a file, so that nothing is left behind.
        setenv("UVA_RECORD", ("/proc/self/fd/" + std::to_string(m_record)).c_str(), 1);
        setenv("UVA_RECORD_PAYLOADS", "digest", 1);
        const auto loaded = host::BackendLibrary::load(m_settings.library);
        if (loaded.library == nullptr) {
            say(loaded.error);
            return NoLibrary;
        }
        host::ClearKey keys(host::ClearKey::Interface::PerRange);
        for (const auto& pair : m_settings.keys)
            keys.addKey(pair);
        if (!m_settings.keys.empty())
            UVA_OfferDRMBackend(host::clearKeySystem, &keys);
        Player player(m_script, *loaded.library, m_settings.pace,
                      [this](const std::string& line) { say(line); });
        return play(player);
    }

private:
    int play(Player& player) const {
        const auto played = std::async(std::launch::async, [&] { player.run(); });
        while (played.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
            if (!player.hangingCall().empty())
                std::_Exit(Hangs); // its thread cannot be ended
        return Played;
    }

    void say(const std::string& line) const {
        const auto text = line + "\n";
        if (write(m_lines, text.data(), text.size()) < 0)
            std::fputs(text.c_str(), stderr); // so many lines that the pipe is full
    }

    static void silence() {
        const ScopedFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(nowhere.get(), STDOUT_FILENO);
        dup2(nowhere.get(), STDERR_FILENO);
    }

    const Script& m_script;
    const Settings& m_settings;
    const int m_record;
    const int m_lines;
};

std::vector<char> contentOf(int file) {
    std::vector<char> bytes;
    char part[65536];
    ssize_t count = 0;
    while ((count = pread(file, part, sizeof part, static_cast<off_t>(bytes.size()))) > 0)
        bytes.insert(bytes.end(), part, part + count);
    return bytes;
}

std::string linesOf(int pipe) {
    std::string text;
    char part[4096];
    ssize_t count = 0;
    while ((count = read(pipe, part, sizeof part)) > 0)
        text.append(part, static_cast<std::size_t>(count));
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

/// The last call that did not return, and when the record made it.
const Entry* openCall(const Script& script) {
    const Entry* open = nullptr;
    for (const auto* calls : {&script.steps, &script.answers})
        for (const auto& call : *calls)
            if (call.answer == nullptr && (open == nullptr || call.entry->time > open->time))
                open = call.entry;
    return open;
}

/// That the process did not end by itself; nothing when it did.
std::vector<Difference> endOf(int status, const Script& played) {
    const bool hangs = WIFEXITED(status) && WEXITSTATUS(status) == Hangs;
    if (WIFEXITED(status) && WEXITSTATUS(status) == Played)
        return {};
    const Entry* const call = openCall(played);
    const std::string where = call != nullptr ? record::nameOf(*call) : "no call";
    Difference difference;
    difference.kind = hangs ? Difference::Kind::Hang : Difference::Kind::Crash;
    difference.what = call != nullptr ? record::rowOf(static_cast<Operation>(call->code)).name : "";
    difference.time = call != nullptr ? call->time : played.duration;
    const std::string how =
        WIFSIGNALED(status)
            ? std::string("the process ended with ") + strsignal(WTERMSIG(status))
            : "the process ended with exit code " + std::to_string(WEXITSTATUS(status));
    difference.text = hangs ? where + " does not return" : how + " inside " + where;
    return {difference};
}

} // namespace

Outcome replay(const record::Record& record, const Settings& settings) {
    const Script script = makeScript(record);
    if (!script.error.empty())
        return {{}, script.error};
    const ScopedFd file(memfd_create("uva-replay", MFD_CLOEXEC));
    int ends[2] = {-1, -1};
    if (!file || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return {{}, std::string("cannot begin: ") + std::strerror(errno)};
    const ScopedFd from(ends[0]);
    ScopedFd to(ends[1]);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        return {{}, std::string("cannot fork: ") + std::strerror(errno)};
    if (child == 0)
        std::exit(Child(script, settings, file.get(), to.get()).run());
    to.reset();
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const auto lines = linesOf(from.get());
    if (WIFEXITED(status) && WEXITSTATUS(status) == NoLibrary)
        return {{}, lines};
    if (!lines.empty() && !settings.quiet)
        std::fprintf(stderr, "%s\n", lines.c_str());
    const auto played = record::readRecord(contentOf(file.get()));
    if (!played.error.empty())
        return {{}, "the library was not recorded: " + played.error};
    Outcome outcome{endOf(status, makeScript(played)), {}};
    const auto differences = compare(record, played, settings.bounds);
    outcome.differences.insert(outcome.differences.end(), differences.begin(), differences.end());
    return outcome;
}

} // namespace replay
