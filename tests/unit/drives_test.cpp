#include "files_fixture.h"
#include "util/file_copy.h"
#include "util/mount.h"
#include "util/mount_table.h"
#include "util/scoped_handles.h"
#include "util/swap_file.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <utility>
#include <vector>

using namespace std::string_literals;

namespace {

/// Memory stands for a drive where its type does not matter.
class MountTest : public FilesTest {
protected:
    MountResult mountAt(const std::string& folder, const std::string& options = "") const {
        MountRequest request;
        request.drive = "memory";
        request.folder = folder;
        request.type = "tmpfs";
        request.options = options;
        return mountDrive(request);
    }
    static unsigned long flagsOf(const std::string& folder) {
        struct statvfs info {};
        EXPECT_EQ(statvfs(folder.c_str(), &info), 0);
        return info.f_flag & (ST_NOSUID | ST_NODEV | ST_NOEXEC | ST_RDONLY);
    }
};

TEST_F(MountTest, ADriveIsMountedWithoutRightsAndFoundInTheTable) {
    NEEDS_MOUNTS();
    const auto folder = makeFolder("a b\tc\\d\n#e");
    const auto mounted = mountAt(folder, "size=1m");
    ASSERT_TRUE(mounted.outcome) << mounted.outcome.text;
    EXPECT_EQ(mounted.type, "tmpfs");
    EXPECT_FALSE(mounted.isReadOnly);
    EXPECT_EQ(flagsOf(folder), ST_NOSUID | ST_NODEV | ST_NOEXEC);
    const auto mounts = readMounts();
    EXPECT_EQ(mounts.back().folder, folder);
    EXPECT_EQ(mounts.back().device, "memory");
    EXPECT_EQ(mounts.back().type, "tmpfs");

    EXPECT_EQ(mountAt(folder).outcome.code, Outcome::busy) << "it would hide the first";
    const auto unmounted = unmountDrive(folder + "/");
    EXPECT_TRUE(unmounted.outcome) << unmounted.outcome.text;
    EXPECT_EQ(unmountDrive(folder).outcome.code, Outcome::missing);

    MountRequest request{"memory", folder, "tmpfs"};
    request.mayExecute = request.mayHaveDevices = request.mayRaisePrivileges = true;
    request.readOnly = true;
    const auto readable = mountDrive(request);
    EXPECT_TRUE(readable.outcome && readable.outcome.text.empty()) << readable.outcome.text;
    EXPECT_TRUE(readable.isReadOnly);
    EXPECT_EQ(flagsOf(folder), static_cast<unsigned long>(ST_RDONLY));
    EXPECT_TRUE(unmountDrive(folder).outcome);
}

TEST_F(MountTest, RefusalsSayWhy) {
    struct {
        MountRequest request;
        Outcome::Code code;
    } const cases[] = {
        {{"LABEL=no such drive", m_folder}, Outcome::missing},
        {{"/dev/no such drive", m_folder}, Outcome::missing},
        {{"/dev/null", m_folder}, Outcome::wrongKind},
        {{"/dev/null", m_folder, "no such type"}, Outcome::wrongKind},
        {{"memory", at("none"), "tmpfs"}, Outcome::missing},
        {{"memory", m_folder, "tmpfs", "no=such option"},
         hasOwnMounts ? Outcome::notSupported : Outcome::notAllowed},
    };
    for (const auto& c : cases) {
        const auto result = mountDrive(c.request);
        EXPECT_EQ(result.outcome.code, c.code) << c.request.drive << ": " << result.outcome.text;
        EXPECT_NE(result.outcome.text.find(": "), std::string::npos) << result.outcome.text;
    }
}

/// A process that does something in the drive until the end of the scope.
class Other {
public:
    explicit Other(const std::function<void()>& act) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return;
        const ScopedFd from(ends[0]);
        ScopedFd to(ends[1]);
        m_process = fork();
        if (m_process == 0) {
            act();
            to.reset();
            for (;;)
                pause();
        }
        to.reset();
        char byte = 0;
        read(from.get(), &byte, 1); // its end: it has acted
    }
    ~Other() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    Other(const Other&) = delete;
    Other& operator=(const Other&) = delete;
    pid_t process() const { return m_process; }

private:
    pid_t m_process = -1;
};

