#include "support/wait_until.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <memory>
#include <mqueue.h>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using support::waitUntil;
using Words = std::vector<std::string>;

constexpr uid_t nobody = 65534;

std::string read(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void write(const fs::path& path, const std::string& text) {
    std::ofstream(path) << text;
}

struct Result {
    int status = 0; ///< exit code, or minus the signal
    std::string out;
    std::string error;
};

/// A program started with its output going to files.
class Process {
public:
    Process(const Words& words, const fs::path& folder, uid_t user, const fs::path& cwd) {
        static int count = 0;
        m_output = folder / ("output" + std::to_string(++count));
        m_pid = fork();
        if (m_pid == 0)
            become(words, user, cwd);
    }
    ~Process() {
        if (m_pid > 0) {
            kill(SIGKILL);
            wait();
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void kill(int signal) const { ::kill(m_pid, signal); }
    pid_t pid() const { return m_pid; }
    std::string out() const { return read(m_output.string() + ".out"); }
    Result wait() {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = 0;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), out(),
                read(m_output.string() + ".error")};
    }

private:
    [[noreturn]] void become(const Words& words, uid_t user, const fs::path& cwd) const {
        const auto redirect = [&](const char* suffix, int to) {
            const auto path = m_output.string() + suffix;
            dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), to);
        };
        redirect(".out", STDOUT_FILENO);
        redirect(".error", STDERR_FILENO);
        setsid(); // no terminal: nobody's Ctrl-C ends the tests half-way
        if (user != geteuid() &&
            (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0))
            _exit(99);
        std::vector<char*> arguments;
        for (const auto& word : words)
            arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        if (chdir(cwd.c_str()) == 0)
            execvp(arguments[0], arguments.data());
        _exit(99);
    }

    fs::path m_output;
    pid_t m_pid = 0;
};

/// Runs each test as the caller and, if that is root, as a user without rights too. Works in a
/// folder under /tmp, with a copy of the programs that every user can reach.
class TvBox : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        m_user = std::string(GetParam()) == "Nobody" ? nobody : geteuid();
        if (m_user != geteuid() && geteuid() != 0)
            GTEST_SKIP() << "only root can become another user";
        char name[] = "/tmp/tvtestXXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        m_folder = name;
        ASSERT_EQ(chmod(name, 0777), 0);
        setenv("XDG_RUNTIME_DIR", (m_folder / "run").c_str(), 1);
        ASSERT_TRUE(fs::create_directory(m_folder / "run"));
        ASSERT_EQ(chown((m_folder / "run").c_str(), m_user, m_user == nobody ? nobody : getegid()),
                  0);
        ASSERT_EQ(chmod((m_folder / "run").c_str(), 0700), 0);
        setenv("PATH", "/usr/bin:/bin", 1); // folders that every user may search
        m_tvbox = m_folder / "tvbox";
        m_probe = m_folder / "probe";
        fs::copy_file(std::getenv("TVBOX"), m_tvbox);
        fs::copy_file("/proc/self/exe", m_probe);
        const auto trial = box({"--require"}, {"true"});
        if (trial.status == 125)
            GTEST_SKIP() << trial.error;
    }

    void TearDown() override {
        std::error_code ignored;
        if (!m_folder.empty())
            fs::remove_all(m_folder, ignored);
    }

    std::unique_ptr<Process> start(Words words, const fs::path& cwd = "/") const {
        return std::make_unique<Process>(words, m_folder, m_user, cwd);
    }
    std::unique_ptr<Process> startBox(Words options, const Words& command,
                                      const fs::path& cwd = "/") const {
        options.insert(options.begin(), m_tvbox);
        options.insert(options.end(), "--");
        options.insert(options.end(), command.begin(), command.end());
        return start(options, cwd);
    }
    Result box(const Words& options, const Words& command, const fs::path& cwd = "/") const {
        return startBox(options, command, cwd)->wait();
    }
    /// A path directly in /tmp that is this test's alone.
    std::string inTmp(const std::string& suffix) const { return m_folder.string() + suffix; }
    /// A script that says "ready" and then stays.
    static Words staying(const std::string& before = ":") {
        return {"sh", "-c", before + "; echo ready; exec sleep 1000"};
    }
    static bool ready(const Process& process) {
        return waitUntil([&] { return process.out().find("ready") != std::string::npos; });
    }

    uid_t m_user = 0;
    fs::path m_folder;
    std::string m_tvbox;
    std::string m_probe;
};

