#ifndef COMMAND_STRUCT_H
#define COMMAND_STRUCT_H

#include <cstdint>
#include <string>

/// One parameter of a command line.
struct CommandParam {
    /// What `type` says.
    enum Type : int32_t { number = 1, text = 2 };

    int32_t type;
    /// Always 0.
    uint32_t reserved;
    /// Valid for a number.
    int32_t value;
    /// The parameter as typed, whatever its type.
    std::string string;

    /// Whether `value` counts.
    bool isNumber() const { return type == number; }
};

/// One parsed command line, as a command's handler gets it. Handlers return 0 for success.
struct CommandStruct {
    static constexpr int32_t maxParams = 256;

    std::string name;
    int32_t paramCount;
    CommandParam params[maxParams];
    /// The whole line.
    std::string lastCmdInputString;
    /// Set when the line could not be parsed.
    char errorText[200];
};

/// What stands between the words of a line.
constexpr const char* wordSeparators = "\n\r \t,";

/// What a handler answers to a parameter that is missing or wrong.
constexpr int32_t badCommandParam = -1703;

#endif
