#include "util/command.h"

#include "files_fixture.h"
#include "support/wait_until.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sys/wait.h>
#include <thread>

using namespace std::chrono_literals;
using namespace std::string_literals;
using support::waitUntil;

namespace {

CommandRequest shell(const std::string& line) {
    CommandRequest request;
    request.words = {"sh", "-c", line};
    return request;
}

/// Nobody may have reaped it yet.
bool isRunning(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string number, name, state;
    file >> number >> name >> state;
    return !state.empty() && state != "Z";
}

/// How a signal is handled, for a scope.
class Handling {
public:
    Handling(int signal, sighandler_t handler) : m_signal(signal) {
        m_before = ::signal(signal, handler);
    }
    ~Handling() { ::signal(m_signal, m_before); }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;

private:
    int m_signal;
    sighandler_t m_before;
};

class CommandTest : public FilesTest {};

TEST_F(CommandTest, WhatGoesInAndComesOut) {
    auto request =
        shell("cat; pwd; echo $ONE-$HOME; echo first >&2; echo 'the reason' >&2; exit 3");
    request.input = std::string(300000, 'x') + "\n"; // more than a pipe holds
    request.folder = m_folder;
    request.environment = std::vector<std::string>{"ONE=1", "PATH=/usr/bin:/bin"};
    const auto result = runCommand(request);
    EXPECT_EQ(result.output, request.input + m_folder + "\n1-\n");
    EXPECT_EQ(result.errors, "first\nthe reason\n");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.signal, std::nullopt);
    EXPECT_EQ(result.outcome.code, Outcome::commandFailed);
    EXPECT_EQ(result.outcome.text, "sh ended with exit code 3: the reason");
    EXPECT_TRUE(runCommand({{"true"}}).outcome);
    EXPECT_EQ(runCommand({{"printf", "%s|", "a b", "$HOME;", "*"}}).output, "a b|$HOME;|*|");
    const auto died = runCommand(shell("kill -SEGV $$"));
    EXPECT_EQ(died.signal, SIGSEGV);
    EXPECT_EQ(died.exitCode, std::nullopt);
}

TEST_F(CommandTest, WhatCannotRunSaysWhy) {
    put("text", "no program");
    ASSERT_EQ(chmod(put("garbage", "garbage").c_str(), 0755), 0);
    CommandRequest elsewhere{{"true"}};
    elsewhere.folder = at("none");
    struct {
        CommandRequest request;
        Outcome::Code code;
    } const cases[] = {
        {{}, Outcome::badRequest},
        {{{""}}, Outcome::badRequest},
        {{{"echo", "a\0b"s}}, Outcome::badRequest},
        {{{at("none")}}, Outcome::missing},
        {{{at("text")}}, Outcome::notAllowed},
        {{{at("garbage")}}, Outcome::wrongKind},
        {elsewhere, Outcome::missing},
    };
    for (const auto& c : cases) {
        const auto result = runCommand(c.request);
        EXPECT_EQ(result.outcome.code, c.code) << result.outcome.text;
        EXPECT_EQ(result.exitCode, std::nullopt);
    }
}

TEST_F(CommandTest, NothingOfTheProcessIsInherited) {
    const ScopedFd leak(open("/dev/null", O_RDONLY));
    const ScopedFd high(fcntl(leak.get(), F_DUPFD, 200));
    const Handling ignored(SIGPIPE, SIG_IGN);
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const auto descriptors = runCommand(shell("ls /proc/$$/fd; :")).output;
    const auto signals = runCommand({{"grep", "-E", "Sig(Blk|Ign)", "/proc/self/status"}}).output;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(descriptors, "0\n1\n2\n");
    unsigned long long blocked = 1, ignoredToo = 1;
    EXPECT_EQ(sscanf(signals.c_str(), "SigBlk: %llx\nSigIgn: %llx", &blocked, &ignoredToo), 2);
    EXPECT_EQ(blocked, 0u);
    EXPECT_EQ(ignoredToo & 0x7FFFFFFF, 0u) << "all but two that the C library keeps for itself";
}

/// A host's own descriptors may have the numbers of the standard ones.
TEST_F(CommandTest, AProcessWithoutStandardDescriptorsRunsCommands) {
    const auto check = [] {
        for (const int standard : {0, 1, 2})
            close(standard);
        auto request = shell("cat; echo err >&2");
        request.input = "in";
        const auto result = runCommand(request);
        _exit(result.output == "in" && result.errors == "err\n" ? 0 : 1);
    };
    EXPECT_EXIT(check(), ::testing::ExitedWithCode(0), "");
}