INSTANTIATE_TEST_SUITE_P(As, TvBox, testing::Values("Caller", "Nobody"),
                         [](const auto& user) { return std::string(user.param); });

TEST_P(TvBox, GivesQueuesRoomAndKeepsNamesApart) {
    // Each probe makes the same queue, shared memory and socket, and fails if one is there.
    const Words probe = {m_probe, "--probe", "names"};
    const auto first = startBox({}, probe);
    ASSERT_TRUE(ready(*first)) << first->wait().error;
    const auto second = startBox({}, probe);
    EXPECT_TRUE(ready(*second)) << second->wait().error;
    EXPECT_FALSE(fs::exists("/tmp/zant_dbg_tvbox_probe"));
    EXPECT_FALSE(fs::exists("/dev/shm/tvbox_probe"));
}

TEST_P(TvBox, BringsOutWhatIsNamedUnderTmp) {
    const auto media = inTmp(" a.mp4");
    const auto link = inTmp("-link");
    write(media, "film");
    ASSERT_EQ(chown(media.c_str(), m_user, static_cast<gid_t>(-1)), 0);
    fs::create_symlink(m_folder, link);
    const auto script = "cat \"$1\" && echo x > " + inTmp("-1") + " && mkdir -p " + inTmp("-2/d") +
                        " && echo y >" + inTmp("-2/d/f") + " && echo z > ${2#--out=} && echo n > " +
                        link + "/n && echo p > " + m_folder.string() + ".p1 && mv " + inTmp("-1") +
                        " \"$1\"";
    const auto result =
        box({"--keep", m_folder.string() + ".p*"},
            {"sh", "-c", script, "", media, "--out=" + inTmp("-3"), inTmp("-none")});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.out, "film");
    EXPECT_EQ(read(media), "x\n") << "replaced by renaming";
    EXPECT_EQ(read(inTmp("-2/d/f")), "y\n");
    EXPECT_EQ(read(inTmp("-3")), "z\n");
    EXPECT_EQ(read(m_folder / "n"), "n\n");
    EXPECT_EQ(read(inTmp(".p1")), "p\n");
    EXPECT_FALSE(fs::exists(inTmp("-1")) || fs::exists(inTmp("-none"))) << "nothing empty stays";
    struct stat info = {};
    EXPECT_EQ(stat(inTmp("-3").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, m_user);
    for (const auto& path : {media, link, inTmp("-2"), inTmp("-3"), inTmp(".p1")})
        fs::remove_all(path);
}

TEST_P(TvBox, WorksFromFoldersUnderTmp) {
    const auto name = m_folder.filename().string();
    EXPECT_EQ(box({}, {"sh", "-c", "echo a > here"}, m_folder).status, 0);
    EXPECT_EQ(read(m_folder / "here"), "a\n");
    // From /tmp itself: a program, an input and an output by relative paths.
    const auto result = box({}, {"cp", name + "/here", name + ".copy"}, "/tmp");
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(read(inTmp(".copy")), "a\n");
    fs::remove(inTmp(".copy"));
    const auto private_ = box({}, {"sh", "-c", "echo x > /tmp/GST_DEBUG; ls /tmp"});
    EXPECT_NE(private_.out.find("GST_DEBUG"), std::string::npos);
    EXPECT_FALSE(fs::exists("/tmp/GST_DEBUG"));
}

