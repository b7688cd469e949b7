#ifndef MAINSYS_COMMAND_H
#define MAINSYS_COMMAND_H

#include "messaging/queue/zant_msg_body.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace mainsys {

class Session;

using Milliseconds = std::chrono::milliseconds;

/// A signal of the plug-in that is to come, or not to.
struct Expectation {
    uint32_t signal = 0;
    std::optional<int32_t> parameter; ///< the first one, if it matters
    bool toCome = true;
};

/// What stands behind a command's name; each has some of it.
struct Arguments {
    uint32_t kinds = 0;
    Milliseconds time{0};
    std::string text;
    std::optional<Expectation> expectation;
    std::string unknownSignal; ///< a word that should name a signal, and names none
    ZantMsgBody body{};
    uint32_t count = 1;
};

/// One line of a scenario or of the terminal.
struct Command {
    void (*obey)(Session&, const Arguments&) = nullptr; ///< null: an empty line, a comment
    Arguments arguments;
    std::string error; ///< why the line is none, and what to write
};

Command parseCommand(const std::string& line);

/// The commands, a line each.
std::string commandHelp();

} // namespace mainsys

#endif
