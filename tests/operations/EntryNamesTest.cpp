#include "platform/operations/EntryNames.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/base/UTF8.h"

namespace tarnwell::operations {
namespace {

TEST(EntryNames, NamesThatCannotBeAreRefusedInWords) {
    struct Row {
        std::string name;
        int code;
        std::string says;
    };
    for (const Row& row :
         {Row{"", EINVAL, "empty"}, Row{".", EINVAL, "\".\""}, Row{"..", EINVAL, "\"..\""}, Row{"a/b", EINVAL, "slash"},
          Row{"/", EINVAL, "slash"}, Row{std::string("a\0b", 3), EINVAL, "NUL"},
          Row{std::string(256, 'x'), ENAMETOOLONG, "256 bytes"}}) {
        const auto checked = checkNewName(row.name);
        ASSERT_FALSE(checked) << row.name;
        EXPECT_TRUE(checked.error().is(ErrorDomain::posix, row.code)) << row.name;
        EXPECT_NE(describe(checked.error()).find(row.says), std::string::npos) << describe(checked.error());
    }
    for (const std::string& name : {std::string("a"), std::string("..."), std::string(" "), std::string(255, 'x'),
                                    std::string("\xff\xfe not UTF-8"), std::string(".hidden"), std::string("a\nb")}) {
        EXPECT_TRUE(checkNewName(name)) << name;
    }
}

TEST(EntryNames, FreeNamesKeepTheExtensionAndCountOn) {
    struct Row {
        std::string name, first, second;
    };
    for (const Row& row :
         {Row{"name.ext", "name 2.ext", "name 3.ext"}, Row{"name", "name 2", "name 3"},
          Row{"name 2", "name 3", "name 4"}, Row{"name 9.txt", "name 10.txt", "name 11.txt"},
          Row{"name 1", "name 1 2", "name 1 3"}, Row{"name 02", "name 02 2", "name 02 3"}, Row{"2", "2 2", "2 3"},
          Row{" 2", " 2 2", " 2 3"}, Row{"20261122 20261122.jpg", "20261122 20261122 2.jpg", "20261122 20261122 3.jpg"},
          Row{".hidden", ".hidden 2", ".hidden 3"}, Row{"a.", "a. 2", "a. 3"},
          Row{"a.tar.gz", "a.tar 2.gz", "a.tar 3.gz"}, Row{"Mr. Smith goes", "Mr. Smith goes 2", "Mr. Smith goes 3"},
          Row{"\xff.x", "\xff 2.x", "\xff 3.x"}}) {
        FreeNames names(row.name);
        EXPECT_EQ(names.next(), row.first);
        EXPECT_EQ(names.next(), row.second);
    }
}

TEST(EntryNames, FreeNamesFitTheLimitAndEndAtACharacter) {
    std::string name;
    while (name.size() + 2 <= 251) name += "\xC3\xA4";
    name += ".ext";
    ASSERT_LE(name.size(), 255u);
    FreeNames names(name);
    for (int i = 0; i < 1000; ++i) {
        const std::string next = *names.next();
        EXPECT_LE(next.size(), 255u);
        EXPECT_GE(next.size(), 250u);
        EXPECT_TRUE(isUTF8(next)) << next;
        EXPECT_TRUE(next.ends_with(" " + std::to_string(i + 2) + ".ext")) << next;
    }
    FreeNames bytes(std::string(255, '\xff'));
    EXPECT_EQ(*bytes.next(), std::string(253, '\xff') + " 2");
}

TEST(EntryNames, TriesAreBounded) {
    FreeNames names("a");
    for (std::uint32_t i = 0; i < FreeNames::kMostTries; ++i) ASSERT_TRUE(names.next());
    EXPECT_FALSE(names.next());
}

}  // namespace
}  // namespace tarnwell::operations
