#ifndef SUPPORT_QUEUE_ROOM_H
#define SUPPORT_QUEUE_ROOM_H

#include <cstdio>
#include <cstdlib>

namespace support {

/// The most messages that the kernel gives a queue here.
inline long queueRoom() {
    long room = 0;
    if (FILE* const file = fopen("/proc/sys/fs/mqueue/msg_max", "re")) {
        char text[32] = {};
        if (fgets(text, sizeof text, file))
            room = strtol(text, nullptr, 10);
        fclose(file);
    }
    return room;
}

} // namespace support

#endif
