#include "util/swap_file.h"

#include "util/cancellation_block.h"
#include "util/file_place.h"
#include "util/file_tree.h"
#include "util/mount_table.h"
#include "util/trusted_path.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/random.h>
#include <sys/swap.h>
#include <vector>

namespace swap_file {

namespace {

/// The first page, as the kernel reads it: numbers in this machine's byte order. The last bytes of
/// the page are the signature.
struct Header {
    char bootBlock[1024];
    uint32_t version;
    uint32_t lastPage;
    uint32_t badPages;
    unsigned char uuid[16];
    char label[16];
    uint32_t padding[117];
};
static_assert(sizeof(Header) == 1536, "the list of bad pages, which is empty, begins here");

constexpr uint32_t currentVersion = 1;
constexpr char signature[] = {'S', 'W', 'A', 'P', 'S', 'P', 'A', 'C', 'E', '2'};

uint64_t pageSize() {
    return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

std::vector<char> firstPage(uint64_t pages) {
    Header header{};
    header.version = currentVersion;
    header.lastPage = static_cast<uint32_t>(pages - 1);
    static_cast<void>(
        getrandom(header.uuid, sizeof header.uuid, GRND_NONBLOCK)); // else it has none
    std::vector<char> page(pageSize());
    memcpy(page.data(), &header, sizeof header);
    memcpy(page.data() + page.size() - sizeof signature, signature, sizeof signature);
    return page;
}

/// The system swaps past the file system: every block has its place from now on.
bool fillWithZeros(int file, uint64_t bytes) {
    const std::vector<char> zeros(1024 * 1024);
    for (uint64_t at = 0; at < bytes; at += zeros.size()) {
        const auto size = std::min<uint64_t>(zeros.size(), bytes - at);
        if (!writeAllAt(file, zeros.data(), static_cast<size_t>(size), static_cast<off_t>(at)))
            return false;
    }
    return true;
}

bool allocate(int file, uint64_t bytes) {
    int failed = 0;
    do
        failed = fallocate(file, 0, 0, static_cast<off_t>(bytes));
    while (failed != 0 && errno == EINTR);
    return failed == 0 || (errno == EOPNOTSUPP && fillWithZeros(file, bytes));
}

Outcome refuseIfOthersMay(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        return refused("cannot swap to " + path, errno);
    if (!S_ISREG(info.st_mode))
        return {Outcome::wrongKind, path + " is no file: make one with createSwapFile"};
    if (!belongsToUsOrRoot(info) || (info.st_mode & 077) != 0)
        return {Outcome::notAllowed, path + " may be read by others, and memory holds secrets: "
                                            "chown it to root and chmod 600 it"};
    return {};
}

/// Not a matter of the file, or of rights that it has.
Outcome refusedSwap(const std::string& what, int error) {
    if (error == EPERM)
        return {Outcome::notAllowed, what + ": only root (CAP_SYS_ADMIN) may: run this as root"};
    if (error == EINVAL)
        return {Outcome::notSupported,
                what + ": it is no swap file, or its file system carries none: make it with "
                       "createSwapFile on a file system such as ext4"};
    if (error == ENOMEM)
        return {Outcome::failed, what + ": memory does not hold what is in it: end other programs"};
    return refused(what, error);
}

/// FILE TYPE SIZE USED PRIORITY
bool isOn(const std::string& path) {
    char real[PATH_MAX];
    std::ifstream table("/proc/swaps");
    for (std::string line; realpath(path.c_str(), real) && std::getline(table, line);) {
        if (withoutOctalEscapes(line.substr(0, line.find_first_of(" \t"))) == real)
            return true;
    }
    return false;
}

} // namespace

} // namespace swap_file

Outcome createSwapFile(const std::string& path, uint64_t bytes) {
    using namespace swap_file;
    const CancellationBlock block;
    const uint64_t pages = bytes / pageSize();
    if (pages < fewestSwapPages || pages > UINT32_MAX)
        return {Outcome::badRequest, "a swap file of " + std::to_string(bytes) +
                                         " bytes is not to be had: take " +
                                         std::to_string(fewestSwapPages * pageSize()) + " to " +
                                         std::to_string(UINT32_MAX * pageSize())};
    PartFile file;
    if (Outcome opened = file.open(path); !opened)
        return opened;
    struct stat there {};
    if (fstatat(file.place().folder.get(), file.place().name.c_str(), &there,
                AT_SYMLINK_NOFOLLOW) == 0)
        return refused("cannot make the swap file " + path, EEXIST);
    const auto page = firstPage(pages);
    if (!allocate(file.descriptor(), pages * pageSize()) ||
        !writeAllAt(file.descriptor(), page.data(), page.size(), 0))
        return refused("cannot make the swap file " + path, errno);
    return file.keep(PartFile::Existing::Kept, PartFile::Sync::Yes);
}

Outcome enableSwapFile(const std::string& path, std::optional<int> priority) {
    const CancellationBlock block;
    if (priority && (*priority < 0 || *priority > SWAP_FLAG_PRIO_MASK))
        return {Outcome::badRequest, "a swap file's priority is 0 to " +
                                         std::to_string(SWAP_FLAG_PRIO_MASK) + ": name another"};
    if (Outcome outcome = swap_file::refuseIfOthersMay(path); !outcome)
        return outcome;
    const int flags = priority ? SWAP_FLAG_PREFER | *priority : 0;
    if (swapon(path.c_str(), flags) != 0)
        return swap_file::refusedSwap("cannot swap to " + path, errno);
    return {};
}

Outcome disableSwapFile(const std::string& path) {
    const CancellationBlock block;
    if (swapoff(path.c_str()) == 0)
        return {};
    if (errno == EINVAL)
        return {Outcome::missing, path + " is not in use as swap: see /proc/swaps"};
    return swap_file::refusedSwap("cannot stop to swap to " + path, errno);
}

Outcome removeSwapFile(const std::string& path) {
    const Outcome off = swap_file::isOn(path) ? disableSwapFile(path) : Outcome{};
    return off ? removeFile(path) : off;
}
