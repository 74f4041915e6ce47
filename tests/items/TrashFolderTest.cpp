#include "items/TrashFolder.h"

#include <gtest/gtest.h>

#include "items/RelativePath.h"

namespace tarnwell::items {
namespace {

TEST(TrashFolder, IsDotTrashRightBelowAFolderNamedDocuments) {
    for (const char* path : {"/home/Documents/.Trash", "/home/Documents/.Trash/a/b", "/Documents/.Trash",
                             "/home/Documents/x/Documents/.Trash/a", "/Documents/.Trashes/Documents/.Trash"}) {
        EXPECT_TRUE(liesInTrash(path)) << path;
    }
    for (const char* path : {"", "/", "/home/Documents", "/home/.Trash/Documents", "/home/Documents/a/.Trash",
                             "/home/Documents/.Trash2", "/home/MyDocuments/.Trash", "/home/Documents/.trash"}) {
        EXPECT_FALSE(liesInTrash(path)) << path;
    }
}

TEST(RelativePath, IsWhatFollowsTheFolder) {
    const URL folder = URL::file("/home/Documents");
    EXPECT_EQ(relativePath(URL::file("/home/Documents/a"), folder), "a");
    EXPECT_EQ(relativePath(URL::file("/home/Documents/Folder/Sub/file.txt"), folder), "Folder/Sub/file.txt");
    EXPECT_EQ(relativePath(URL::file("/home/Documents/caf\xE9"), folder), "caf\xE9");
    EXPECT_EQ(relativePath(URL::file("/a/b"), URL::file("/")), "a/b");
}

TEST(RelativePath, IsNothingForWhatIsNotBelowTheFolder) {
    const URL folder = URL::file("/home/Documents");
    for (const char* path :
         {"/home/Documents", "/home", "/home/Documents2/a", "/home/Documents/../a", "/home/Documents/a/../../b"}) {
        EXPECT_EQ(relativePath(URL::file(path), folder), std::nullopt) << path;
    }
    EXPECT_EQ(relativePath(URL::parse("https://example.org/a/b"), URL::parse("https://example.org/a")), std::nullopt);
}

}  // namespace
}  // namespace tarnwell::items
