#ifndef HOST_EVENT_DESCRIPTION_H
#define HOST_EVENT_DESCRIPTION_H

#include "host/record.h"

class UVAEvent;

namespace host {

/// A record of the event with its name and members.
Record describe(const UVAEvent& event, Clock::time_point delivered);

} // namespace host

#endif
