#ifndef KEY_CODES_H
#define KEY_CODES_H

#include <cstdint>
#include <vector>

/// A key of a remote control.
struct RemoteKey {
    const char* name; ///< in lower case
    int32_t code;     ///< a user control code of HDMI's CEC
};

/// All keys that have a name. Reentrant.
const std::vector<RemoteKey>& remoteKeys();

#endif
