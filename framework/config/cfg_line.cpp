#include "config/cfg_line.h"

#include "config/cfg_file.h"
#include "debug/trace/zant_trace.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

/// More digits than any number has; what follows them is not looked at.
constexpr size_t maxDigits = 30;

/// Reads a number as a set of 32 bits does. False when the text begins with none.
bool convert(const std::string& item, int& number) {
    const bool isHexadecimal = item.compare(0, 2, "0x") == 0 || item.compare(0, 2, "0X") == 0;
    const std::string digits = item.substr(0, maxDigits);
    char* end = nullptr;
    if (isHexadecimal) {
        const unsigned long long value = strtoull(digits.c_str(), &end, 16);
        number = static_cast<int>(
            static_cast<uint32_t>(std::min<unsigned long long>(value, UINT32_MAX)));
    } else {
        const long long value = strtoll(digits.c_str(), &end, 10);
        number = static_cast<int>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
    }
    return end != digits.c_str();
}

int fail(const char* text) {
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_INFO, "%s\n", text);
    return -1;
}

} // namespace

char* GetNextItemFromString(char* source, char* destination, int size, char separator) {
    if (!source || !destination || size < 1)
        return source;
    const bool isBlank = separator == ' ' || separator == '\t';
    const char alternative = separator == ' ' ? '\t' : separator == '\t' ? ' ' : separator;
    const auto skipBlanks = [](char* at) { return at + strspn(at, " \t"); };

    destination[0] = '\0';
    char* at = skipBlanks(source);
    if (*at == '\0')
        return at;
    if (!isBlank && *at == separator)
        return at + 1;
    int length = 0;
    while (*at != '\0' && *at != separator && *at != alternative && length < size - 1)
        destination[length++] = *at++;
    destination[length] = '\0';
    at = skipBlanks(at);
    if (isBlank)
        return at;
    char* const next = strchr(at, separator);
    return next ? next + 1 : at + strlen(at);
}

void CCfgLine::SetLine(char* line, char separator) {
    m_position = line;
    m_separator = separator;
}

int CCfgLine::GetNextString(std::string* item) {
    if (!item || !m_position)
        return -1;
    // With the separator 0 the position after an item may lie behind the end of the text.
    char* const end = m_position + strlen(m_position);
    char* const next = GetNextItemFromString(m_position, m_item, itemSize, m_separator);
    m_position = std::min(next, end);
    RemoveWhitespaceFromString(m_item);
    *item = m_item;
    return 0;
}

int CCfgLine::GetNextInt(int* number) {
    std::string item;
    if (!number || GetNextString(&item) != 0)
        return fail("Int-String ERROR");
    if (item.empty())
        return fail("Int-String empty");
    if (!convert(item, *number))
        return fail("Int-String CONVERSION ERROR");
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_INFO, "Int read : %d\n", *number);
    return 0;
}
