// What the shell and the rolling log cost: commands through the socket, and log lines against plain
// fputs with the same flushing. Both sides of a ratio run in one process, in turns, many times; the
// medians are compared. Prints JSON.

#include "debug/shell/mshell.h"
#include "debug/log/rol_log.h"
#include "util/scoped_handles.h"
#include "util/socket_comm.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int turns = 301;
constexpr int linesEach = 50;
constexpr int commandsEach = 20;
constexpr unsigned commandSize = 1023;

double microseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<long>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

template <typename What>
double microsecondsEach(int count, What what) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i)
        what();
    return microseconds(Clock::now() - start) / count;
}

void check(bool holds, const char* what) {
    if (holds)
        return;
    fprintf(stderr, "%s\n", what);
    exit(1);
}

void commands() {
    const std::string name = "zant_dbg_bench_" + std::to_string(getpid());
    mshell.Init(name.c_str());
    mshell.StartThread("shell", 0, 0);
    const ScopedFd client(SocketComm_Start("zant_dbg_client", MSG_DONTWAIT));
    check(client.get() >= 0, "/tmp/zant_dbg_client is in use: end other clients of a shell");

    std::string line = "m_echo";
    line.resize(commandSize, '\0');
    const auto send = [&] {
        return SocketComm_Sendto(client.get(), line.data(), commandSize, name.c_str(), 0) > 0;
    };
    const auto receive = [&] {
        char reply[8];
        return SocketComm_Recv(client.get(), reply, sizeof reply, 0, 0) == 3;
    };
    while (!send())
        Delay(1);
    check(receive(), "no reply");

    std::vector<double> each;
    for (int turn = 0; turn < turns; ++turn)
        each.push_back(
            microsecondsEach(commandsEach, [&] { check(send() && receive(), "no reply"); }));
    const double taken = median(each);
    printf("  \"commands\": {\"us\": %.1f, \"per_second\": %.0f},\n", taken, 1e6 / taken);
    mshell.StopThreadAndWait();
    SocketComm_Unlink("zant_dbg_client");
    SocketComm_Unlink(name.c_str());
}

void logLines() {
    const auto folder =
        std::filesystem::temp_directory_path() / ("zant_log_bench_" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
    CRolLog log(folder.c_str(), "ours", 100000000, "log", "bak");
    check(log.OpenLogfile() == 0, "no log file");
    const ScopedFile plain(fopen((folder / "plain.log").c_str(), "a+e"));
    check(static_cast<bool>(plain), "no file");

    const std::string line = "[00042] 5051c6c0 uvagst " + std::string(95, 'x') + "\n";
    std::vector<double> ours;
    std::vector<double> bare;
    for (int turn = 0; turn < turns; ++turn) {
        ours.push_back(
            microsecondsEach(linesEach, [&] { log.WriteStringToLogfile(line.c_str()); }));
        bare.push_back(microsecondsEach(linesEach, [&] {
            fputs(line.c_str(), plain.get());
            fflush(plain.get());
        }));
    }
    log.CloseLogfile();
    std::filesystem::remove_all(folder);
    printf("  \"log_line\": {\"ours_us\": %.3f, \"bare_us\": %.3f, \"ratio\": %.3f, "
           "\"lines_per_second\": %.0f}\n",
           median(ours), median(bare), median(ours) / median(bare), 1e6 / median(ours));
}

} // namespace

int main() {
    printf("{\n");
    commands();
    logLines();
    printf("}\n");
    return 0;
}
