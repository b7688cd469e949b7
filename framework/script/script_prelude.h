#ifndef SCRIPT_PRELUDE_H
#define SCRIPT_PRELUDE_H

#include <string_view>

/// What every script finds besides the language and its commands, in the language itself: what may
/// take long there is counted and stopped as any other step of a script. The language's own
/// patterns, and its functions for tables, can be made to run for ever where nobody counts.
std::string_view scriptPrelude();

#endif
