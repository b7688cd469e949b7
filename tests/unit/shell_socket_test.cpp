// The shell's thread and socket, with real datagrams, in a /tmp of this program's own.

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "support/private_tmp.h"
#include "support/wait_until.h"
#include "trace_fixture.h"
#include "util/scoped_handles.h"
#include "util/socket_comm.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>

namespace {

using support::waitUntil;
using Clock = std::chrono::steady_clock;

const bool hasPrivateTmp = support::makePrivateTmp();
/// Seconds: far from what a stop would take that waits for a sleep or a reply, whatever the
/// machine.
constexpr double promptly = 10;
constexpr const char* serverName = "zant_dbg_test";
constexpr const char* serverPath = "/tmp/zant_dbg_test";

/// Says what the child of a fork found, as its exit code.
template <typename Work>
int inChild(Work work) {
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ShellSocketTest : public TraceTest {
protected:
    void SetUp() override {
        if (!hasPrivateTmp)
            GTEST_SKIP() << "no namespaces here";
        zantTrace.SetTraceOn(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_INFO);
    }
    void TearDown() override { std::filesystem::remove_all(serverPath); }

    void start() {
        shell.Init(serverName);
        shell.StartThread("shell", 0, 0);
        ASSERT_TRUE(waitUntil([&] { return sendBytes("?"); })); // too short to be answered
    }

    /// Seconds that a stop takes.
    double stop() {
        const auto begin = Clock::now();
        shell.StopThreadAndWait();
        return std::chrono::duration<double>(Clock::now() - begin).count();
    }

    bool sendBytes(const std::string& bytes) {
        return SocketComm_Sendto(client.get(), bytes.data(), static_cast<unsigned>(bytes.size()),
                                 serverName, 5000) == static_cast<int>(bytes.size());
    }
    bool send(std::string line) {
        line.resize(1023, '\0');
        return sendBytes(line);
    }
    /// The reply, "" when none comes in that time.
    std::string reply(int milliseconds = 20000) {
        char bytes[16] = {};
        const int size = SocketComm_Recvfrom(client.get(), bytes, sizeof bytes, 0, nullptr, nullptr,
                                             milliseconds);
        return size < 1 ? "" : std::string(bytes, static_cast<size_t>(size) - 1);
    }
    std::string ask(const std::string& line) { return send(line) ? reply() : "not sent"; }

    CMshell shell;
    ScopedFd client{hasPrivateTmp ? SocketComm_Start("zant_dbg_client", MSG_DONTWAIT) : -1};
};

TEST_F(ShellSocketTest, AnswersAndGoesOnWhateverComes) {
    start();
    EXPECT_EQ(ask("m_echo hello"), "OK");
    EXPECT_EQ(ask("m_nosuch"), "ERR");
    EXPECT_EQ(ask(std::string("m_echo\0junk", 11)), "OK");
    EXPECT_EQ(ask(std::string(1023, '\xff')), "ERR");
    for (const size_t size : {1U, 1022U, 1024U, 4000U})
        EXPECT_TRUE(sendBytes(std::string(size, 'x')));
    EXPECT_EQ(reply(100), "");

    client.reset(); // the client dies before its reply
    client.reset(socket(AF_UNIX, SOCK_DGRAM, 0));
    EXPECT_TRUE(send("m_echo"));
    EXPECT_TRUE(waitUntil([&] {
        return screen.take().find("SendMshellCmdAckToSocket() - FAILED") != std::string::npos;
    }));
    client.reset(SocketComm_Start("zant_dbg_client", MSG_DONTWAIT));
    EXPECT_EQ(ask("m_echo"), "OK");
    EXPECT_LT(stop(), promptly);
}

TEST_F(ShellSocketTest, StopsInASleepAndWhileAReplyIsBlocked) {
    static std::atomic<int> calls;
    calls = 0;
    shell.AddMshellCmd(
        0, "count", "test", "", [](CommandStruct*) { return ++calls, 0; }, nullptr, true);
    start();
    ASSERT_TRUE(send("count"));
    ASSERT_TRUE(send("m_sleep 1000"));
    ASSERT_TRUE(waitUntil([] { return calls == 1; }));
    EXPECT_EQ(reply(), "OK");
    EXPECT_LT(stop(), promptly);

    // Nobody takes the replies: there is room for some, then the shell has to wait with one.
    shell.StartThread("shell", 0, 0);
    ASSERT_TRUE(waitUntil([&] { return send("count"); }));
    std::string line = "count";
    line.resize(1023, '\0');
    int sent = 1;
    while (sent < 5000 &&
           SocketComm_Sendto(client.get(), line.data(), 1023, serverName, 200) == 1023)
        ++sent;
    EXPECT_LT(sent, 5000);
    EXPECT_LT(calls, sent);
    EXPECT_LT(stop(), promptly);
}

TEST_F(ShellSocketTest, IsForItsUserAndRootAlone) {
    const mode_t before = umask(0777);
    start();
    umask(before);
    // Closed to everybody first, as the umask wants it, then opened to its user.
    EXPECT_TRUE(waitUntil([] {
        struct stat info {};
        return lstat(serverPath, &info) == 0 && (info.st_mode & 07777) == 0600U;
    }));
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become somebody else";

    // Even one who got hold of the address while it was open to all.
    ASSERT_EQ(chmod(serverPath, 0777), 0);
    EXPECT_EQ(inChild([&] {
                  if (setgid(65534) != 0 || setuid(65534) != 0)
                      return 1;
                  return send("m_echo") ? 0 : 2;
              }),
              0);
    EXPECT_TRUE(waitUntil(
        [&] { return screen.take().find("Command of user 65534, process") != std::string::npos; }));
    EXPECT_EQ(reply(100), "");
    EXPECT_EQ(ask("m_echo"), "OK");
}

TEST_F(ShellSocketTest, ReplacesOnlyADeadSocketOfItsOwn) {
    struct Case {
        const char* what;
        void (*make)();
        const char* trace;
        const char* advice = "remove it and start again";
    };
    static ScopedFd owner;
    const Case blocked[] = {
        {"served", [] { owner.reset(SocketComm_Start(serverName, MSG_DONTWAIT)); },
         "is served by another process", "end the other and start again"},
        {"directory", [] { mkdir(serverPath, 0700); }, "it is a directory"},
        {"file", [] { close(creat(serverPath, 0600)); }, "it is no socket"},
        {"dangling link", [] { EXPECT_EQ(symlink("/tmp/elsewhere", serverPath), 0); },
         "it is a symbolic link"},
        {"link to a living socket",
         [] { EXPECT_EQ(symlink("/tmp/zant_dbg_client", serverPath), 0); },
         "it is a symbolic link"},
    };
    shell.Init(serverName);
    for (const Case& each : blocked) {
        each.make();
        struct stat made {};
        ASSERT_EQ(lstat(serverPath, &made), 0);
        shell.StartThread("shell", 0, 0);
        std::string traces;
        EXPECT_TRUE(waitUntil([&] {
            return (traces += screen.take()).find("MshellOpenSocket() failed") != std::string::npos;
        }));
        EXPECT_NE(traces.find(each.trace), std::string::npos) << each.what << traces;
        EXPECT_NE(traces.find(each.advice), std::string::npos);
        stop();
        const auto said = takeSyslog();
        ASSERT_EQ(said.size(), 2U) << each.what;
        EXPECT_EQ(said[0].first, LOG_ERR);
        EXPECT_EQ(said[1].first, LOG_ERR | LOG_LOCAL0);
        EXPECT_NE(said[1].second.find(each.advice), std::string::npos) << said[1].second;
        struct stat left {};
        EXPECT_EQ(lstat(serverPath, &left), 0) << each.what;
        EXPECT_EQ(left.st_ino, made.st_ino) << each.what;
        std::filesystem::remove_all(serverPath);
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/elsewhere"));

    const auto isLeftByADeadProcess = [] {
        return inChild([] { return SocketComm_Start(serverName, 0) >= 0 ? 0 : 1; }) == 0 &&
               std::filesystem::exists(serverPath);
    };
    ASSERT_TRUE(isLeftByADeadProcess());
    start();
    EXPECT_EQ(ask("m_echo"), "OK");
    EXPECT_EQ(inChild([] { return SocketComm_Start(serverName, 0) == socketHasOwner ? 0 : 1; }), 0);
    EXPECT_EQ(inChild([this] {
                  shell.RemoveSocket(); // as a forked child of the host does that exits
                  return 0;
              }),
              0);
    EXPECT_TRUE(std::filesystem::exists(serverPath));
    stop();
    EXPECT_FALSE(std::filesystem::exists(serverPath));

    if (geteuid() != 0)
        return;
    ASSERT_TRUE(isLeftByADeadProcess());
    // Another user's is for root alone to replace.
    ASSERT_EQ(lchown(serverPath, 12345, 12345), 0);
    EXPECT_EQ(inChild([] {
                  const bool isRefused =
                      setuid(65534) == 0 && SocketComm_Start(serverName, 0) == socketPathBlocked;
                  return isRefused ? 0 : 1;
              }),
              0);
    ASSERT_EQ(access(serverPath, F_OK), 0);
    start();
    EXPECT_EQ(ask("m_echo"), "OK");
}

TEST_F(ShellSocketTest, CutsNamesAndFailsAtOnceWithoutAPeer) {
    const std::string longName(300, 'n');
    const ScopedFd fd(SocketComm_Start(longName.c_str(), MSG_DONTWAIT));
    ASSERT_TRUE(fd);
    EXPECT_TRUE(std::filesystem::exists("/tmp/" + std::string(102, 'n')));
    EXPECT_EQ(SocketComm_Unlink(longName.c_str()), 0);
    const auto begin = Clock::now();
    EXPECT_EQ(SocketComm_Sendto(fd.get(), "x", 1, "nobody_there", -1), -1);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_LT(SocketComm_Start(nullptr, 0), 0);

    // Nothing, something, and more than there is room for, each with its size and sender.
    const ScopedFd server(SocketComm_Start(serverName, MSG_DONTWAIT));
    for (const unsigned size : {0U, 3U, 9U}) {
        char bytes[4] = {};
        struct ucred sender {};
        EXPECT_EQ(SocketComm_Sendto(fd.get(), "123456789", size, serverName, 1000),
                  static_cast<int>(size));
        EXPECT_EQ(SocketComm_RecvWithSender(server.get(), bytes, sizeof bytes, &sender),
                  static_cast<int>(size));
        EXPECT_EQ(sender.pid, getpid());
        EXPECT_EQ(sender.uid, geteuid());
        EXPECT_EQ(std::string(bytes, sizeof bytes),
                  (std::string("1234").substr(0, size) + std::string(4, '\0')).substr(0, 4));
    }
    char bytes[4] = {};
    EXPECT_EQ(SocketComm_Sendto(fd.get(), "abc", 3, serverName, 1000), 3);
    EXPECT_EQ(SocketComm_Recv(server.get(), bytes, sizeof bytes, 0, 0), 3);
    EXPECT_STREQ(bytes, "abc");
    takeSyslog();
    EXPECT_EQ(SocketComm_Recv(9999, bytes, sizeof bytes, 0, 0), -1);
    EXPECT_EQ(takeSyslog().size(), 1U) << "it says why";
}

} // namespace
