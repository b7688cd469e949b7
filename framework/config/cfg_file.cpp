#include "config/cfg_file.h"

#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace.h"
#include "util/scoped_handles.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace {

constexpr int lineSize = 1999;
constexpr size_t maxKeywordLength = 63;
constexpr size_t shownLineLength = 100;
constexpr const char* blanks = " \t";
constexpr const char* termCharKeyword = "TERM_CHAR";
constexpr const char* shellKeyword = "MSHELL";

/// Counts the files that this thread is at: a file may run a command that reads a file.
class Nesting {
public:
    Nesting() { ++s_depth; }
    ~Nesting() { --s_depth; }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    bool isTooDeep() const { return s_depth > CCfgFile::maxNesting; }

private:
    static thread_local int s_depth;
};

thread_local int Nesting::s_depth = 0;

char* skipBlanks(char* text) {
    return text + strspn(text, blanks);
}

/// Opens without waiting for anybody, and files only. A directory opens, and fails to be read.
FILE* openFile(const char* path) {
    ScopedFd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (!fd || fstat(fd.get(), &info) != 0 || !(S_ISREG(info.st_mode) || S_ISDIR(info.st_mode)))
        return nullptr;
    FILE* const file = fdopen(fd.get(), "rb");
    if (file)
        static_cast<void>(fd.release());
    return file;
}

bool isLineEnd(char character) {
    constexpr char ctrlZ = 26;
    return character == '\r' || character == '\n' || character == ctrlZ;
}

/// Reads away what is left of a line. False on a read error.
bool skipLine(FILE* file) {
    int character = 0;
    do
        character = getc(file);
    while (character != '\n' && character != EOF);
    return !ferror(file);
}

/// A read error as a reason.
const char* reasonOf(int32_t code) {
    return code == CCfgFile::lineTooLong ? "it has more than 1997 characters: shorten it"
                                         : "it cannot be read";
}

/// The line and what became of it; without what a log cannot take.
std::string reasonOf(const std::string& line, char commentChar, int32_t result) {
    std::string shown = line.substr(0, std::min(line.find(commentChar), shownLineLength));
    for (char& character : shown)
        character = character >= ' ' && character <= '~' ? character : '?';
    return "\"" + shown + "\" failed with " + std::to_string(result) + ": correct or remove it";
}

void sayUnlessTraced(const std::string& text) {
    ErrorToSyslogUnlessTraced(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING, text.c_str());
}

void reportUnread(const char* path, const std::string& reason) {
    sayUnlessTraced(std::string("Cfg file ") + path + " is not read: " + reason + "\n");
}

/// One file on its way through its lines.
class Reader {
public:
    Reader(const char* path, T_CfgFileCallback callback, char commentChar, char termChar)
        : m_path(path), m_callback(callback), m_commentChar(commentChar), m_termChar(termChar) {}

    /// Says to syslog why the file stops, if it does.
    int32_t processLine(char* line, int number);
    /// Says in a trace and to syslog that the rest of the file is not read. Tracing may not be set
    /// up yet: it is what these files are for.
    void reportError(int32_t code, int number) const;

private:
    std::string stopsIn(int number, const std::string& reason) const;
    int32_t setTermChar(const char* data, int number);

    const char* m_path;
    T_CfgFileCallback m_callback;
    char m_commentChar;
    char m_termChar;
};

int32_t Reader::processLine(char* line, int number) {
    const std::string asRead = line; // what it is processed by may change it
    line = skipBlanks(line);
    if (char* const comment = strchr(line, m_commentChar))
        *comment = '\0';
    if (*line == '\0')
        return 0;

    char keyword[maxKeywordLength + 1] = {};
    const size_t length = std::min(strcspn(line, " \t\n="), maxKeywordLength);
    memcpy(keyword, line, length);
    char* const equals = skipBlanks(line + length);
    if (*equals != '=') {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING,
                   "Missing equal sign in line %d in cfg file %s\n", number, m_path);
        return 0;
    }
    char* const data = skipBlanks(equals + 1);
    if (strcmp(keyword, termCharKeyword) == 0)
        return setTermChar(data, number);
    const int32_t result = m_callback ? m_callback(keyword, data, m_path, number, m_termChar) : 0;
    if (result != 0)
        ErrorToSyslog(stopsIn(number, reasonOf(asRead, m_commentChar, result)).c_str());
    return result;
}

