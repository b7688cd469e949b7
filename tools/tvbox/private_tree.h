#ifndef TVBOX_PRIVATE_TREE_H
#define TVBOX_PRIVATE_TREE_H

#include <set>
#include <string>
#include <vector>

namespace tvbox {

/// A folder of the box that hides one of the same name outside (/tmp, /dev/shm), but for what the
/// user named in it. What is shared is the topmost entry: a folder is mounted, a file or socket is
/// a link, so that it may be replaced. Belongs to the process that makes the box.
class PrivateTree {
public:
    /// @p path is the folder, without links; @p outside where the hidden one is seen in the box.
    PrivateTree(std::string path, std::string outside);

    /// Lets an absolute path through if it lies in the tree and exists outside. Names that are the
    /// box's own by nature are not let through. Throws Refusal.
    void letThrough(const std::string& path);
    /// The same for the entries that fit a pattern such as "pulse-*".
    void letThroughMatching(const std::string& pattern);

    /// Copies to the outside what the box made at @p path, unless it is there already.
    /// Returns texts for what failed.
    std::vector<std::string> bringBack(const std::string& path) const;

private:
    /// The part of a path below the tree; empty if it is elsewhere.
    std::string within(const std::string& path) const;
    void share(const std::string& entry);

    const std::string m_path;
    const std::string m_outside;
    std::set<std::string> m_shared; ///< topmost entries that are the outside's
};

} // namespace tvbox

#endif
