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
    {
        ScopedFd second(std::move(first));
        EXPECT_FALSE(first);
        ScopedFd& same = second;
        second = std::move(same);
        EXPECT_TRUE(isOpen(raw));
    }
    errno = EINTR;
    EXPECT_FALSE(isOpen(raw));

    ScopedFd owner(open("/dev/null", O_RDONLY));
    const int old = owner.get();
    owner.reset(open("/dev/zero", O_RDONLY));
    EXPECT_TRUE(owner);
    EXPECT_FALSE(owner.get() == old);
    EXPECT_FALSE(isOpen(old));
    const int given = owner.release();
    owner.reset();
    EXPECT_TRUE(isOpen(given));
    errno = EACCES;
    ScopedFd(given).reset();
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(ScopedFd(open("/nonexistent", O_RDONLY)));
}
