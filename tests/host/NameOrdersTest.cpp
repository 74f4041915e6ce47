#include "host/NameOrders.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <string>

namespace tarnwell::host {
namespace {

TEST(NameOrdersTest, WhatNobodyHasIsOrderedByBytes) {
    NameOrders orders;
    for (const std::string locale : {"", "C", "no_such.locale", "../../etc/passwd", "\xff"}) {
        const NameOrder order = orders.of(locale);
        EXPECT_TRUE(order("B", "a")) << locale;
        EXPECT_TRUE(order("a", "b")) << locale;
        EXPECT_FALSE(order("a", "a")) << locale;
    }
}

TEST(NameOrdersTest, NoNumberOfNamesThatAreAskedForStaysInMemory) {
    NameOrders orders;
    const auto before = ::mallinfo2().uordblks;
    for (int i = 0; i < 20'000; ++i) EXPECT_TRUE(orders.of("x" + std::to_string(i))("a", "b"));
    EXPECT_TRUE(orders.of(std::string(10 << 20, 'x'))("a", "b"));
    // Each name that the C library is asked for costs some hundred bytes.
    EXPECT_LT(::mallinfo2().uordblks, before + 200'000);
}

}  // namespace
}  // namespace tarnwell::host
