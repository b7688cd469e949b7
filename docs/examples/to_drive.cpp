// Copies a file to a removable drive: to_drive LABEL=STICK /mnt/stick recording.ts

#include "util/file_copy.h"
#include "util/mount.h"

#include <cstdio>
#include <unistd.h>

namespace {

/// Says a remark, too. Whether it is done.
bool say(const Outcome& outcome) {
    if (!outcome.text.empty())
        std::fprintf(stderr, "%s\n", outcome.text.c_str());
    return static_cast<bool>(outcome);
}

Outcome copyTo(const std::string& folder, const std::string& file) {
    CopyOptions options;
    options.sync = true;
    if (isatty(STDERR_FILENO) != 0)
        options.progress = [](uint64_t written, uint64_t all) {
            std::fprintf(stderr, "%llu of %llu bytes\r", static_cast<unsigned long long>(written),
                         static_cast<unsigned long long>(all));
            return true; // false cancels
        };
    return copyFile(file, folder + file.substr(file.find_last_of('/') + 1), options);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr,
                     "usage: to_drive DRIVE FOLDER FILE\n"
                     "DRIVE is a device or LABEL=..., FOLDER where it is mounted meanwhile\n");
        return 2;
    }
    MountRequest request;
    request.drive = argv[1];
    request.folder = argv[2];
    if (!say(mountDrive(request).outcome))
        return 1;
    const bool isCopied = say(copyTo(request.folder + "/", argv[3]));
    const bool isFree = say(unmountDrive(request.folder).outcome); // names who holds it
    return isCopied && isFree ? 0 : 1;
}