TEST_F(CommandTest, AtTheTimeLimitTheWholeGroupDies) {
    auto request = shell("trap '' TERM; sleep 1000 & echo $! $$; wait; sleep 1000");
    request.limit = 300ms;
    const auto result = runCommand(request);
    EXPECT_EQ(result.outcome.code, Outcome::timedOut) << result.outcome.text;
    EXPECT_EQ(result.signal, SIGKILL);
    std::istringstream numbers(result.output);
    pid_t child = 0, shellItself = 0;
    ASSERT_TRUE(numbers >> child >> shellItself) << "what it said before is kept";
    EXPECT_TRUE(waitUntil([&] { return !isRunning(child) && !isRunning(shellItself); }));

    request = shell("while :; do echo babble; done"); // always something to read
    request.limit = 100ms;
    request.mostOutput = 10;
    EXPECT_EQ(runCommand(request).outcome.code, Outcome::timedOut);
    request = shell("true");
    request.limit = std::chrono::milliseconds::max();
    EXPECT_TRUE(runCommand(request).outcome);
}

TEST_F(CommandTest, LongOutputIsCutAndReadToItsEnd) {
    auto request = shell("head -c 3000000 /dev/zero; echo end >&2");
    request.mostOutput = 1000;
    const auto result = runCommand(request);
    EXPECT_TRUE(result.outcome) << result.outcome.text;
    EXPECT_EQ(result.output, std::string(1000, '\0'));
    EXPECT_EQ(result.errors, "end\n");
    EXPECT_TRUE(result.isCut);
    request.mostOutput = 3000000;
    const auto whole = runCommand(request);
    EXPECT_EQ(whole.output.size(), 3000000u);
    EXPECT_FALSE(whole.isCut);
}

TEST_F(CommandTest, WhatItLeavesRunningHoldsNobody) {
    const auto result = runCommand(shell("sleep 1000 & echo $!"));
    EXPECT_TRUE(result.outcome) << result.outcome.text;
    const pid_t left = std::stoi(result.output);
    EXPECT_TRUE(isRunning(left));
    kill(left, SIGKILL);
}

TEST_F(CommandTest, AnotherThreadStopsAllThatRunWithIt) {
    CommandStop stop;
    std::thread runners[4];
    std::atomic<int> stopped{0};
    for (auto& runner : runners)
        runner = std::thread([&, path = at(std::to_string(&runner - runners))] {
            const auto result = runCommand(shell("echo > " + path + "; sleep 1000"), &stop);
            stopped += result.outcome.code == Outcome::cancelled ? 1 : 0;
        });
    EXPECT_TRUE(waitUntil([&] { return names().size() == 4; }));
    stop.stop();
    for (auto& runner : runners)
        runner.join();
    EXPECT_EQ(stopped, 4);
    EXPECT_EQ(runCommand(shell("sleep 1000"), &stop).outcome.code, Outcome::cancelled)
        << "it stays stopped";
}

TEST_F(CommandTest, AHostThatReapsChildrenTakesOnlyTheExitCode) {
    const auto lost = [] {
        const auto result = runCommand(shell("echo said; exit 3"));
        EXPECT_EQ(result.output, "said\n");
        EXPECT_EQ(result.exitCode, std::nullopt);
        return result.outcome.code == Outcome::reapedByHost;
    };
    {
        const Handling ignored(SIGCHLD, SIG_IGN);
        EXPECT_TRUE(lost());
        auto request = shell("sleep 1000");
        request.limit = 50ms;
        EXPECT_EQ(runCommand(request).outcome.code, Outcome::timedOut);
    }
    const Handling reaping(SIGCHLD, [](int) {
        const int before = errno;
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        errno = before;
    });
    EXPECT_TRUE(lost());
}

TEST_F(CommandTest, ChildrenOfTheHostAreLeftToIt) {
    const pid_t hosts = fork();
    if (hosts == 0)
        _exit(7);
    EXPECT_TRUE(runCommand({{"true"}}).outcome);
    int status = 0;
    EXPECT_EQ(waitpid(hosts, &status, 0), hosts);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

} // namespace
