#include "applibraries/OrderedDictionary.h"

#include <gtest/gtest.h>

#include <string>

namespace tarnwell::applibraries {
namespace {

std::string textOfEntries(const OrderedDictionary<std::string, int>& dictionary) {
    std::string text;
    for (const auto& [key, value] : dictionary) text += key + "=" + std::to_string(value) + " ";
    return text;
}

TEST(OrderedDictionary, IsReadInTheOrderInWhichKeysWereFirstSet) {
    OrderedDictionary<std::string, int> dictionary;
    EXPECT_TRUE(dictionary.empty());
    EXPECT_EQ(textOfEntries(dictionary), "");
    dictionary.set("z", 1);
    dictionary.set("a", 2);
    dictionary.set("m", 3);
    EXPECT_EQ(textOfEntries(dictionary), "z=1 a=2 m=3 ");
    dictionary.set("a", 4);
    EXPECT_EQ(textOfEntries(dictionary), "z=1 a=4 m=3 ");
    EXPECT_EQ(dictionary.size(), 3u);
}

TEST(OrderedDictionary, FindsWhatWasSet) {
    OrderedDictionary<std::string, int> dictionary;
    EXPECT_EQ(dictionary.find("a"), nullptr);
    EXPECT_FALSE(dictionary.contains("a"));
    for (int i = 0; i < 1000; ++i) dictionary.set("key" + std::to_string(i), i);
    for (int i = 0; i < 1000; ++i) {
        const int* value = dictionary.find("key" + std::to_string(i));
        ASSERT_TRUE(value);
        EXPECT_EQ(*value, i);
    }
    EXPECT_TRUE(dictionary.contains("key999"));
    EXPECT_FALSE(dictionary.contains("key1000"));
}

}  // namespace
}  // namespace tarnwell::applibraries
