#ifndef CONFIG_CFG_LINE_H
#define CONFIG_CFG_LINE_H

#include <cstddef>
#include <string>

/// Copies the next item of `source` to `destination`, which has `size` bytes; what does not fit is
/// left out. Items end at `separator`; a blank and a tab separate each other's items too. Returns
/// the position after the item.
char* GetNextItemFromString(char* source, char* destination, int size, char separator);

/// Splits a text into items. Bound to one thread at a time.
class CCfgLine {
public:
    /// The text stays the caller's, and stays as it is, until the last item is taken.
    void SetLine(char* line, char separator);
    /// The next item without blanks around it, at most 1999 characters; empty at the end. 0, or -1
    /// without a line.
    int GetNextString(std::string* item);
    /// The next item as a number, hexadecimal after "0x"; what follows the number is not looked at.
    /// 0, or -1 and a trace.
    int GetNextInt(int* number);

private:
    static constexpr size_t itemSize = 2000;

    char* m_position = nullptr;
    char m_separator = ',';
    char m_item[itemSize] = {};
};

#endif
