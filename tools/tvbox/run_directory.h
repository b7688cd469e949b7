#ifndef TVBOX_RUN_DIRECTORY_H
#define TVBOX_RUN_DIRECTORY_H

#include "unique_fd.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tvbox {

/// One box as others see it.
struct BoxInfo {
    std::string name;
    pid_t pid = 0;       ///< the box's first process; /proc/<pid>/ns has the namespaces
    std::string tmp;     ///< where the box's /tmp is seen from outside
    std::string command; ///< for people
};

/// The caller's place in the list of boxes. The file is locked as long as the box lives, so that
/// a record without a lock is what a killed tvbox left; it goes at the next look.
class BoxRecord {
public:
    BoxRecord(std::string path, UniqueFd file);
    BoxRecord(BoxRecord&&) = default;
    ~BoxRecord();

    /// Makes the box visible to find() and list().
    void publish(const BoxInfo& box);
    /// For a child: lets go of the file without removing it.
    void abandon();

private:
    std::string m_path;
    UniqueFd m_file;
};

/// The boxes of this user: $XDG_RUNTIME_DIR/tvbox, else /tmp/tvbox-<uid>, for that user alone. The
/// folder is there while there are boxes. All throw Failure if somebody else owns it.
class RunDirectory {
public:
    RunDirectory();

    /// Throws Failure for a bad name and for one that a living box has.
    BoxRecord claim(const std::string& name);
    std::vector<BoxInfo> list();
    std::optional<BoxInfo> find(const std::string& name);

private:
    std::string fileOf(const std::string& name) const { return m_path + "/" + name; }

    const std::string m_path;
};

} // namespace tvbox

#endif
