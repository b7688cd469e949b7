// What the shell and the rolling log cost: commands through the socket, and log lines against plain
// fputs with the same flushing.

#include "bench_support.h"
#include "debug/log/rol_log.h"
#include "debug/shell/mshell.h"
#include "util/scoped_handles.h"
#include "util/socket_comm.h"

#include <filesystem>

namespace {

constexpr int linesEach = 50;
constexpr int commandsEach = 20;
constexpr unsigned commandSize = 1023;

void check(bool holds, const char* what) {
    if (!holds)
        bench::fail(what);
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

    const auto command = [&] { check(send() && receive(), "no reply"); };
    bench::measure("shell_command", bench::share(301),
                   [&] { return bench::nanosecondsEach(commandsEach, command) / 1e3; });
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
    bench::compare(
        "log_line", bench::share(1001),
        [&] {
            const auto write = [&] { log.WriteStringToLogfile(line.c_str()); };
            return bench::nanosecondsEach(linesEach, write) / 1e3;
        },
        [&] {
            const auto write = [&] {
                fputs(line.c_str(), plain.get());
                fflush(plain.get());
            };
            return bench::nanosecondsEach(linesEach, write) / 1e3;
        });
    log.CloseLogfile();
    std::filesystem::remove_all(folder);
}

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, {{"command", commands}, {"log", logLines}});
}