TEST_F(MountTest, WhoHoldsABusyDriveIsNamed) {
    NEEDS_MOUNTS();
    const auto folder = makeFolder("drive");
    ASSERT_TRUE(mountAt(folder).outcome);
    const auto file = put("drive/a file", std::string(5000, 'x'));
    struct {
        const char* what;
        std::function<void()> act;
    } const holds[] = {
        {"works in", [&] { return static_cast<void>(chdir(folder.c_str())); }},
        {"has open", [&] { open(file.c_str(), O_RDONLY); }},
        {"has mapped",
         [&] {
             const ScopedFd opened(open(file.c_str(), O_RDONLY));
             mmap(nullptr, 5000, PROT_READ, MAP_SHARED, opened.get(), 0);
         }},
    };
    for (const auto& hold : holds) {
        const Other other(hold.act);
        const auto result = unmountDrive(folder);
        EXPECT_EQ(result.outcome.code, Outcome::busy);
        ASSERT_EQ(result.holders.size(), 1u) << hold.what;
        EXPECT_EQ(result.holders[0].process, other.process());
        EXPECT_EQ(result.holders[0].name, "files_test");
        EXPECT_EQ(result.holders[0].what.rfind(hold.what + " "s + folder, 0), 0u)
            << result.holders[0].what;
        EXPECT_NE(result.outcome.text.find(std::to_string(other.process())), std::string::npos);
    }
    ASSERT_TRUE(mountAt(makeFolder("drive/inside")).outcome);
    EXPECT_NE(unmountDrive(folder).outcome.text.find("inside: " + at("drive/inside")),
              std::string::npos);
    EXPECT_TRUE(unmountDrive(at("drive/inside")).outcome);

    makeFolder("drive2"); // not below it, for all that its name begins so
    const Other stranger([&] { static_cast<void>(chdir(at("drive2").c_str())); });
    const Other other(holds[0].act);
    EXPECT_EQ(unmountDrive(folder).holders.size(), 1u);
    EXPECT_TRUE(unmountDrive(folder, Unmount::Lazily).outcome);
    EXPECT_TRUE(names("drive").empty());
}

TEST(MountTypes, WritingIsTriedBeforeReadingAndTheBestReasonStays) {
    using Tries = std::vector<std::pair<std::string, bool>>;
    const Tries all = {{"a", false}, {"b", false}, {"a", true}, {"b", true}};
    struct {
        std::vector<int> errors;
        MountAttempt expected;
        size_t tries;
    } const cases[] = {
        {{0}, {"a", false, 0, 0}, 1},
        {{EINVAL, 0}, {"b", false, 0, 0}, 2},
        {{EINVAL, EROFS, EINVAL, 0}, {"b", true, 0, EROFS}, 4},
        {{EUCLEAN, ENODEV, 0}, {"a", true, 0, EUCLEAN}, 3},
        {{EINVAL, EINVAL, 0}, {"a", true, 0, EINVAL}, 3}, // a dirty NTFS says no more
        {{EINVAL, EPERM}, {"b", false, EPERM, 0}, 2},
        {{EINVAL, EIO, EINVAL, EINVAL}, {"", true, EIO, EIO}, 4},
        {{EINVAL, ENODEV, EINVAL, ENODEV}, {"", true, EINVAL, EINVAL}, 4},
    };
    for (const auto& c : cases) {
        Tries tries;
        const auto result = tryMountTypes({"a", "b"}, false, [&](const auto& type, bool readOnly) {
            tries.emplace_back(type, readOnly);
            return c.errors.at(tries.size() - 1);
        });
        EXPECT_EQ(tries, Tries(all.begin(), all.begin() + static_cast<long>(c.tries)));
        EXPECT_EQ(result.type, c.expected.type);
        EXPECT_EQ(result.readOnly, c.expected.readOnly);
        EXPECT_EQ(result.error, c.expected.error);
        EXPECT_EQ(result.whyNotWriting, c.expected.whyNotWriting);
    }
    EXPECT_EQ(
        tryMountTypes({"a"}, true, [](const auto&, bool readOnly) { return readOnly ? 0 : EINVAL; })
            .whyNotWriting,
        0);
}

