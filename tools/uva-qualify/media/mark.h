#ifndef UVA_QUALIFY_MARK_H
#define UVA_QUALIFY_MARK_H

#include <optional>
#include <string>

namespace qualify {

/// What every picture of a test clip says of itself, as a QR code of 21 by 21 modules.
struct Mark {
    char clip = 'A'; ///< which clip it is of, A to Z
    int number = 0;  ///< of the picture, from 0
    int time = 0;    ///< where in the clip it begins, milliseconds
};

/// "A-00123-004920".
std::string textOf(const Mark& mark);
std::optional<Mark> parseMark(const std::string& text);

} // namespace qualify

#endif
