#ifndef TVBOX_BOX_FILES_H
#define TVBOX_BOX_FILES_H

#include "options.h"
#include "util/scoped_handles.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tvbox {

/// The file system of a box: /tmp, /etc, /dev, message queues and shared memory of its own.
class BoxFiles {
public:
    /// Outside: finds out what is to be let through, opens what goes to /etc. Throws Failure.
    explicit BoxFiles(const Options& options);

    /// /tmp without links.
    const std::string& tmp() const { return m_tmp; }
    /// In a mount namespace that nobody else is in: mounts all. With @p newProc also a /proc of the
    /// process's own process ids. Throws Refusal or filesystem_error where the system says no.
    void mountAll(bool newProc) const;
    /// Inside: copies to the outside what the command made at shared paths. Returns a text for each
    /// that could not be written.
    std::vector<std::string> bringBack() const;

private:
    using Path = std::filesystem::path;

    bool share(const Path& path);
    Path hidden(const Path& path) const;
    void hideTmp() const;
    void hide(const Path& folder, const std::vector<const char*>& own) const;
    void show(const Path& outside, const Path& inside) const;
    void placeEtc() const;
    void letThrough() const;

    const std::string m_tmp;
    Path m_cwd;                            ///< empty: unknown
    std::map<std::string, ScopedFd> m_etc; ///< by name
    /// Entries of the hidden folders that are shared, and without links where they lead to; empty
    /// if they are not there.
    std::map<Path, Path> m_shared;
};

/// Raises the limits of the message queues, also for programs of this process, as far as the system
/// lets us. Returns what is missing of the box's, empty if nothing.
std::string raiseQueueLimits();

/// As outside; in the root folder where that one is unknown or not to be entered.
void enterFolder(const std::filesystem::path& outside);

} // namespace tvbox

#endif