/// A file with an ext4, as a drive; none where the system lets nobody have one.
class LoopDrive {
public:
    LoopDrive(const std::string& image, bool isWriteProtected) {
        const ScopedFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
        const int number = control ? ioctl(control.get(), LOOP_CTL_GET_FREE) : -1;
        path = "/dev/loop" + std::to_string(number);
        const int mode = isWriteProtected ? O_RDONLY : O_RDWR;
        const ScopedFd file(open(image.c_str(), mode | O_CLOEXEC));
        m_drive.reset(number < 0 ? -1 : open(path.c_str(), mode | O_CLOEXEC));
        loop_config config{};
        config.fd = static_cast<unsigned>(file.get());
        config.info.lo_flags =
            LO_FLAGS_AUTOCLEAR | (isWriteProtected ? static_cast<unsigned>(LO_FLAGS_READ_ONLY) : 0);
        if (m_drive && ioctl(m_drive.get(), LOOP_CONFIGURE, &config) != 0)
            m_drive.reset();
    }
    explicit operator bool() const { return static_cast<bool>(m_drive); }

    std::string path;

private:
    ScopedFd m_drive; // the drive goes with its last user
};

class LoopTest : public MountTest {
protected:
    std::string makeImage() const {
        const auto image = put("image", "");
        EXPECT_EQ(truncate(image.c_str(), 8 * 1024 * 1024), 0);
        const auto command = "PATH=$PATH:/usr/sbin:/sbin mkfs.ext4 -q -L 'MY STICK' " + image;
        m_isThere = system(command.c_str()) == 0;
        return image;
    }
    mutable bool m_isThere = false;
};

#define NEEDS_DRIVE(drive)                                                                         \
    if (!m_isThere || !(drive))                                                                    \
    GTEST_SKIP() << "no loop device: run it as root, with e2fsprogs installed"

TEST_F(LoopTest, ADriveIsFoundByItsLabelAndItsTypeTried) {
    NEEDS_MOUNTS();
    const LoopDrive drive(makeImage(), false);
    NEEDS_DRIVE(drive);
    const auto info = look(drive.path);
    ASSERT_TRUE(support::mountMemory("/dev", "mode=755"));
    ASSERT_EQ(mknod(drive.path.c_str(), S_IFBLK | 0600, info.st_rdev), 0);
    std::filesystem::create_directories("/dev/disk/by-label");
    ASSERT_EQ(symlink(("../../" + drive.path.substr(5)).c_str(), "/dev/disk/by-label/MY\\x20STICK"),
              0);
    // A folder in memory lists its newest first: they are looked at before.
    for (const char* const others : {"MY\\xZZSTICK", "MY\\x2ZSTICK", "MY\\x2", "ABCD"})
        ASSERT_EQ(symlink("../../null", (std::string("/dev/disk/by-label/") + others).c_str()), 0);
    const auto folder = makeFolder("drive");
    const auto mounted = mountDrive({"LABEL=MY STICK", folder});
    EXPECT_TRUE(mounted.outcome && mounted.outcome.text.empty()) << mounted.outcome.text;
    EXPECT_EQ(mounted.type, "ext4");
    EXPECT_FALSE(mounted.isReadOnly);
    EXPECT_EQ(names("drive"), std::set<std::string>{"lost+found"});
    put("drive/file", "x");
    const auto unmounted = unmountDrive("LABEL=MY STICK");
    EXPECT_TRUE(unmounted.outcome) << unmounted.outcome.text;
    EXPECT_TRUE(names("drive").empty());
    umount2("/dev", MNT_DETACH);
}

TEST_F(LoopTest, AWriteProtectedDriveIsReadAndSaysSo) {
    NEEDS_MOUNTS();
    const auto image = makeImage();
    const LoopDrive drive(image, true);
    NEEDS_DRIVE(drive);
    const auto mounted = mountDrive({drive.path, makeFolder("drive")});
    EXPECT_TRUE(mounted.outcome) << mounted.outcome.text;
    EXPECT_TRUE(mounted.isReadOnly);
    EXPECT_NE(mounted.outcome.text.find("reading only"), std::string::npos) << mounted.outcome.text;
    EXPECT_NE(mounted.outcome.text.find("write protection"), std::string::npos);
    EXPECT_TRUE(unmountDrive(drive.path).outcome);
}

TEST_F(LoopTest, AnEmptyDriveSaysWhatWasTried) {
    NEEDS_MOUNTS();
    makeImage();
    const auto image = put("empty", std::string(1024 * 1024, '\0'));
    const LoopDrive drive(image, false);
    NEEDS_DRIVE(drive);
    const auto result = mountDrive({drive.path, m_folder});
    EXPECT_EQ(result.outcome.code, Outcome::notSupported) << result.outcome.text;
    EXPECT_NE(result.outcome.text.find("ext4"), std::string::npos) << result.outcome.text;
}

