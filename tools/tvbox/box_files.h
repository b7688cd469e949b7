#ifndef TVBOX_BOX_FILES_H
#define TVBOX_BOX_FILES_H

#include "options.h"
#include "private_tree.h"
#include "unique_fd.h"

#include <string>
#include <vector>

namespace tvbox {

/// A file of the box's /etc, read outside.
struct EtcContent {
    std::string name;
    std::string bytes;
};

/// What the box's files are made from; all of it is found out before the box begins.
struct FilePlan {
    std::string tmp; ///< the real path of /tmp
    std::string cwd; ///< empty: unknown, the process stays where it is
    Words named;     ///< paths that may have to be let through
    Words keep;      ///< patterns
    std::vector<EtcContent> etc;
};

/// Throws Failure if a file of --etc cannot be read.
FilePlan makeFilePlan(const Options& options);

/// The file system of a box: /tmp, /etc, /dev, message queues and shared memory of its own. To be
/// used in a mount namespace that nobody else is in. Throws Refusal where the system says no.
class BoxFiles {
public:
    explicit BoxFiles(const FilePlan& plan);

    /// Mounts all. With @p newProc also a /proc of the process's own process ids.
    void mountAll(bool newProc);
    /// Raises the limits of the message queues. Returns what is missing, empty if nothing.
    std::string raiseQueueLimits() const;
    /// Copies what the command made at the paths and patterns of the plan to the outside.
    std::vector<std::string> bringBack() const;

private:
    void hideTmp();
    void hideEtc();
    void hideDev();
    void mirror(const std::string& outside, const std::string& inside,
                const std::vector<const char*>& without) const;
    void letThroughNamed();

    const FilePlan& m_plan;
    const std::string m_back; ///< where the hidden folders are seen
    PrivateTree m_tmp;
    PrivateTree m_shm;
};

} // namespace tvbox

#endif
