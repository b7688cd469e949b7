#include "files_fixture.h"
#include "util/file_copy.h"
#include "util/file_place.h"
#include "util/file_tree.h"

#include <atomic>
#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

using namespace std::string_literals;

namespace {

constexpr off_t giga = 1024 * 1024 * 1024;

class CopyTest : public FilesTest {
protected:
    /// A copy that is told so at its so-many-th report.
    static CopyOptions when(int report, std::function<bool()> act) {
        CopyOptions options;
        options.progress = [report, act = std::move(act), count = 0](uint64_t, uint64_t) mutable {
            return ++count != report || act();
        };
        return options;
    }
};

TEST_F(CopyTest, AFileOfMoreThanFourGigabytesKeepsItsHolesAndMode) {
    const auto from = put("from", "begin");
    {
        const ScopedFd file(open(from.c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_TRUE(writeAllAt(file.get(), "far", 3, 5 * giga + 12345));
        ASSERT_EQ(ftruncate(file.get(), 6 * giga + 1), 0);
        ASSERT_EQ(fchmod(file.get(), 04751), 0);
    }
    uint64_t written = 1;
    uint64_t all = 0;
    CopyOptions options;
    options.sync = true;
    options.progress = [&](uint64_t now, uint64_t whole) {
        written = now;
        all = whole;
        return true;
    };
    const auto outcome = copyFile(from, at("to"), options);
    ASSERT_TRUE(outcome) << outcome.text;
    const auto info = look(at("to"));
    EXPECT_EQ(info.st_size, 6 * giga + 1);
    EXPECT_LT(info.st_blocks, 2048) << "a hole was written";
    EXPECT_EQ(info.st_mode & 07777, 0751u) << "permissions stay, the right to be another user not";
    EXPECT_EQ(written, all);
    EXPECT_GT(all, 7u);
    EXPECT_LT(all, 1000000u);
    char bytes[5];
    const ScopedFd copy(open(at("to").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(pread(copy.get(), bytes, 5, 0), 5);
    EXPECT_EQ(std::string(bytes, 5), "begin");
    EXPECT_EQ(pread(copy.get(), bytes, 5, 5 * giga + 12345), 5);
    EXPECT_EQ(std::string(bytes, 5), "far\0\0"s);
}

TEST_F(CopyTest, RefusalsTouchNothing) {
    const auto from = put("from", "new");
    put("there", "old");
    makeFolder("folder");
    ASSERT_EQ(mkfifo(at("pipe").c_str(), 0600), 0);
    ASSERT_EQ(link(from.c_str(), at("hard").c_str()), 0);
    ASSERT_EQ(symlink("from", at("soft").c_str()), 0);
    const auto before = names();
    struct {
        std::string from, to;
        Outcome::Code code;
    } const cases[] = {
        {from, from, Outcome::badRequest},
        {from, at("hard"), Outcome::badRequest},
        {from, at("soft"), Outcome::badRequest},
        {at("soft"), from, Outcome::badRequest},
        {from, at("folder"), Outcome::wrongKind},
        {from, at("pipe"), Outcome::wrongKind},
        {at("folder"), at("there"), Outcome::wrongKind},
        {at("pipe"), at("there"), Outcome::wrongKind},
        {"/dev/zero", at("there"), Outcome::wrongKind},
        {at("none"), at("there"), Outcome::missing},
        {from, at("none/to"), Outcome::missing},
        {from, at("folder/.."), Outcome::badRequest},
        {from, at(std::string(256, 'n')), Outcome::tooLarge},
        {from, "", Outcome::badRequest},
    };
    for (const auto& c : cases) {
        const auto outcome = copyFile(c.from, c.to);
        EXPECT_EQ(outcome.code, c.code) << c.from << " to " << c.to << ": " << outcome.text;
        EXPECT_NE(outcome.text.rfind(": "), std::string::npos) << "what to do: " << outcome.text;
    }
    EXPECT_EQ(names(), before);
    EXPECT_EQ(contentOf(at("there")), "old");
    EXPECT_EQ(contentOf(from), "new");
}

TEST_F(CopyTest, ACopyThatEndsEarlyLeavesWhatWasThere) {
    const auto from = put("from", std::string(5000000, 'x'));
    const auto to = put("to", "old");
    const auto expectOld = [&] {
        EXPECT_EQ(names(), (std::set<std::string>{"from", "to"}));
        EXPECT_EQ(contentOf(to), "old");
    };
    EXPECT_EQ(copyFile(from, to, when(1, [] { return false; })).code, Outcome::cancelled);
    expectOld();
    EXPECT_EQ(copyFile(from, to, when(3, [] { return false; })).code, Outcome::cancelled);
    expectOld();
    EXPECT_THROW(copyFile(from, to, when(3, []() -> bool { throw std::runtime_error("enough"); })),
                 std::runtime_error);
    expectOld();
    Outcome second;
    EXPECT_TRUE(copyFile(put("small", "new"), to, when(1, [&] {
                             second = copyFile(from, to);
                             return true;
                         })));
    EXPECT_EQ(second.code, Outcome::busy) << second.text;
    EXPECT_EQ(contentOf(to), "new");
    const auto shorter = when(2, [&] { return truncate(from.c_str(), 1500000) == 0; });
    EXPECT_EQ(copyFile(from, to, shorter).code, Outcome::changed);
    EXPECT_EQ(contentOf(to), "new");
    EXPECT_EQ(names().size(), 3u);
}

TEST_F(CopyTest, WhatAKilledCopyLeftGoesWithTheNext) {
    const std::string name = [] {
        std::string text;
        while (text.size() < 254)
            text += "\xC3\xA4";
        return text;
    }();
    const auto from = put("from", "new");
    const pid_t child = fork();
    if (child == 0) {
        copyFile(from, at(name), when(1, [] { return raise(SIGKILL) == 0; }));
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(names().size(), 2u) << "the killed one stands under its other name";
    const auto outcome = copyFile(from, at(name));
    EXPECT_TRUE(outcome) << outcome.text;
    EXPECT_EQ(names(), (std::set<std::string>{"from", name}));
}

TEST_F(CopyTest, WhatHasComeMeanwhileIsKeptWhereAsked) {
    PartFile part;
    ASSERT_TRUE(part.open(at("to")));
    put("to", "theirs");
    EXPECT_EQ(part.keep(PartFile::Existing::Kept, PartFile::Sync::No).code, Outcome::alreadyThere);
    EXPECT_EQ(contentOf(at("to")), "theirs");
}

TEST_F(CopyTest, AFullDriveIsToldBeforeAndMeanwhile) {
    NEEDS_MOUNTS();
    ASSERT_TRUE(support::mountMemory(makeFolder("drive").c_str(), "size=4m"));
    const auto large = put("large", std::string(5000000, 'x'));
    const auto small = put("small", std::string(2000000, 'x'));
    bool hasBegun = false;
    const auto before = when(1, [&] { return hasBegun = true; });
    EXPECT_EQ(copyFile(large, at("drive/to"), before).code, Outcome::noSpace);
    EXPECT_FALSE(hasBegun);
    const auto filling = when(1, [&] {
        put("drive/other", std::string(3000000, 'y'));
        return true;
    });
    EXPECT_EQ(copyFile(small, at("drive/to"), filling).code, Outcome::noSpace);
    EXPECT_EQ(names("drive"), std::set<std::string>{"other"});
}

TEST_F(CopyTest, LinksAndFilesWithoutASizeAreReadToTheirEnd) {
    ASSERT_EQ(symlink("/proc/self/status", at("link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", at("to").c_str()), 0);
    EXPECT_TRUE(copyFile(at("link"), at("to")));
    EXPECT_TRUE(S_ISREG(look(at("to")).st_mode)) << "the link itself is replaced";
    EXPECT_NE(contentOf(at("to")).find("Pid:"), std::string::npos);
}

class TreeTest : public FilesTest {};

TEST_F(TreeTest, WhatIsMadeHasItsModeAndIsNotMadeTwice) {
    const mode_t before = umask(077);
    EXPECT_TRUE(createFile(at("file"), 0664));
    EXPECT_TRUE(createFolder(at("folder/"), 0775));
    EXPECT_TRUE(createFolders(m_folder, "folder/a/b", 0771));
    umask(before);
    EXPECT_TRUE(createFolders(m_folder, "folder/a/b"));
    EXPECT_EQ(look(at("file")).st_mode & 07777, 0664u);
    EXPECT_EQ(look(at("folder")).st_mode & 07777, 0775u);
    EXPECT_EQ(look(at("folder/a/b")).st_mode & 07777, 0771u);
    EXPECT_EQ(createFile(at("file")).code, Outcome::alreadyThere);
    EXPECT_EQ(createFolder(at("folder")).code, Outcome::alreadyThere);
    EXPECT_EQ(removeFolder(at("folder")).code, Outcome::alreadyThere);
    EXPECT_EQ(removeFile(at("folder")).code, Outcome::wrongKind);
    EXPECT_TRUE(removeFolder(at("folder/a/b")));
    EXPECT_TRUE(removeFile(at("file")));
    EXPECT_EQ(removeFile(at("file")).code, Outcome::missing);
    EXPECT_EQ(names(), std::set<std::string>{"folder"});
}

TEST_F(TreeTest, NoLinkLeadsOut) {
    makeFolder("outside");
    put("outside/precious", "x");
    makeFolder("tree");
    ASSERT_EQ(symlink("../outside", at("tree/link").c_str()), 0);
    EXPECT_EQ(createFolders(at("tree"), "link/new").code, Outcome::wrongKind);
    for (const char* below : {"../new", "/new", "a//b", "a/", ""})
        EXPECT_EQ(createFolders(at("tree"), below).code, Outcome::badRequest) << below;
    for (const auto& path : {""s, "/"s, "."s, at("tree/.."), at("tree/.")})
        EXPECT_EQ(removeTree(path).code, Outcome::badRequest) << path;
    EXPECT_EQ(names("outside"), std::set<std::string>{"precious"});
    EXPECT_TRUE(removeTree(at("tree")));
    ASSERT_EQ(symlink("outside", at("top").c_str()), 0);
    EXPECT_TRUE(removeTree(at("top"))) << "the link itself";
    EXPECT_EQ(names(), std::set<std::string>{"outside"});
    EXPECT_EQ(names("outside"), std::set<std::string>{"precious"});
}

/// Parts are exchanged for links and moved away while the tree is removed.
TEST_F(TreeTest, ATreeThatIsExchangedMeanwhileDoesNoHarm) {
    makeFolder("outside");
    makeFolder("outside/inner");
    put("outside/precious", "x");
    put("outside/inner/precious", "x");
    std::atomic<bool> isOver{false};
    const auto isLink = [](const std::string& path) {
        char target[10];
        return readlink(path.c_str(), target, sizeof target) > 0;
    };
    std::thread swapper([&] {
        while (!isOver) {
            renameat2(AT_FDCWD, at("lure").c_str(), AT_FDCWD, at("tree/a").c_str(),
                      RENAME_EXCHANGE);
            rename(at("tree/b/c").c_str(), at("outside/c").c_str());
            if (isLink(at("lure")) || isLink(at("tree/a")))
                continue;
            removeTree(at("lure")); // what was tree/a, and the link is gone
            static_cast<void>(symlink("outside", at("lure").c_str()));
        }
    });
    for (int round = 0; round < 200; ++round) {
        removeTree(at("tree"));
        createFolders(m_folder, "tree/a/x/y");
        createFolders(m_folder, "tree/b/c/d/e");
        removeTree(at("outside/c"));
    }
    isOver = true;
    swapper.join();
    EXPECT_EQ(contentOf(at("outside/precious")), "x");
    EXPECT_EQ(contentOf(at("outside/inner/precious")), "x");
}

TEST_F(TreeTest, ADeepTreeTakesFewDescriptors) {
    constexpr int depth = 3000;
    {
        ScopedFd folder(open(makeFolder("tree").c_str(), O_PATH | O_CLOEXEC));
        for (int level = 0; level < depth; ++level) {
            ASSERT_EQ(mkdirat(folder.get(), "folder", 0755), 0);
            folder.reset(openat(folder.get(), "folder", O_PATH | O_CLOEXEC));
        }
    }
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const ScopedFd next(dup(STDIN_FILENO));
    const rlimit few{static_cast<rlim_t>(next.get()) + 5, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    const auto outcome = removeTree(at("tree"));
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(outcome) << outcome.text.substr(0, 300);
    EXPECT_TRUE(names().empty());
}

/// One mount is of the same file system as the tree.
TEST_F(TreeTest, MountsAreCrossedOnlyWhenAsked) {
    NEEDS_MOUNTS();
    createFolders(m_folder, "tree/a/memory");
    createFolders(m_folder, "tree/b/same");
    const auto other = makeFolder("other");
    ASSERT_TRUE(support::mountMemory(at("tree/a/memory").c_str(), ""));
    ASSERT_EQ(mount(other.c_str(), at("tree/b/same").c_str(), nullptr, MS_BIND, nullptr), 0);
    for (const char* file : {"tree/file", "tree/a/memory/file", "tree/b/same/file"})
        put(file, "x");

    const auto left = removeTree(at("tree"));
    EXPECT_EQ(left.code, Outcome::busy) << left.text;
    EXPECT_NE(left.text.find("unmount"), std::string::npos) << left.text;
    EXPECT_EQ(names("tree"), (std::set<std::string>{"a", "b"}));
    EXPECT_EQ(names("other"), std::set<std::string>{"file"});
    EXPECT_EQ(names("tree/a/memory"), std::set<std::string>{"file"});

    const auto emptied = removeTree(at("tree"), Mounts::Emptied);
    EXPECT_TRUE(emptied) << emptied.text;
    EXPECT_TRUE(names("other").empty());
    EXPECT_TRUE(names("tree/a/memory").empty());
    umount2(at("tree/a/memory").c_str(), MNT_DETACH);
    umount2(at("tree/b/same").c_str(), MNT_DETACH);
    EXPECT_TRUE(removeTree(at("tree")));
}

} // namespace