int32_t Reader::setTermChar(const char* data, int number) {
    while (isspace(static_cast<unsigned char>(*data)))
        ++data;
    if (*data == '\0') {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING,
                   "Illegal data in line %d in cfg file %s\n", number, m_path);
        sayUnlessTraced(stopsIn(number, "TERM_CHAR needs a character behind \"=\""));
        return CCfgFile::badTermChar;
    }
    m_termChar = *data;
    return 0;
}

std::string Reader::stopsIn(int number, const std::string& reason) const {
    return std::string("Cfg file ") + m_path + " stops in line " + std::to_string(number) + ": " +
           reason + "\n";
}

void Reader::reportError(int32_t code, int number) const {
    if (code == CCfgFile::endOfFile)
        return;
    const int traced = number == 1 ? 0 : number;
    if (code == CCfgFile::lineTooLong)
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING, "Line %d in cfg file %s too long\n",
                   traced, m_path);
    else
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING, "Error in line %d of cfg file %s\n",
                   traced, m_path);
    sayUnlessTraced(stopsIn(number, reasonOf(code)));
}

} // namespace

int32_t CCfgFile::ReadCfgfile(const char* path) {
    return ReadCfgfileEx(path, ProcessCfgfileData, '#', ',');
}

int32_t CCfgFile::ReadCfgfileEx(const char* path, T_CfgFileCallback callback, char commentChar,
                                char termChar) {
    const char* const shownPath = path ? path : "(null)";
    if (!file_exist(path)) {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_DEBUG, "Cfg file %s not found\n", shownPath);
        return fileNotFound;
    }
    const Nesting nesting;
    if (nesting.isTooDeep()) {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING,
                   "Cfg file %s is not read: it is run by a file that is run by a file, more than "
                   "%d deep\n",
                   path, maxNesting);
        reportUnread(path, "too many files run each other");
        return openFailed;
    }
    ScopedFile file(openFile(path));
    if (!file) {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING, "Error opening cfg file %s\n", path);
        reportUnread(path, "it cannot be opened, or is no file");
        return openFailed;
    }
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_DEBUG, "Reading config file %s\n", path);

    Reader reader(path, callback, commentChar, termChar);
    char line[lineSize];
    int number = 0;
    for (int32_t length = 0;; ++number) {
        length = read_line_from_file(file.get(), line, sizeof line);
        if (length < 0) {
            reader.reportError(length, number + 1);
            break;
        }
        if (const int32_t result = reader.processLine(line, number + 1))
            return result;
    }
    close_file(file.release());
    return 0;
}

bool CCfgFile::file_exist(const char* path) {
    struct stat info {};
    return path && stat(path, &info) == 0;
}

int32_t CCfgFile::close_file(FILE* file) {
    if (!file || fclose(file) == 0)
        return 0;
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING, "CfgFile: Close file error\n");
    return closeFailed;
}

int32_t CCfgFile::read_line_from_file(FILE* file, char* buffer, int size) {
    if (!file || !buffer || size < 2)
        return readError;
    char& lastOfFull = buffer[size - 2];
    lastOfFull = '\0';
    buffer[0] = '\0';
    if (!fgets(buffer, size, file))
        return feof(file) && !ferror(file) ? endOfFile : readError;
    // Looked at in place: a NUL in the line would hide how far it was filled.
    if (lastOfFull != '\0' && lastOfFull != '\n')
        return skipLine(file) ? lineTooLong : readError;

    size_t length = strlen(buffer);
    while (length > 0 && isLineEnd(buffer[length - 1]))
        buffer[--length] = '\0';
    return static_cast<int32_t>(length);
}

int ProcessCfgfileData(char* keyword, char* data, const char* fileName, int lineNumber,
                       char /*termChar*/) {
    if (!keyword || !data)
        return 0;
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_DEBUG,
               "ProcessCfgfileData: Keyword: %s Keydata:%s\n", keyword, data);
    if (strcmp(keyword, shellKeyword) == 0) {
        ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_DEBUG, "Calling mshell: %s\n", data);
        return mshell.ProcessMshellCmd(data);
    }
    ZANT_TRACE(TRACEUNIT_CONFIG_FILE, TRACELEVEL_WARNING,
               "Illegal keyword in cfg file %s on line %d\n", fileName ? fileName : "(null)",
               lineNumber);
    return 0;
}

void RemoveWhitespaceFromString(char* text) {
    if (!text)
        return;
    const char* const first = skipBlanks(text);
    size_t length = strlen(first);
    while (length > 0 && strchr(blanks, first[length - 1]))
        --length;
    memmove(text, first, length);
    text[length] = '\0';
}
