#ifndef UVA_HOST_OWN_OUTPUT_H
#define UVA_HOST_OWN_OUTPUT_H

#include "util/scoped_handles.h"

#include <cstdio>
#include <string>

namespace uvahost {

/// The program's standard output. The backend library and what it stands on print lines of their
/// own there; they can be sent away. One a process.
class OwnOutput {
public:
    enum class Others { ToErrors, Nowhere };

    /// From now on what anybody else prints goes there, also when the process ends: threads and
    /// exit handlers of a library print late. Before there are threads. Empty, or why it failed.
    std::string send(Others where);

    /// Where the program prints, whatever became of the others.
    std::FILE* stream() const { return m_own ? m_own.get() : stdout; }

    /// The path under which a file is to be opened that the user named: standard output, by
    /// whichever name, is the program's own.
    std::string pathOf(const std::string& path) const;

private:
    ScopedFile m_own; ///< none: nobody was sent away
};

} // namespace uvahost

#endif
