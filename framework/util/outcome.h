#ifndef UTIL_OUTCOME_H
#define UTIL_OUTCOME_H

#include <cstdint>
#include <string>

/// What became of an operation on files, drives or commands: a code for the caller to go by, a text
/// for whoever runs the set. Reentrant.
struct Outcome {
    enum Code : int32_t {
        done = 0,
        badRequest = -2700,    ///< what was asked for makes no sense
        missing = -2701,       ///< not there
        notAllowed = -2702,    ///< a right is missing
        readOnly = -2703,      ///< the file system or the drive is not written to
        noSpace = -2704,       ///< the drive or the quota is full
        tooLarge = -2705,      ///< a file or name is larger than the file system takes
        wrongKind = -2706,     ///< a folder, link, pipe or device in place of what was wanted
        alreadyThere = -2707,  ///< something is in the place
        busy = -2708,          ///< in use, or mounted on
        damaged = -2709,       ///< the drive cannot be read or written
        changed = -2710,       ///< somebody else changed it meanwhile
        cancelled = -2711,     ///< by the caller
        timedOut = -2712,      ///< the time limit has passed
        notSupported = -2713,  ///< the system or the file system lacks it
        commandFailed = -2714, ///< it ran, and ended with an exit code or by a signal
        reapedByHost = -2715,  ///< it ran, and the process got its exit code elsewhere
        failed = -2716,        ///< anything else, such as memory or descriptors that ran out
    };

    Code code = done;
    std::string text = {}; ///< the reason and what to do next; a remark, if any, when it is done

    explicit operator bool() const { return code == done; }
};

/// Of an operation that the system refused with that errno. `what` is a sentence without its end,
/// such as "cannot open /tmp/x".
Outcome refused(const std::string& what, int error);

#endif
