#ifndef TOOLS_COMMON_OUTPUT_FILE_H
#define TOOLS_COMMON_OUTPUT_FILE_H

#include <cstdio>
#include <string>

namespace tools {

/// Whether the file could be written, found out before hours of work. Creates nothing. Empty when
/// it could, or none is named; else why not and what to do.
std::string whyNotWritable(const std::string& path);

/// Empty when all that was put into standard output, by whichever stream, got there; also when its
/// reader has gone (`| head`), who has seen what he wanted. Else what to do.
std::string whyNotPrinted(std::FILE* stream);

/// Empty when the bytes are in the file; else why not and what to do.
std::string writeFile(const std::string& path, const std::string& bytes);

} // namespace tools

#endif
