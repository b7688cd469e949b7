#ifndef LANGUAGE_NAMES_H
#define LANGUAGE_NAMES_H

/// A name that a script finds without a command: none can have it.
struct LanguageName {
    enum class Kind {
        Word,    ///< of the grammar
        Base,    ///< of Lua's basic library, which is there as it is; what is not named goes
        Library, ///< a table of Lua's
        Added,   ///< by the library of scripts, script_prelude.cpp
    };

    const char* name;
    Kind kind;
    const char* help = nullptr; ///< as that of commands; null where Lua's manual has it
};

constexpr LanguageName languageNames[] = {
    {"and", LanguageName::Kind::Word},
    {"break", LanguageName::Kind::Word},
    {"do", LanguageName::Kind::Word},
    {"else", LanguageName::Kind::Word},
    {"elseif", LanguageName::Kind::Word},
    {"end", LanguageName::Kind::Word},
    {"false", LanguageName::Kind::Word},
    {"for", LanguageName::Kind::Word},
    {"function", LanguageName::Kind::Word},
    {"goto", LanguageName::Kind::Word},
    {"if", LanguageName::Kind::Word},
    {"in", LanguageName::Kind::Word},
    {"local", LanguageName::Kind::Word},
    {"nil", LanguageName::Kind::Word},
    {"not", LanguageName::Kind::Word},
    {"or", LanguageName::Kind::Word},
    {"repeat", LanguageName::Kind::Word},
    {"return", LanguageName::Kind::Word},
    {"then", LanguageName::Kind::Word},
    {"true", LanguageName::Kind::Word},
    {"until", LanguageName::Kind::Word},
    {"while", LanguageName::Kind::Word},
    {"_G", LanguageName::Kind::Base},
    {"_VERSION", LanguageName::Kind::Base},
    {"assert", LanguageName::Kind::Base},
    {"error", LanguageName::Kind::Base},
    {"getmetatable", LanguageName::Kind::Base},
    {"ipairs", LanguageName::Kind::Base},
    {"next", LanguageName::Kind::Base},
    {"pairs", LanguageName::Kind::Base},
    {"pcall", LanguageName::Kind::Base},
    {"rawequal", LanguageName::Kind::Base},
    {"rawget", LanguageName::Kind::Base},
    {"rawlen", LanguageName::Kind::Base},
    {"rawset", LanguageName::Kind::Base},
    {"select", LanguageName::Kind::Base},
    {"setmetatable", LanguageName::Kind::Base},
    {"tonumber", LanguageName::Kind::Base},
    {"tostring", LanguageName::Kind::Base},
    {"type", LanguageName::Kind::Base},
    {"string", LanguageName::Kind::Library},
    {"table", LanguageName::Kind::Library},
    {"math", LanguageName::Kind::Library},
    {"utf8", LanguageName::Kind::Library},
    {"xpcall", LanguageName::Kind::Added},
    {"print", LanguageName::Kind::Added, "print(...)\tAs log, any values"},
    {"sleep", LanguageName::Kind::Added, "sleep(seconds)\tWaits"},
    {"wait_signal", LanguageName::Kind::Added,
     "wait_signal(name, timeout [, parameters])\tThe first signal, of those that the script has "
     "not "
     "passed, whose name has that text and whose parameters are these; nil without one"},
    {"expect_signal", LanguageName::Kind::Added,
     "expect_signal(name, timeout [, parameters])\tThe same; without one an error, with what came"},
    {"expect_no_signal", LanguageName::Kind::Added,
     "expect_no_signal(name, timeout [, parameters])\tWaits that long; an error if it comes"},
    {"when", LanguageName::Kind::Added,
     "when(name, handler [, parameters])\tFrom now on has waits call the handler with each such "
     "signal"},
    {"wait_state", LanguageName::Kind::Added,
     "wait_state(text, timeout)\tThe state with that text, which is or comes; nil without one"},
    {"expect_state", LanguageName::Kind::Added,
     "expect_state(text, timeout)\tThe same; without one an error"},
    {"wait_trace", LanguageName::Kind::Added,
     "wait_trace(text, timeout)\tThe next line with that text, nil without one"},
    {"wait_until", LanguageName::Kind::Added,
     "wait_until(predicate, timeout [, interval])\tThe first true result, nil without one"},
    {"wait", LanguageName::Kind::Added,
     "wait(watch, timeout)\tThe event's text, nil if none came within the seconds"},
    {"sys_int", LanguageName::Kind::Added,
     "sys_int.NAME, sys_string.NAME\tSystem variables; nil removes one"},
    {"sys_string", LanguageName::Kind::Added},
    {"key", LanguageName::Kind::Added, "key.NAME\tThe code of a remote control's key"},
};

#endif
