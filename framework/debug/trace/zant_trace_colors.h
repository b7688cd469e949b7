#ifndef ZANT_TRACE_COLORS_H
#define ZANT_TRACE_COLORS_H

/// Terminal escape sequences, for every module that prints.

inline constexpr const char* CS_NORMAL = "\x1b[0m";

inline constexpr const char* CS_BLACK = "\x1b[30m";
inline constexpr const char* CS_RED = "\x1b[31m";
inline constexpr const char* CS_GREEN = "\x1b[32m";
inline constexpr const char* CS_YELLOW = "\x1b[33m";
inline constexpr const char* CS_BLUE = "\x1b[34m";
inline constexpr const char* CS_MAGENTA = "\x1b[35m";
inline constexpr const char* CS_CYAN = "\x1b[36m";
inline constexpr const char* CS_WHITE = "\x1b[37m";

inline constexpr const char* CS_BGD_BLACK = "\x1b[40m";
inline constexpr const char* CS_BGD_RED = "\x1b[41m";
inline constexpr const char* CS_BGD_GREEN = "\x1b[42m";
inline constexpr const char* CS_BGD_YELLOW = "\x1b[43m";
inline constexpr const char* CS_BGD_BLUE = "\x1b[44m";
inline constexpr const char* CS_BGD_MAGENTA = "\x1b[45m";
inline constexpr const char* CS_BGD_CYAN = "\x1b[46m";
inline constexpr const char* CS_BGD_WHITE = "\x1b[47m";

inline constexpr const char* CS_BL_BLACK = "\x1b[0;30;40m";
inline constexpr const char* CS_BL_RED = "\x1b[0;31;40m";
inline constexpr const char* CS_BL_GREEN = "\x1b[0;32;40m";
inline constexpr const char* CS_BL_YELLOW = "\x1b[0;33;40m";
inline constexpr const char* CS_BL_BLUE = "\x1b[0;34;40m";
inline constexpr const char* CS_BL_MAGENTA = "\x1b[0;35;40m";
inline constexpr const char* CS_BL_CYAN = "\x1b[0;36;40m";
inline constexpr const char* CS_BL_WHITE = "\x1b[0;37;40m";

inline constexpr const char* CS_TP_DEFAULT = "\x1b[0m";
inline constexpr const char* CS_TP_BOLD = "\x1b[1m";
inline constexpr const char* CS_TP_NOT_BOLD = "\x1b[22m";
inline constexpr const char* CS_TP_UNDERLINED = "\x1b[4m";
inline constexpr const char* CS_TP_NOT_UNDERLINED = "\x1b[24m";
inline constexpr const char* CS_TP_BLINKING = "\x1b[5m";
inline constexpr const char* CS_TP_NOT_BLINKING = "\x1b[25m";
inline constexpr const char* CS_TP_INVERS = "\x1b[7m";
inline constexpr const char* CS_TP_NOT_INVERS = "\x1b[27m";

#endif
