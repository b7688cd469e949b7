#include "probe.h"

#include "common/box_registry.h"
#include "common/offer.h"
#include "json.h"
#include "zantsh/exchange.h"
#include "zantsh/exit_code.h"
#include "zantsh/options.h"
#include "zantsh/process_output.h"
#include "zantsh/session.h"

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <optional>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace scope {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

constexpr milliseconds longestAnswer(5000);
constexpr milliseconds retry(500);
constexpr milliseconds wholeEvery(1000);
constexpr std::size_t mostPicture = 64 << 20; // bytes
constexpr std::size_t mostText = 8 << 20;     // bytes

double seconds(Clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

std::string base64(const std::string& bytes) {
    gchar* const text =
        g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size());
    std::string result = text;
    g_free(text);
    return result;
}

/// Where the player puts what it is asked for: its user's and root's, in memory.
class Folder {
public:
    Folder() {
        for (const char* const place : {"/dev/shm", "/tmp"}) {
            m_path = std::string(place) + "/uva-scope-XXXXXX";
            if (mkdtemp(m_path.data()) != nullptr)
                return;
        }
        throw zantsh::NoShell(std::string("no folder in /dev/shm or /tmp: ") + strerror(errno));
    }
    ~Folder() {
        std::error_code error;
        fs::remove_all(m_path, error);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    /// Root's folder is made the player's.
    void giveTo(uid_t owner) const {
        if (geteuid() == 0 && chown(m_path.c_str(), owner, static_cast<gid_t>(-1)) != 0)
            throw zantsh::NoShell("cannot prepare " + m_path + ": " + strerror(errno));
    }
    std::string path(const char* name) const { return m_path + "/" + name; }
    /// What is in the file, which goes; nothing when it is not there.
    std::optional<std::string> take(const char* name) const {
        std::ifstream file(path(name), std::ios::binary);
        if (!file)
            return std::nullopt;
        std::string text;
        char part[65536];
        while (text.size() <= mostText && (file.read(part, sizeof part), file.gcount() > 0))
            text.append(part, static_cast<std::size_t>(file.gcount()));
        fs::remove(path(name));
        return text;
    }

private:
    std::string m_path;
};

/// What an order came to.
struct Answer {
    bool ok = false;
    std::string text;
    std::string bytes;
};

/// Standard output is closed: the one who asked is gone. What was made for it still goes.
struct NobodyListens {};

class Probe {
public:
    explicit Probe(const ProbeOptions& options) : m_options(options) {
        m_shell.socket = options.socket;
        m_shell.timeout = longestAnswer;
        for (const auto& name : options.follow)
            m_logs.emplace_back(name, name);
    }

    void run() {
        auto due = Clock::now();
        while (takeOrders(due)) {
            if (Clock::now() < due)
                continue;
            const auto began = Clock::now();
            const bool saw = look();
            due = began + (saw ? m_options.period : retry);
        }
    }

private:
    static void tell(const Json& message) {
        const auto line = dump(message) + "\n";
        std::fwrite(line.data(), 1, line.size(), stdout);
        if (std::fflush(stdout) != 0)
            throw NobodyListens();
    }

    bool takeOrders(Clock::time_point due);
    bool look();
    std::string askState(bool isWhole);
    void checkRuns() const;
    void attach(pid_t process);
    void tellOutput();
    void tellSilence(const std::string& reason);
    void obey(const Json& order);
    Answer answer(const Json& order);
    Answer command(const std::string& line);
    Answer output(bool on);
    Answer graph(const std::string& backend);
    Answer picture() const;

    const ProbeOptions m_options;
    zantsh::Options m_shell;
    Folder m_folder;
    zantsh::Session m_session{m_shell, zantsh::Transcript::Scope::everything};
    std::vector<zantsh::FollowedFile> m_logs;
    pid_t m_process = 0;
    ScopedFd m_processFd;         ///< none: it cannot be seen from here
    Clock::time_point m_wholeDue; ///< all but the media is asked for less often
    std::string m_input;
};

/// False at the end of standard input.
bool Probe::takeOrders(Clock::time_point due) {
    const auto left = std::chrono::ceil<milliseconds>(due - Clock::now()).count();
    pollfd waiting{STDIN_FILENO, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(std::max<long>(left, 0))) <= 0)
        return true;
    char bytes[4096];
    const auto got = read(STDIN_FILENO, bytes, sizeof bytes);
    if (got == 0 || (got < 0 && errno != EINTR))
        return false;
    m_input.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    for (auto end = m_input.find('\n'); end != std::string::npos; end = m_input.find('\n')) {
        if (const auto order = parseForeign(m_input.substr(0, end)))
            obey(*order);
        m_input.erase(0, end + 1);
    }
    return true;
}

bool Probe::look() {
    try {
        checkRuns();
        const bool isWhole = Clock::now() >= m_wholeDue;
        const auto state = askState(isWhole);
        m_wholeDue = isWhole ? Clock::now() + wholeEvery : m_wholeDue;
        const auto mainSystem = tools::askForOffer("zant-mainsys", milliseconds(200), mostText);
        tell({{"kind", "state"},
              {"time", seconds(Clock::now())},
              {"process", m_process},
              {"state", state},
              {"main_system", mainSystem.value_or("")}});
        tellOutput();
        return true;
    } catch (const zantsh::NoShell& reason) {
        tellOutput();
        tellSilence(reason.what());
        return false;
    }
}

/// Who is stopped would not answer: nobody is kept from the shell by a question to it, nor by one
/// that it was stopped under.
void Probe::checkRuns() const {
    const auto process = std::to_string(m_process);
    std::ifstream file("/proc/" + process + "/stat");
    std::string stat;
    std::getline(file, stat);
    const auto name = stat.rfind(") ");
    if (name != std::string::npos && std::tolower(stat[name + 2]) == 't')
        throw zantsh::NoShell("process " + process + " is stopped, by a signal or a debugger; " +
                              "kill -CONT lets it go on after a signal");
}

/// The shell is let go after each question: others have their turn.
std::string Probe::askState(bool isWhole) {
    struct stat socket {};
    if (stat(("/tmp/" + m_options.socket).c_str(), &socket) == 0)
        m_folder.giveTo(socket.st_uid);
    fs::remove(m_folder.path("state"));
    pid_t process = 0;
    {
        zantsh::Exchange exchange(m_options.socket, longestAnswer, [this] { checkRuns(); });
        process = exchange.ask("m_state " + m_folder.path("state") + " quiet" +
                               (isWhole ? "" : " media"));
    }
    auto state = m_folder.take("state");
    if (!state)
        throw zantsh::NoShell("the player has no m_state, or could not write to " +
                              m_folder.path("state"));
    if (process != m_process) {
        attach(process);
        m_wholeDue = {};
    }
    return *std::move(state);
}

/// From the first command on its output is known.
void Probe::attach(pid_t process) {
    m_process = process;
    m_processFd.reset(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    m_session.run({"m_echo"}, [](const std::string&) {});
    if (const auto where = m_session.whereElse(); !where.empty())
        tell({{"kind", "note"}, {"text", where}});
}

void Probe::tellOutput() {
    if (const auto text = m_session.takeOther(); !text.empty())
        tell({{"kind", "traces"}, {"text", text}});
    for (auto& log : m_logs)
        if (const auto text = log.takeNew(); !text.empty())
            tell({{"kind", "log"}, {"text", text}});
}

void Probe::tellSilence(const std::string& reason) {
    pollfd ends{m_processFd.get(), POLLIN, 0}; // also when nobody has taken its exit code yet
    const bool ended = m_processFd && poll(&ends, 1, 0) > 0;
    tell({{"kind", "silent"}, {"reason", reason}, {"ended", ended}});
}

void Probe::obey(const Json& order) {
    Answer given;
    try {
        given = answer(order);
    } catch (const std::exception& error) {
        given.text = error.what();
    }
    m_wholeDue = {}; // to be seen at once
    tell({{"kind", "answer"},
          {"id", numberIn(order, "id").value_or(0)},
          {"ok", given.ok},
          {"text", given.text},
          {"bytes", base64(given.bytes)}});
}

Answer Probe::answer(const Json& order) {
    const auto what = textIn(order, "do");
    if (what == "command")
        return command(textIn(order, "line"));
    if (what == "output")
        return output(member(order, "on") == true);
    if (what == "graph")
        return graph(textIn(order, "backend"));
    return picture();
}

Answer Probe::command(const std::string& line) {
    Answer answer;
    const auto reply = m_session.run({line}, [&](const auto& text) { answer.text += text; });
    answer.ok = reply == zantsh::Reply::ok;
    if (!answer.text.empty()) // it stands among what is printed, too
        tell({{"kind", "traces"}, {"text", answer.text}});
    return answer;
}

/// What is printed from then on is known once something has been.
Answer Probe::output(bool on) {
    auto answer = command(on ? "m_starttracingtoscreen" : "m_stoptracingtoscreen");
    command("m_echo");
    return answer;
}

Answer Probe::graph(const std::string& backend) {
    auto answer = command("m_graph " + m_folder.path("graph") + " " + backend);
    if (auto graph = m_folder.take("graph"))
        answer.bytes = *std::move(graph);
    answer.ok = !answer.bytes.empty();
    return answer;
}

Answer Probe::picture() const {
    const auto name = "uva-host picture " + std::to_string(m_process);
    auto png = tools::askForOffer(name, milliseconds(3000), mostPicture);
    if (!png)
        return {false, "this player offers no picture: it is not uva-host, or does not answer", ""};
    if (png->empty())
        return {false, "there is no picture on the screen", ""};
    return {true, "", *std::move(png)};
}

int runHere(const ProbeOptions& options) {
    try {
        Probe(options).run();
        return 0;
    } catch (const NobodyListens&) {
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "uva-scope: %s\n", failure.what());
        return 1;
    }
}

/// Only a child belongs to the box's processes and sees them in its /proc.
int runInBox(const ProbeOptions& options) {
    const auto box = tvbox::findBox(options.box);
    if (!box)
        return 1; // it has ended
    tvbox::joinBox(*box);
    const pid_t child = fork();
    if (child < 0)
        throw tvbox::Failure(tvbox::withErrno("no process in box " + options.box));
    if (child == 0) {
        const int code = runHere(options);
        std::fflush(stdout);
        _exit(code);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

/// It ends when its scope has, at the end of standard input: Ctrl-C in a terminal reaches both, and
/// would leave the folder.
int runProbe(const ProbeOptions& options) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        std::signal(signal, SIG_IGN);
    return options.box.empty() ? runHere(options) : runInBox(options);
}

} // namespace scope
