#include "session.h"

#include "exit_code.h"
#include "interrupt.h"
#include "util/socket_comm.h"

#include <cstdio>

namespace zantsh {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds look(50);
/// Without a word so long, the end of the output does not come any more: it is printed a tenth of
/// a second after the reply at the latest, but for a machine that is short of breath.
constexpr milliseconds longestSilence(1000);

void print(const std::string& text) {
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

} // namespace

Reply Session::run(const std::vector<std::string>& lines, const Show& show) {
    if (m_output)
        m_output->expectSkip();
    Exchange exchange(m_options.socket, m_options.timeout);
    const Marks marks;
    begin(exchange, marks);
    for (const auto& line : lines)
        exchange.send(line);

    const auto deadline = Clock::now() + m_options.timeout;
    auto reply = Reply::ok;
    for (std::size_t i = 0; i < lines.size(); ++i)
        reply = awaitReply(exchange, deadline, show);
    if (m_output->canBeFollowed()) {
        exchange.send("m_echo " + marks.end);
        awaitReply(exchange, deadline, show);
    }
    awaitEnd(deadline, show);
    return reply;
}

/// Where nobody can see what the process prints, nothing is printed beside.
void Session::begin(Exchange& exchange, const Marks& marks) {
    const std::string command = "m_echo " + marks.begin;
    if (m_output && m_output->canBeFollowed()) {
        m_output->expect(marks);
        if (exchange.ask(command) == m_output->process())
            return;
    }
    m_output.emplace(exchange.ask("m_echo"), m_options.follow, m_scope);
    m_output->expect(marks);
    if (m_output->canBeFollowed())
        exchange.ask(command);
}

Reply Session::awaitReply(Exchange& exchange, Clock::time_point deadline, const Show& show) {
    for (;;) {
        if (const auto reply = exchange.waitForReply(look))
            return *reply;
        show(m_output->takeNew());
        if (Clock::now() >= deadline)
            throw NoShell("no answer in time; the command may still be running (a longer "
                          "--timeout waits for it)");
    }
}

void Session::awaitEnd(Clock::time_point deadline, const Show& show) {
    auto heard = Clock::now();
    for (auto now = heard; now - heard < longestSilence; now = Clock::now()) {
        const auto text = m_output->takeNew();
        show(text);
        if (m_output->hasEnded() || !m_output->canBeFollowed() || now >= deadline)
            break;
        if (!text.empty())
            heard = now;
        checkInterrupt();
        Delay(5);
    }
    show(m_output->flush());
}

int Session::runAndPrint(const std::string& line) {
    try {
        const auto reply = run({line}, print);
        tellOfMissingOutput();
        puts(reply == Reply::ok ? "OK" : "ERR");
        return reply == Reply::ok ? ExitOk : ExitErr;
    } catch (const NoShell& reason) {
        fprintf(stderr, "zantsh: %s\n", reason.what());
        return ExitNoShell;
    }
}

/// Where nothing came, it is looked for anew the next time.
void Session::tellOfMissingOutput() {
    if (m_output->hasEnded())
        return;
    if (m_output->hasBegun())
        fputs("zantsh: the end of the output did not come: printing was switched off, or another "
              "way, meanwhile\n",
              stderr);
    else if (!m_output->whereElse().empty())
        fprintf(stderr, "zantsh: %s\n", m_output->whereElse().c_str());
    m_output.reset();
}

} // namespace zantsh
