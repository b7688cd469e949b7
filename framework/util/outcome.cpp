#include "util/outcome.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace outcome {

namespace {

struct Row {
    int error;
    Outcome::Code code;
    const char* advice;
};

constexpr Row rows[] = {
    {ENOENT, Outcome::missing, "make it first, or name one that is there"},
    {ENXIO, Outcome::missing, "plug the drive in"},
    {ENODEV, Outcome::notSupported, "load the driver, or name another type"},
    {ENOMEDIUM, Outcome::missing, "put the medium in"},
    {EACCES, Outcome::notAllowed, "chmod or chown it, or run this as root"},
    {EPERM, Outcome::notAllowed, "run this as root"},
    {EROFS, Outcome::readOnly, "take the write protection off, or mount it for writing"},
    {ENOSPC, Outcome::noSpace, "free space, or take another drive"},
    {EDQUOT, Outcome::noSpace, "free space, or raise the quota"},
    {EFBIG, Outcome::tooLarge,
     "take a drive with another file system (FAT takes 4 GB), or see "
     "ulimit -f"},
    {ENAMETOOLONG, Outcome::tooLarge, "shorten the name"},
    {ENOTDIR, Outcome::wrongKind, "name a folder, not a file or a link"},
    {EISDIR, Outcome::wrongKind, "name a file in it"},
    {ELOOP, Outcome::wrongKind, "put a file or folder in the place of the link"},
    {ENOTBLK, Outcome::wrongKind, "name a drive, such as /dev/sda1"},
    {EEXIST, Outcome::alreadyThere, "remove it, or take another name"},
    {ENOTEMPTY, Outcome::alreadyThere, "remove what is in it first"},
    {EBUSY, Outcome::busy, "end what uses it, or unmount what is mounted there"},
    {ETXTBSY, Outcome::busy, "end what uses it"},
    {EIO, Outcome::damaged, "check the drive and its plug"},
    {EUCLEAN, Outcome::damaged, "check the drive with fsck"},
    {EBADMSG, Outcome::damaged, "check the drive with fsck"},
    {ENOEXEC, Outcome::wrongKind, "name a program of this machine, or begin the script with #!"},
    {E2BIG, Outcome::tooLarge, "pass less"},
    {ENOSYS, Outcome::notSupported, "it takes a newer kernel"},
    {EOPNOTSUPP, Outcome::notSupported, "take another file system"},
    {ENOMEM, Outcome::failed, "end other programs to free memory"},
    {EMFILE, Outcome::failed, "close files, or raise ulimit -n"},
    {ENFILE, Outcome::failed, "close files, or raise fs.file-max"},
    {EAGAIN, Outcome::failed, "end other processes, or raise ulimit -u"},
};
constexpr Row anythingElse = {0, Outcome::failed, "see the kernel's log (dmesg)"};

} // namespace

} // namespace outcome

Outcome refused(const std::string& what, int error) {
    const auto* const found = std::find_if(std::begin(outcome::rows), std::end(outcome::rows),
                                           [&](const auto& row) { return row.error == error; });
    const auto& row = found == std::end(outcome::rows) ? outcome::anythingElse : *found;
    const char* const reason = strerrordesc_np(error);
    return {row.code,
            what + ": " + (reason ? reason : "error " + std::to_string(error)) + ": " + row.advice};
}
