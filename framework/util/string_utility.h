#ifndef UTIL_STRING_UTILITY_H
#define UTIL_STRING_UTILITY_H

#include <string>

/// Text helpers without state. All functions are thread-safe.
class CStringUtility {
public:
    /// Number bases of IntToString; any other value is decimal.
    static constexpr int octalMode = 2;
    static constexpr int hexadecimalMode = 3;

    /// Converts UTF-8 to ISO 8859-1. Takes at most 512 bytes and gives at most 255. Characters
    /// beyond U+00FF keep their low eight bits only. A malformed sequence ends the text.
    std::string ConvertUtf8StringToIso8859String(std::string in) const;

    /// Converts ISO 8859-1 to UTF-8. Gives at most 511 bytes and no half characters.
    std::string ConvertIso8859StringToUtf8String(std::string in) const;

    ///@{
    /// Strips blanks and tabs in front; blanks, tabs and line ends behind. In place; null is left
    /// alone.
    void RemoveWhitespaceFromString(char* text) const;
    void RemoveWhitespaceFromString(std::string* text) const;
    ///@}

    ///@{
    /// Copies without whitespace (as isspace in the C locale) in front, behind or both.
    std::string TrimLeft(std::string text) const;
    std::string TrimRight(std::string text) const;
    std::string TrimLeftAndRight(std::string text) const;
    ///@}

    /// Writes a number: decimal, "o" and octal digits, or "0x" and hexadecimal digits. Negative
    /// numbers show as two's complement in the latter two.
    void IntToString(int value, std::string* out, int mode) const;
};

/// The one instance. It has no state.
extern CStringUtility& theStringUtility;

#endif
