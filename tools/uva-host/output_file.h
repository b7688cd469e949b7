#ifndef UVA_HOST_OUTPUT_FILE_H
#define UVA_HOST_OUTPUT_FILE_H

#include <string>

namespace uvahost {

/// Whether the file could be written, found out before hours of playing. Creates nothing. Empty
/// when it could; else why not and what to do.
std::string whyNotWritable(const std::string& path);

/// Empty when the bytes are in the file; else why not and what to do.
std::string writeFile(const std::string& path, const std::string& bytes);

} // namespace uvahost

#endif
