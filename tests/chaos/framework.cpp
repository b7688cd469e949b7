// What the run-time framework does beside: the shell, configuration files, logs.

#include "config/cfg_file.h"
#include "config/cfg_file_thread.h"
#include "debug/log/rol_log.h"
#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace.h"
#include "scenarios.h"
#include "set.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <regex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace chaos {

namespace {

constexpr milliseconds atOnce{0};
constexpr std::size_t commandSize = 1023;

/// The shell's client.
class Client {
public:
    Client() : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const auto own = address("/tmp/zant_dbg_client");
        require(bind(m_fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0,
                "the client has no socket");
    }
    ~Client() { close(m_fd); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Waits for room.
    void send(std::string bytes, std::size_t size = commandSize) {
        bytes.resize(size, '\0');
        const auto shell = address("/tmp/zant_dbg_server_uva");
        within(atOnce, "sending a command", [&] {
            while (sendto(m_fd, bytes.data(), bytes.size(), 0,
                          reinterpret_cast<const sockaddr*>(&shell), sizeof shell) < 0)
                require(errno == EINTR || errno == ENOBUFS || errno == EAGAIN,
                        std::string("no shell: ") + std::strerror(errno));
        });
    }
    /// Empty: none within the time.
    std::string reply(milliseconds time) {
        pollfd waiting{m_fd, POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(time.count())) <= 0)
            return "";
        char text[8] = "";
        const auto length = recv(m_fd, text, sizeof text, 0);
        return length > 0 ? text : "";
    }

private:
    static sockaddr_un address(const char* path) {
        sockaddr_un result{};
        result.sun_family = AF_UNIX;
        std::strncpy(result.sun_path, path, sizeof result.sun_path - 1);
        return result;
    }
    const int m_fd;
};

std::string randomLine(Random& random) {
    static const std::initializer_list<const char*> lines = {
        "m_help",
        "m_help groups",
        "m_help trace",
        "m_mse",
        "m_threadlist",
        "m_queuelist",
        "m_echo a,  b",
        "m_traceon 9 10",
        "m_traceon 4 10",
        "m_traceoffall",
        "m_traceonall 30",
        "m_tracestate",
        "m_timestampson",
        "m_timestampsoff",
        "m_tracedirectprintmode 0",
        "m_tracedirectprintmode 1",
        "m_traceusesyslog 0",
        "m_tracewithcolors 1",
        "m_gst_debug_set_threshold uvabackend:4",
        "m_gst_debug_set_threshold *:0",
        "m_gst_debug_set_threshold",
        "m_tracelogfilemaxsize 3000",
        "m_dumpqueue 9999",
        "deinit",
        "m_starttracingtoscreen",
        "m_stoptracingtoscreen"};
    if (!random.oneIn(6))
        return random.pick(lines);
    std::string noise(random.below(600), ' ');
    for (auto& character : noise)
        character = static_cast<char>(1 + random.below(255));
    return noise;
}

} // namespace

/// Each command that is one gets one answer, while elements come and go.
void shell(Random random) {
    playStandalone();
    std::filesystem::create_directory("/tmp/usb_logs"); // the trace log
    chmod("/tmp/usb_logs", 0755);
    library();
    { Player first(*library(), fed(), random.child()); } // starts the shell
    Client client;
    eventually(atOnce, "the shell's start",
               [] { return std::filesystem::exists("/tmp/zant_dbg_server_uva"); });
    std::thread host([numbers = random.child()]() mutable {
        walkWithPlayers(*library(), {url(), fed()}, numbers, 10);
    });
    for (unsigned int round = 8; round > 0; --round) {
        int expected = 0;
        for (unsigned int i = 1 + random.below(6); i > 0; --i) {
            if (random.oneIn(5)) {
                client.send("no command", 1 + random.below(2000) % (commandSize - 1));
                continue;
            }
            client.send(randomLine(random));
            ++expected;
        }
        client.send("m_echo");
        const Bounded bounded("the shell's answers", atOnce);
        std::string last;
        for (; expected >= 0; --expected)
            while ((last = client.reply(milliseconds(50))).empty()) {
            }
        require(last == "OK", "m_echo is answered with '" + last + "'");
        require(client.reply(atOnce).empty(), "a command is answered twice");
    }
    host.join();
}

// ---- configuration files and logs

