#include "interactive.h"

#include "command_names.h"
#include "exit_code.h"
#include "interrupt.h"
#include "session.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <readline/history.h>
#include <readline/readline.h>
#include <unistd.h>

namespace zantsh {

namespace {

constexpr int historyLength = 1000;
constexpr int lookEveryUs = 100000;

constexpr char help[] = R"(  help           this
  exit, quit     leave, as Ctrl-D does
  anything else  goes to the process's shell: m_help lists its commands, m_help groups their groups
Tab completes names, Ctrl-C gives the prompt back; a command that was begun goes on.
What the process prints shows between prompts, too, where it can be followed.
)";

/// Lines with editing, completion, and a history that outlives the program. One a process, as
/// readline is.
class Terminal {
public:
    explicit Terminal(Session& session) : m_session(session), m_names(session) {
        s_terminal = this;
        rl_readline_name = "zantsh";
        rl_attempted_completion_function = [](const char* begun, int start, int) {
            return s_terminal->complete(begun, start);
        };
        rl_completion_display_matches_hook = [](char** matches, int count, int) {
            s_terminal->showMatches(matches, count);
        };
        rl_variable_bind("show-all-if-ambiguous", "on"); // at the first Tab
        rl_event_hook = [] { return s_terminal->lookAround(); };
        rl_set_keyboard_input_timeout(lookEveryUs);
        using_history();
        stifle_history(historyLength);
        if (const char* const home = getenv("HOME"); home && *home)
            m_historyFile = std::string(home) + "/.zantsh_history";
        if (!m_historyFile.empty())
            read_history(m_historyFile.c_str());
    }
    ~Terminal() { s_terminal = nullptr; }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    bool next(std::string& line) {
        char* const typed = readline("zantsh> ");
        if (!typed) {
            putchar('\n');
            return false;
        }
        line = typed;
        free(typed);
        if (!line.empty())
            remember(line);
        return true;
    }

private:
    void remember(const std::string& line) {
        add_history(line.c_str());
        // A history that cannot be kept lasts as long as the program.
        if (!m_historyFile.empty())
            write_history(m_historyFile.c_str());
    }

    /// While a line is typed.
    int lookAround() {
        if (takeInterrupt()) {
            rl_replace_line("", 1);
            rl_crlf();
            rl_on_new_line();
            rl_redisplay();
        }
        if (const auto text = m_session.takeOther(); !text.empty()) {
            rl_clear_visible_line();
            fputs(text.c_str(), stdout);
            rl_forced_update_display();
        }
        return 0;
    }

    /// Names of commands come first in a line; after m_help those of groups do as well.
    char** complete(const char* begun, int start) {
        rl_attempted_completion_over = 1;
        const std::string before(rl_line_buffer, static_cast<size_t>(start));
        const bool isFirst = before.find_first_not_of(" \t") == std::string::npos;
        if (!isFirst && before != "m_help ")
            return nullptr;
        m_matches = isFirst ? std::set<std::string>{"help", "exit", "quit"}
                            : std::set<std::string>{"groups"};
        for (const auto& [group, names] : m_names.groups()) {
            m_matches.insert(names.begin(), names.end());
            if (!isFirst)
                m_matches.insert(group);
        }
        return rl_completion_matches(begun, [](const char* text, int state) {
            return s_terminal->nextMatch(text, state == 0);
        });
    }
    char* nextMatch(const char* begun, bool first) {
        if (first)
            m_match = m_matches.lower_bound(begun);
        if (m_match == m_matches.end() || m_match->rfind(begun, 0) != 0)
            return nullptr;
        return strdup((m_match++)->c_str());
    }
    void showMatches(char** matches, int count) {
        const std::set<std::string> shown(matches + 1, matches + 1 + count);
        rl_crlf();
        for (const auto& [group, names] : m_names.groups()) {
            std::string line;
            for (const auto& name : names)
                line += shown.count(name) ? " " + name : "";
            if (!line.empty() || shown.count(group))
                printf("%s:%s\n", group.c_str(), line.c_str());
        }
        rl_forced_update_display();
    }

    inline static Terminal* s_terminal = nullptr;

    Session& m_session;
    CommandNames m_names;
    std::string m_historyFile;
    std::set<std::string> m_matches;
    std::set<std::string>::const_iterator m_match;
};

template <typename NextLine>
int runLines(Session& session, NextLine nextLine) {
    int exitCode = ExitOk;
    for (std::string line; nextLine(line);) {
        if (line == "exit" || line == "quit")
            break;
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        if (line == "help") {
            fputs(help, stdout);
            continue;
        }
        try {
            exitCode = session.runAndPrint(line);
        } catch (const Interrupted& reason) {
            fprintf(stderr, "\nzantsh: %s\n", reason.what());
        }
    }
    return exitCode;
}

} // namespace

int runInteractively(const Options& options) {
    if (!isatty(STDIN_FILENO)) {
        Session session(options, Transcript::Scope::commands);
        return runLines(session, [](std::string& line) -> bool {
            return static_cast<bool>(std::getline(std::cin, line));
        });
    }
    catchInterrupts();
    Session session(options, Transcript::Scope::everything);
    Terminal terminal(session);
    return runLines(session, [&](std::string& line) { return terminal.next(line); });
}

} // namespace zantsh
