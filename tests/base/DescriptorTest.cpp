#include "platform/base/Descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

Descriptor openNull() { return Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

TEST(Descriptor, ClosesWhatItOwnsWhenItGoes) {
    int number = -1;
    {
        Descriptor descriptor = openNull();
        number = descriptor.get();
        ASSERT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, HoldsNoneByDefault) {
    Descriptor descriptor;
    EXPECT_FALSE(descriptor.valid());
    EXPECT_EQ(descriptor.get(), -1);
}

TEST(Descriptor, MovingLeavesTheSourceEmpty) {
    Descriptor source = openNull();
    int number = source.get();
    Descriptor target(std::move(source));
    EXPECT_FALSE(source.valid());
    EXPECT_EQ(target.get(), number);
    EXPECT_TRUE(isOpen(number));
}

TEST(Descriptor, AssigningClosesTheOldOne) {
    Descriptor first = openNull();
    Descriptor second = openNull();
    int old = first.get(), kept = second.get();
    first = std::move(second);
    EXPECT_FALSE(isOpen(old));
    EXPECT_TRUE(isOpen(kept));
    EXPECT_EQ(first.get(), kept);
    EXPECT_FALSE(second.valid());
}

TEST(Descriptor, AssigningToItselfKeepsItOpen) {
    Descriptor descriptor = openNull();
    Descriptor& same = descriptor;
    int number = descriptor.get();
    descriptor = std::move(same);
    EXPECT_EQ(descriptor.get(), number);
    EXPECT_TRUE(isOpen(number));
}

TEST(Descriptor, ReleaseGivesTheNumberAwayOpen) {
    int number = -1;
    {
        Descriptor descriptor = openNull();
        number = descriptor.release();
        EXPECT_FALSE(descriptor.valid());
    }
    EXPECT_TRUE(isOpen(number));
    ::close(number);
}

TEST(Descriptor, OneThatIsBorrowedIsLeftOpen) {
    const Descriptor owner(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    {
        Descriptor borrowed = Descriptor::borrowed(owner.get());
        EXPECT_EQ(borrowed.get(), owner.get());
        Descriptor moved(std::move(borrowed));
        Descriptor assigned;
        assigned = std::move(moved);
    }
    EXPECT_GE(::fcntl(owner.get(), F_GETFD), 0);
    // What it is replaced by is owned again.
    int replaced = -1;
    {
        Descriptor holder = Descriptor::borrowed(owner.get());
        holder = Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        replaced = holder.get();
    }
    EXPECT_EQ(::fcntl(replaced, F_GETFD), -1);
    EXPECT_GE(::fcntl(owner.get(), F_GETFD), 0);
}

}  // namespace
}  // namespace tarnwell
