#ifndef MAINSYS_COMMAND_H
#define MAINSYS_COMMAND_H

#include "messaging/queue/zant_msg_body.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace mainsys {

using Milliseconds = std::chrono::milliseconds;

/// One line of a scenario or of the terminal.
struct Command {
    enum class Verb {
        Nothing, ///< an empty line, a comment
        Grant,
        Refuse,
        Ignore,
        Delay,
        Release,
        Control,
        Crash,
        Restart,
        Expect,
        ExpectNone,
        Wait,
        Raw,
        Garbage,
        Status,
        Help,
        Quit
    };

    Verb verb = Verb::Nothing;
    uint32_t kinds = 0;               ///< Grant (0: as the mode), Release
    Milliseconds time{0};             ///< Delay, Wait, Expect
    std::string text;                 ///< Control: the text
    uint32_t signal = 0;              ///< Expect
    std::optional<int32_t> parameter; ///< Expect: the first parameter, if it matters
    ZantMsgBody body{};               ///< Raw
    uint32_t count = 1;               ///< Raw, Garbage
};

struct ParsedCommand {
    std::optional<Command> command;
    std::string error; ///< why there is none, and what to write
};

ParsedCommand parseCommand(const std::string& line);

/// The commands, a line each.
std::string commandHelp();

/// "audio", "video", "audio+video", or the number for other masks.
std::string kindsText(uint32_t kinds);

} // namespace mainsys

#endif