namespace {

std::atomic<int> commandsRun{0};

int countCommand(CommandStruct*) {
    ++commandsRun;
    return 0;
}

std::string fileOf(int commands) {
    std::string text = "# a configuration\n";
    for (int i = 0; i < commands; ++i)
        text += i % 3 == 0 ? "UNKNOWN = 1 # nobody's\nMSHELL = chaos_count\n"
                           : "MSHELL = chaos_count # and a comment\n";
    return text;
}

/// Puts something else there, whole or in the middle of being written.
void rewrite(const std::string& path, Random& random) {
    const std::string beside = path + ".new";
    switch (random.below(6)) {
    case 0:
        std::filesystem::remove(path);
        break;
    case 1:
        mkfifo(beside.c_str(), 0644);
        break;
    case 2:
        std::filesystem::create_directory(beside);
        break;
    case 3: // in place
        if (std::filesystem::is_regular_file(path))
            std::ofstream(path) << fileOf(5) << "MSHELL";
        return;
    case 4: {
        std::ofstream broken(beside);
        for (int i = 0; i < 3000; ++i)
            broken.put(static_cast<char>(random.below(256)));
        break;
    }
    default:
        std::ofstream(beside) << fileOf(5);
        break;
    }
    std::error_code error;
    std::filesystem::rename(beside, path, error);
    if (error) {
        std::filesystem::remove_all(path, error);
        std::filesystem::rename(beside, path, error);
    }
}

/// All that a log has, and each line whole.
int requireWholeLines(const std::string& path, long maxSize) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error)
        return 0;
    require(size <= static_cast<std::uintmax_t>(maxSize), path + " is larger than it may be");
    static const std::regex whole("line [0-9]+ of [0-9]: x{40}");
    std::ifstream log(path);
    int count = 0;
    for (std::string line; std::getline(log, line); ++count)
        require(std::regex_match(line, whole), path + " has a torn line: " + line);
    return count;
}

} // namespace

/// Files that are rewritten, replaced and broken while they are run; a log that rotates under its
/// writers. A file that is there in one piece is run in one piece.
void configuration(Random random) {
    const std::string folder = "/tmp/chaos_configuration";
    std::filesystem::create_directory(folder);
    mshell.AddMshellInternalMshellCmds();
    mshell.AddMshellCmd(0, "chaos_count", "chaos", "", countCommand, nullptr, true);
    mshell.Init("zant_dbg_chaos");
    mshell.StartThread("zant_mshell_chaos", 0, 0);

    constexpr long maxSize = 2000;
    CRolLog log(folder.c_str(), "log", maxSize, ".LOG", ".BAK");
    require(log.OpenLogfile() == 0, "the log cannot be opened");

    std::atomic<bool> isRewriting{true};
    std::vector<std::thread> threads;
    const std::string moving = folder + "/moving.cfg";
    threads.emplace_back([&, numbers = random.child()]() mutable {
        while (isRewriting) {
            rewrite(moving, numbers);
            pause(milliseconds(numbers.below(2)));
        }
    });
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 2; ++reader)
        readers.emplace_back([&, reader, numbers = random.child()]() mutable {
            for (int i = 0; i < 30; ++i) {
                if (numbers.oneIn(2))
                    within(atOnce, "ReadCfgfile",
                           [&] { return CCfgFile().ReadCfgfile(moving.c_str()); });
                else
                    within(atOnce, "ExecuteCfgFileInSeparateThread",
                           [&] { cfgFileThread.ExecuteCfgFileInSeparateThread(moving.c_str()); });
                char line[128];
                std::snprintf(line, sizeof line, "line %d of %d: %s\n", i, reader,
                              std::string(40, 'x').c_str());
                require(log.WriteStringToLogfile(line) == 0, "a line is not logged");
            }
        });
    for (auto& reader : readers)
        reader.join();
    isRewriting = false;
    threads.front().join();

    // What was asked for before is through when the last file is.
    const std::string still = folder + "/still.cfg";
    std::ofstream(still) << fileOf(7);
    require(CCfgFile().ReadCfgfile(still.c_str()) == 0, "a file that is whole fails");
    eventually(atOnce, "the thread that runs files", [&] {
        const int before = commandsRun;
        cfgFileThread.ExecuteCfgFileInSeparateThread(still.c_str());
        pause(milliseconds(5));
        return commandsRun >= before + 7;
    });
    const int logged = requireWholeLines(folder + "/log.LOG", maxSize) +
                       requireWholeLines(folder + "/log.BAK", maxSize);
    require(logged > 20 && logged <= 60, "lines of the log are lost");
    mshell.StopThreadAndWait();
}

} // namespace chaos
