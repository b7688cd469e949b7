#include "util/scoped_handles.h"

#include <gtest/gtest.h>

namespace {

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) >= 0;
}

} // namespace

TEST(ScopedHandles, DescriptorIsClosedOnceByItsLastOwner) {
    ScopedFd first(open("/dev/null", O_RDONLY));
    ASSERT_TRUE(first);
    const int raw = first.get();
    ScopedFd copy = dup(first);
    EXPECT_NE(copy.get(), raw);
    {
        ScopedFd second(std::move(first));
        EXPECT_FALSE(first);
        ScopedFd& same = second;
        second = std::move(same);
        EXPECT_TRUE(isOpen(raw));
    }
    errno = EINTR;
    EXPECT_FALSE(isOpen(raw));
    EXPECT_TRUE(isOpen(copy.get()));

    const int old = copy.get();
    copy.reset(open("/dev/null", O_RDONLY));
    EXPECT_TRUE(copy);
    EXPECT_FALSE(copy.get() == old);
    EXPECT_FALSE(isOpen(old));
    const int given = copy.release();
    copy.reset();
    EXPECT_TRUE(isOpen(given));
    errno = EACCES;
    ScopedFd(given).reset();
    EXPECT_EQ(errno, EACCES);
}

TEST(ScopedHandles, FailuresOwnNothing) {
    EXPECT_FALSE(ScopedFd(open("/nonexistent", O_RDONLY)));
    EXPECT_FALSE(ScopedDir(opendir("/nonexistent")));
    EXPECT_FALSE(dup(ScopedFd()));
    const ScopedMapping failed(MAP_FAILED, 4096);
    EXPECT_FALSE(failed);
    EXPECT_EQ(failed.size(), 0u);
}

TEST(ScopedHandles, MappingMovesWithItsSize) {
    ScopedMapping mapping(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), 4096);
    ASSERT_TRUE(mapping);
    ScopedMapping other(std::move(mapping));
    EXPECT_FALSE(mapping);
    *static_cast<int*>(other.address()) = 1;
    EXPECT_EQ(other.size(), 4096u);
}