TEST_P(TvBox, ReplacesFilesOfEtcAndNothingOutside) {
    write(m_folder / "my=traces", "set 1");
    const auto given = (m_folder / "my=traces").string();
    const auto result = box({"--etc", given + "=tracesuva.cfg", "--etc", given},
                            {"sh", "-c",
                             "cat /etc/tracesuva.cfg /etc/my=traces; echo >/etc/preinit_x && "
                             "cmp /etc/passwd /tmp/.tvbox/etc/passwd && test -d /etc/ssl && "
                             "! (echo > /etc/passwd) 2>/dev/null"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.out, "set 1set 1");
    EXPECT_FALSE(fs::exists("/etc/tracesuva.cfg") || fs::exists("/etc/preinit_x"));
    for (const char* bad : {"/none=x", "/etc/passwd=a/b", "/etc/passwd=", "/etc", "/dev/zero=x"})
        EXPECT_EQ(box({"--etc", bad}, {"true"}).status, 125) << bad;
}

TEST_P(TvBox, CollectsSyslog) {
    const auto log = m_folder / "log";
    EXPECT_EQ(box({"--log", log}, {m_probe, "--probe", "syslog"}).status, 0);
    const auto text = read(log);
    EXPECT_NE(text.find(" local3.warning probe: two\\x0alines\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" user.notice <999>bare\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" local3.warning probe: last 1999\n"), std::string::npos);
    EXPECT_EQ(box({}, {m_probe, "--probe", "syslog"}).status, 0) << "drained though not kept";
}

TEST_P(TvBox, PassesExitCodesOn) {
    const struct {
        Words command;
        int status;
    } rows[] = {
        {{"sh", "-c", "exit 7"}, 7},
        {{"sh", "-c", "kill -9 $$"}, 128 + SIGKILL},
        {{"no-such-program"}, 127},
        {{m_folder / "run" / "x"}, 127},
        {{"/etc/passwd"}, 126},
        {{""}, 127},
        {{}, 125},
    };
    for (const auto& row : rows)
        EXPECT_EQ(box({}, row.command).status, row.status) << testing::PrintToString(row.command);
    EXPECT_EQ(box({"--nmae", "x"}, {"true"}).status, 125);
    EXPECT_EQ(box({"--name", "../x"}, {"true"}).status, 125);
}

TEST_P(TvBox, PassesASignalOnOnce) {
    const auto running = startBox(
        {}, {"sh", "-c", "trap 'echo got; exit 5' TERM; echo ready; while :; do sleep 0.05; done"});
    ASSERT_TRUE(ready(*running));
    kill(-running->pid(), SIGTERM); // as a terminal or a build server does: to the whole group
    const auto result = running->wait();
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.out, "ready\ngot\n");
}

/// Whether a process of this user has the word in its command line.
bool runs(const std::string& word) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        if (read(entry.path() / "cmdline").find(word) != std::string::npos)
            return true;
    }
    return false;
}

TEST_P(TvBox, LeavesNothingWhenKilled) {
    const auto mark = "98765" + std::to_string(getpid());
    auto killed = startBox({"--name", "gone"}, staying("(setsid sleep " + mark + " &)"));
    ASSERT_TRUE(ready(*killed));
    ASSERT_TRUE(waitUntil([&] { return runs(mark); }));
    killed->kill(SIGKILL);
    killed->wait();
    EXPECT_TRUE(waitUntil([&] { return !runs(mark); }));
    // The name is free again, and the record goes with the next look.
    EXPECT_EQ(start({m_tvbox, "--list"})->wait().out, "");
    EXPECT_FALSE(fs::exists(m_folder / "run" / "tvbox"));
    EXPECT_EQ(box({"--name", "gone"}, {"sh", "-c", "(setsid sleep " + mark + " &)"}).status, 0);
    EXPECT_FALSE(runs(mark)) << "what the command leaves behind ends with it";
}

