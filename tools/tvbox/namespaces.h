#ifndef TVBOX_NAMESPACES_H
#define TVBOX_NAMESPACES_H

#include "run_directory.h"

#include <sys/types.h>

namespace tvbox {

/// Which namespaces a box gets besides those for mounts and IPC.
struct BoxKind {
    bool user = true;
    bool process = true;
};

/// Like fork(), with the child in new namespaces. Throws Refusal.
pid_t forkIntoBox(BoxKind kind);

/// Whose the box is, outside.
struct Caller {
    uid_t uid;
    gid_t gid;
};

/// In the child: root in the box stands for the caller. All files written are the caller's.
void becomeBoxRoot(Caller caller);
/// In the child, when all is mounted: back to the caller's ids, without any privilege over the
/// box's mounts once a program is executed.
void becomeCaller(Caller caller);

/// Moves the process into the namespaces of a running box, its children into the box's process ids.
/// Throws Failure.
void joinBox(const BoxInfo& box);

} // namespace tvbox

#endif
