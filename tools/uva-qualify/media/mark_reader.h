#ifndef UVA_QUALIFY_MARK_READER_H
#define UVA_QUALIFY_MARK_READER_H

#include "media/mark.h"
#include "media/test_card.h"

#include <memory>
#include <optional>

namespace qualify {

/// Reads the marks of pictures. Bound to one thread.
class MarkReader {
public:
    MarkReader();
    ~MarkReader();

    /// Nothing when none can be read.
    std::optional<Mark> read(const Planes& picture);

private:
    struct Scanner;
    const std::unique_ptr<Scanner> m_scanner;
};

} // namespace qualify

#endif