TEST_P(TvBox, IsListedAndEnteredByName) {
    const auto running = startBox({"--name", "tv 1"}, {"true"})->wait();
    EXPECT_EQ(running.status, 125) << "not a name";
    // Not named as a path on the command line, which would bring it out.
    const auto first = startBox({"--name", "tv1"}, staying("cd /tmp; echo in > own"));
    ASSERT_TRUE(ready(*first));
    const auto list = start({m_tvbox, "--list"})->wait().out;
    EXPECT_EQ(list.substr(0, 4), "tv1\t") << list;
    const auto tmp = list.substr(list.find("/proc"), list.find("\tsh") - list.find("/proc"));
    EXPECT_EQ(box({"--name", "tv1"}, {"true"}).status, 125) << "the name is taken";
    const auto entered = start({m_tvbox, "--enter", "tv1", "--", "sh", "-c",
                                "cat /tmp/own; id -u; cat /proc/sys/fs/mqueue/msg_max; exit 4"})
                             ->wait();
    EXPECT_EQ(entered.status, 4) << entered.error;
    EXPECT_EQ(entered.out, "in\n" + std::to_string(m_user) + "\n256\n");
    EXPECT_EQ(start({"cat", tmp + "/own"})->wait().out, "in\n");
    EXPECT_EQ(start({m_tvbox, "--enter", "tv2", "true"})->wait().status, 125);
}

TEST_P(TvBox, RunsCompanionsAround) {
    const auto log = (m_folder / "companions").string();
    const auto mark = (m_folder / "mark").string();
    const auto result =
        box({"--companion-log", log, "--with",
             "sh -c 'trap \"echo ended; exit\" TERM; echo begun; touch " + mark +
                 "; while :; do sleep 0.05; done'"},
            {"sh", "-c", "while ! test -e " + mark + "; do sleep 0.05; done; echo command"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.out, "command\n");
    EXPECT_EQ(read(log), "begun\nended\n");
    EXPECT_EQ(box({"--main-system", "/none"}, {"echo", "x"}).out, "");
    EXPECT_EQ(box({"--main-system", "/none"}, {"true"}).status, 125);
    EXPECT_EQ(box({"--with", "sh 'open"}, {"true"}).status, 125);
}

TEST_P(TvBox, WaitsForTheMainSystemAndForNoOther) {
    const auto main = (m_folder / "zant-mainsys").string();
    fs::copy_file(std::getenv("ZANT_MAINSYS"), main);
    const auto with = [&](const std::string& program, const std::string& script,
                          const Words& more = {}) {
        Words options = {"--companion-log", m_folder / "main.log", "--main-system", program};
        options.insert(options.end(), more.begin(), more.end());
        return startBox(options, {"sh", "-c", script});
    };
    const auto silent = m_user == geteuid() ? with("sleep 1000", "echo ran") : nullptr; // for long
    // The queue is served when the command starts; where none is wanted, the command starts too.
    EXPECT_EQ(with(main, "ls /dev/mqueue")->wait().out.substr(0, 11), "BplayerAppI");
    EXPECT_EQ(with(main + " --down", "echo ran")->wait().out, "ran\n");

    // A second one is refused, and told who serves; when that one is killed, it takes over.
    const auto another = main + " --scenario /dev/null";
    const auto second =
        with(main, another + "; echo $?; ls /dev/mqueue; kill -KILL $(" + another +
                       " 2>&1 | sed -n 's/.* by zant-mainsys, process \\([0-9]*\\) .*/\\1/p'); "
                       "until " +
                       another + " 2> /dev/null; do :; done")
            ->wait();
    EXPECT_EQ(second.status, 0) << second.error;
    EXPECT_EQ(second.out.substr(0, 13), "3\nBplayerAppI");
    EXPECT_NE(second.error.find("' ended with 137 while the command runs"), std::string::npos);

    const auto dead = with(main + " --audio x", "echo ran")->wait();
    EXPECT_EQ(dead.status, 125);
    EXPECT_EQ(dead.out, "");
    EXPECT_NE(dead.error.find("' ended before it served its queue"), std::string::npos);
    EXPECT_NE(read(m_folder / "main.log").find("--audio: "), std::string::npos);
    const auto stopped = with("sh -c 'echo begun; exec sleep 1000'", "echo ran");
    EXPECT_TRUE(waitUntil(
        [&] { return read(m_folder / "main.log").find("begun\n") != std::string::npos; }));
    stopped->kill(SIGTERM);
    EXPECT_EQ(stopped->wait().status, 128 + SIGTERM);
    EXPECT_EQ(stopped->out(), "");

    if (!silent)
        return;
    const auto late = silent->wait();
    EXPECT_EQ(late.status, 125);
    EXPECT_EQ(late.out, "");
    EXPECT_NE(late.error.find("did not say within 20 s that it serves its queue"),
              std::string::npos)
        << late.error;
}

/// Where a box cannot be made.
std::string forbidden(const std::string& command) {
    return "unshare -Ur sh -c 'echo 0 > /proc/sys/user/max_mnt_namespaces && exec " + command + "'";
}

TEST_P(TvBox, LeavesNothingInTmpAndSharesNoTraceLog) {
    // In a box around, whose /tmp is this test's alone.
    const auto tvbox = "env -u XDG_RUNTIME_DIR " + m_tvbox + " sh -c ";
    const std::string makeLog =
        "\"mkdir -p /tmp/usb_logs; ls /tmp/usb_logs; echo mine > /tmp/usb_logs/log\"";
    const auto result = box(
        {}, {"sh", "-c",
             "before=$(ls -A /tmp); " + tvbox + makeLog +
                 " && mkdir /tmp/usb_logs && echo theirs > /tmp/usb_logs/log && " + tvbox +
                 makeLog + " && cat /tmp/usb_logs/log && rm -r /tmp/usb_logs && " +
                 forbidden(tvbox + "\"echo plain\"") + "; [ \"$(ls -A /tmp)\" = \"$before\" ]"});
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.out, "theirs\nplain\n");
}

