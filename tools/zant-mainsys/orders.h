#ifndef MAINSYS_ORDERS_H
#define MAINSYS_ORDERS_H

#include "script/script_commands.h"

#include <string>

namespace mainsys {

class Session;

// What the main system can be told: by a script, whose commands these are, or by a line of the
// terminal. On the session's thread.

/// Gives all scripts these commands. Once; the session outlives them.
void registerOrders(Session& session);

/// Obeys a line: a command's name and its arguments, with blanks between. Throws ScriptError when
/// it is none, or cannot be obeyed.
ScriptValues obeyLine(Session& session, const std::string& line);

/// For the program's help: a usage with what it does, each.
std::string ordersHelp();

} // namespace mainsys

#endif
