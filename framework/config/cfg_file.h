#ifndef CONFIG_CFG_FILE_H
#define CONFIG_CFG_FILE_H

#include <cstdint>
#include <cstdio>

/// Gets each keyword of a configuration file with its data, which it may change. Anything but 0
/// ends the file and is its result.
using T_CfgFileCallback = int (*)(char* keyword, char* data, const char* fileName, int lineNumber,
                                  char termChar);

/// Reads configuration files: lines of the form "KEYWORD = data", at most 1997 characters each. No
/// state: any number of threads may read at a time. What is wrong is traced and, where the format
/// allows, the rest of the file is read. That a file, or the rest of it, is not read goes to
/// syslog, once, with line and reason.
class CCfgFile {
public:
    /// What the functions answer besides 0.
    enum Code : int32_t {
        readError = -2300,
        endOfFile = -2301,
        lineTooLong = -2302,
        closeFailed = -2303,
        fileNotFound = -2305,
        openFailed = -2306,
        badTermChar = -2307,
    };
    /// Files whose lines run files, that deep.
    static constexpr int maxNesting = 8;

    /// Nothing to be done; for applications that call it.
    void Init() {}

    /// Runs the shell commands of a file: ReadCfgfileEx with ProcessCfgfileData, '#' and ','.
    int32_t ReadCfgfile(const char* path);

    /// Hands each keyword to the callback, on the calling thread. `commentChar` begins a comment
    /// anywhere in a line; the keyword "TERM_CHAR" changes `termChar` for the lines after it. 0 at
    /// the end of the file and after a read error, else the callback's result or a Code. Only files
    /// are read: a pipe or a device could hold the caller.
    int32_t ReadCfgfileEx(const char* path, T_CfgFileCallback callback, char commentChar,
                          char termChar);

    /// Whether there is something of that name.
    bool file_exist(const char* path);
    /// 0 or closeFailed.
    int32_t close_file(FILE* file);
    /// Reads a line of at most `size` - 2 characters without its end. Its length, or a Code.
    int32_t read_line_from_file(FILE* file, char* buffer, int size);
};

/// The standard callback: runs the data of the keyword "MSHELL" as a command of the shell. The
/// command's result; 0 for other keywords, so that the file goes on.
int ProcessCfgfileData(char* keyword, char* data, const char* fileName, int lineNumber,
                       char termChar);

/// Strips blanks and tabs in front and behind, in place; null is left alone.
void RemoveWhitespaceFromString(char* text);

#endif