/// The system itself reads the header: swap is on for a moment.
TEST_F(LoopTest, TheSystemTakesASwapFile) {
    NEEDS_MOUNTS();
    const LoopDrive drive(makeImage(), false);
    NEEDS_DRIVE(drive);
    ASSERT_TRUE(mountDrive({drive.path, makeFolder("drive")}).outcome);
    const auto path = at("drive/a swap");
    ASSERT_TRUE(createSwapFile(path, 1024 * 1024));
    const auto enabled = enableSwapFile(path, 0);
    EXPECT_TRUE(enabled) << enabled.text;
    EXPECT_EQ(enableSwapFile(path).code, Outcome::busy);
    EXPECT_EQ(unmountDrive(drive.path).outcome.code, Outcome::busy);
    const auto removed = removeSwapFile(path);
    EXPECT_TRUE(removed) << removed.text;
    EXPECT_EQ(disableSwapFile(path).code, Outcome::missing);
    EXPECT_TRUE(unmountDrive(drive.path).outcome);
}

class SwapTest : public FilesTest {};

TEST_F(SwapTest, ItIsWholeAndHasTheHeaderAndNothingIsReplaced) {
    const auto path = at("swap");
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const mode_t before = umask(0);
    const auto made = createSwapFile(path, 100 * page + 5);
    umask(before);
    ASSERT_TRUE(made) << made.text;
    const auto info = look(path);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(static_cast<size_t>(info.st_size), 100 * page);
    EXPECT_GE(static_cast<size_t>(info.st_blocks) * 512, 100 * page) << "it has holes";
    const auto content = contentOf(path);
    EXPECT_EQ(content.substr(page - 10, 10), "SWAPSPACE2");
    const uint32_t expected[] = {1, 99, 0}; // version, last page, bad pages
    EXPECT_EQ(memcmp(content.data() + 1024, expected, sizeof expected), 0);

    EXPECT_EQ(createSwapFile(path, 200 * page).code, Outcome::alreadyThere);
    EXPECT_EQ(look(path).st_size, info.st_size);
    EXPECT_EQ(createSwapFile(at("other"), 9 * page).code, Outcome::badRequest);
    EXPECT_EQ(createSwapFile(at("other"), uint64_t{1} << 50).code == Outcome::done, false);
    EXPECT_EQ(names(), std::set<std::string>{"swap"});
}

/// That file system knows neither its size nor how to reserve.
TEST_F(SwapTest, WhereNothingCanBeReservedItIsWritten) {
    NEEDS_MOUNTS();
    ASSERT_EQ(mount("ramfs", makeFolder("drive").c_str(), "ramfs", 0, nullptr), 0);
    const auto made = createSwapFile(at("drive/swap"), 1100000);
    ASSERT_TRUE(made) << made.text;
    EXPECT_EQ(look(at("drive/swap")).st_size / 4096, 1100000 / 4096);
    const auto copied = copyFile(at("drive/swap"), at("drive/copy"));
    EXPECT_TRUE(copied) << copied.text;
    EXPECT_EQ(contentOf(at("drive/copy")), contentOf(at("drive/swap")));
}

TEST_F(SwapTest, OnlyASafeFileIsTakenAndAMissingRightIsToldInWords) {
    const auto path = at("swap");
    EXPECT_EQ(enableSwapFile(path).code, Outcome::missing);
    EXPECT_EQ(enableSwapFile(m_folder).code, Outcome::wrongKind);
    ASSERT_TRUE(createSwapFile(path, 1024 * 1024));
    EXPECT_EQ(enableSwapFile(path, -1).code, Outcome::badRequest);
    EXPECT_EQ(enableSwapFile(path, 32768).code, Outcome::badRequest);
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_NE(enableSwapFile(path).text.find("chmod 600"), std::string::npos);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    // Memory carries no swap, and who is not root may not even ask.
    const auto refusal = enableSwapFile(path);
    EXPECT_TRUE(refusal.code == Outcome::notSupported || refusal.code == Outcome::notAllowed);
    EXPECT_NE(refusal.text.find(refusal.code == Outcome::notAllowed ? "only root" : "ext4"),
              std::string::npos)
        << refusal.text;
    EXPECT_TRUE(removeSwapFile(path));
    EXPECT_TRUE(names().empty());
}

} // namespace
