#ifndef MAINSYS_DESCRIBE_H
#define MAINSYS_DESCRIBE_H

#include "link.h"
#include "script/script_value.h"

#include <string>

namespace mainsys {

/// The name of the signal, with its number for those who have none.
std::string signalName(const ZantMsgBody& body);

/// The parameters that are set and what the payload says, for a line of the log.
std::string describe(const Signal& signal);

/// The same as what scripts find beside the signal's name: "number", "param1" to "param4",
/// "sequence", and where there are such the "kinds", as orders name them, and the "payload".
ScriptValue parametersOf(const Signal& signal);

/// What the payload says: a format, a text, a window, or its first bytes. Empty without one.
std::string describePayload(const Signal& signal);

} // namespace mainsys

#endif
