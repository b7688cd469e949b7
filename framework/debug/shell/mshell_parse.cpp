#include "debug/shell/mshell.h"

#include "debug/shell/command_struct.h"
#include "debug/trace/zant_trace.h"
#include "util/strl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

static_assert(badCommandParam == CMshell::badParam);

namespace {

constexpr size_t maxTokenSize = 512;
constexpr char del = 0x7f;

int32_t fail(CommandStruct& command, const char* text) {
    strlcpy(command.errorText, text, sizeof command.errorText);
    return CMshell::badParam;
}

/// A number of the set's 32 bits, on machines of any size.
long within32Bits(long long number) {
    using Limits = std::numeric_limits<int32_t>;
    return static_cast<long>(std::clamp<long long>(number, Limits::min(), Limits::max()));
}

/// True when the whole text is a number of that base.
bool convert(const char* text, int base, long& out) {
    char* end = nullptr;
    out = within32Bits(strtoll(text, &end, base));
    return *end == '\0';
}

} // namespace

int32_t CMshell::GetCommand(CommandStruct* command, const char* line) {
    if (!command || !line)
        return badParam;
    command->lastCmdInputString = line;
    CleanString(&command->lastCmdInputString);

    const std::string& text = command->lastCmdInputString;
    bool isName = true;
    for (size_t start = text.find_first_not_of(wordSeparators); start != std::string::npos;) {
        const size_t end = std::min(text.find_first_of(wordSeparators, start), text.size());
        const std::string token = text.substr(start, end - start);
        if (token.size() >= maxTokenSize) {
            FormattedStringToStdout("Too long item %s\n", token.c_str());
            return fail(*command, "split string error");
        }
        if (isName)
            command->name = token;
        else if (SetCommandParam(command, token.c_str()) != 0)
            return fail(*command, "SetCommandParam error");
        isName = false;
        start = text.find_first_not_of(wordSeparators, end);
    }
    return 0;
}

int32_t CMshell::SetCommandParam(CommandStruct* command, const char* token) {
    if (!command || !token) {
        FormattedStringToStdout("Null command or param");
        return command ? fail(*command, "Command param error") : badParam;
    }
    if (command->paramCount < 0 || command->paramCount >= CommandStruct::maxParams) {
        FormattedStringToStdout("Invalid parameter count %d\n", command->paramCount);
        return badParam;
    }
    CommandParam& param = command->params[command->paramCount];
    long value = 0;
    const bool isNumber = Convert_Atoi(token, &value) == 0;
    param.type = isNumber ? CommandParam::number : CommandParam::text;
    param.reserved = 0;
    param.value = static_cast<int32_t>(value);
    param.string = token;
    ++command->paramCount;
    return 0;
}

int32_t CMshell::Convert_Atoi(const char* text, long* out) {
    if (!text || !out)
        return badParam;
    if (convert(text, 10, *out))
        return 0;
    if (strncmp(text, "0x", 2) != 0)
        return badParam;
    return convert(text, 16, *out) ? 0 : badParam;
}

void CMshell::InitCommandStruct(CommandStruct* command) {
    if (!command)
        return;
    command->name.clear();
    command->lastCmdInputString.clear();
    command->paramCount = 0;
    command->errorText[0] = '\0';
}

void CMshell::CleanString(std::string* text) {
    if (!text)
        return;
    std::string cleaned;
    for (const char character : *text) {
        if (character != del)
            cleaned += character;
        else if (!cleaned.empty())
            cleaned.pop_back();
    }
    *text = std::move(cleaned);
}