TEST_P(TvBox, FallsBackToPlainRunsOneAtATime) {
    const auto forbidden = [&](const std::string& options, const std::string& command) {
        return start({"unshare", "-Ur", "sh", "-c",
                      "echo 0 > /proc/sys/user/max_mnt_namespaces && exec " + m_tvbox + " " +
                          options + " sh -c '" + command + "'"});
    };
    const auto running = forbidden("", "echo ready; read x < " + inTmp("/fifo") + "; exit 9");
    ASSERT_EQ(mkfifo((m_folder / "fifo").c_str(), 0666), 0);
    ASSERT_EQ(chmod((m_folder / "fifo").c_str(), 0666), 0);
    ASSERT_TRUE(ready(*running)) << running->wait().error;
    const auto next = forbidden("", "echo ready");
    EXPECT_EQ(forbidden("--require", "true")->wait().status, 125);
    EXPECT_EQ(next->out(), "");
    write(m_folder / "fifo", "go\n");
    const auto result = running->wait();
    EXPECT_EQ(result.status, 9);
    EXPECT_NE(result.error.find("sysctl -w user.max_mnt_namespaces"), std::string::npos)
        << result.error;
    EXPECT_EQ(next->wait().status, 0);
}

int probeNames() {
    struct mq_attr room = {};
    room.mq_maxmsg = 50;
    room.mq_msgsize = 48;
    const int flags = O_CREAT | O_EXCL | O_RDWR;
    const auto queue = mq_open("/tvbox_probe", flags | O_NONBLOCK, 0600, &room);
    const char message[48] = {};
    for (int i = 0; i < 50; ++i) {
        if (mq_send(queue, message, sizeof message, 0) != 0)
            return perror("queue"), 1;
    }
    if (shm_open("/tvbox_probe", flags, 0600) < 0)
        return perror("shared memory"), 1;
    struct sockaddr_un address = {AF_UNIX, "/tmp/zant_dbg_tvbox_probe"};
    if (bind(socket(AF_UNIX, SOCK_DGRAM, 0), reinterpret_cast<struct sockaddr*>(&address),
             sizeof address) != 0)
        return perror("socket"), 1;
    puts("ready");
    fflush(stdout);
    return pause();
}

int probeSyslog() {
    openlog("probe", 0, LOG_LOCAL3);
    syslog(LOG_WARNING, "two\nlines");
    struct sockaddr_un address = {AF_UNIX, "/dev/log"};
    sendto(socket(AF_UNIX, SOCK_DGRAM, 0), "<999>bare", 9, 0,
           reinterpret_cast<struct sockaddr*>(&address), sizeof address);
    for (int i = 0; i < 2000; ++i) // more than the socket holds
        syslog(LOG_WARNING, "last %d", i);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--probe")
        return std::string(argv[2]) == "names" ? probeNames() : probeSyslog();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
