#ifndef TOOLS_COMMON_OUTPUT_FILE_H
#define TOOLS_COMMON_OUTPUT_FILE_H

#include <string>

namespace tools {

/// Whether the file could be written, found out before hours of work. Creates nothing. Empty when
/// it could, or none is named; else why not and what to do.
std::string whyNotWritable(const std::string& path);

/// Empty when the bytes are in the file; else why not and what to do.
std::string writeFile(const std::string& path, const std::string& bytes);

} // namespace tools

#endif
