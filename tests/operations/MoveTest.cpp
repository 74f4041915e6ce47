#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "tests/operations/OperationsFixture.h"

namespace tarnwell::operations {
namespace {

class MoveTest : public OperationsTest {};

ino_t inodeOf(const std::string& path) {
    struct stat status{};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

TEST_F(MoveTest, ARenameGivesTheObjectAnotherName) {
    at_.file("a.txt");
    const ino_t inode = inodeOf(at_.path("a.txt"));
    const auto renamed = renameItem(context(), at_.place("a.txt"), "b \xff.txt");
    ASSERT_TRUE(renamed) << describe(renamed.error());
    EXPECT_EQ(renamed->relative, "b \xff.txt");
    EXPECT_EQ(inodeOf(at_.path("b \xff.txt")), inode);
    EXPECT_FALSE(at_.exists("a.txt"));
}

TEST_F(MoveTest, ATakenNameIsACollisionAndNothingChanges) {
    at_.file("a.txt", "a");
    at_.file("b.txt", "b");
    at_.folder("folder/inner");
    at_.folder("empty");
    ASSERT_EQ(::symlink("nowhere", at_.path("link").c_str()), 0);
    ASSERT_EQ(::link(at_.path("a.txt").c_str(), at_.path("hard link").c_str()), 0);
    const auto before = at_.tree();
    for (const char* from : {"a.txt", "folder", "link"}) {
        for (const char* to : {"a.txt", "b.txt", "folder", "empty", "link", "hard link"}) {
            if (std::string(from) == to) continue;
            const auto renamed = renameItem(context(), at_.place(from), to);
            ASSERT_FALSE(renamed) << from << " to " << to;
            EXPECT_TRUE(renamed.error().is(ErrorDomain::generalFile, kFileExists)) << describe(renamed.error());
            EXPECT_EQ(renamed.error().userInfo.at(kErrorPath), at_.path(to));
            EXPECT_EQ(at_.tree(), before) << from << " to " << to;
        }
    }
}

TEST_F(MoveTest, TheOwnNameIsNoCollision) {
    at_.file("a.txt");
    at_.folder("folder/inner");
    ASSERT_EQ(::link(at_.path("a.txt").c_str(), at_.path("hard link").c_str()), 0);
    const auto before = at_.tree();
    for (const char* name : {"a.txt", "folder", "hard link"}) {
        const auto renamed = renameItem(context(), at_.place(name), name);
        ASSERT_TRUE(renamed) << describe(renamed.error());
        EXPECT_EQ(renamed->relative, name);
    }
    EXPECT_EQ(at_.tree(), before);
}

TEST_F(MoveTest, BouncingTakesTheNextFreeName) {
    at_.folder("from");
    at_.folder("to");
    for (const char* expected : {"to/a.txt", "to/a 2.txt", "to/a 3.txt"}) {
        at_.file("from/a.txt", expected);
        MoveOptions options;
        options.taken = Taken::freeName;
        const auto moved = moveItem(context(), at_.place("from/a.txt"), at_.place("to"), "a.txt", options);
        ASSERT_TRUE(moved) << describe(moved.error());
        EXPECT_EQ(moved->relative, expected);
        EXPECT_EQ(at_.read(expected), expected);
    }
}

TEST_F(MoveTest, AFolderDoesNotGoIntoItself) {
    at_.file("folder/inner/a.txt");
    const auto before = at_.tree();
    for (const char* target : {"folder", "folder/inner"}) {
        const auto moved = moveItem(context(), at_.place("folder"), at_.place(target), "folder");
        ASSERT_FALSE(moved);
        EXPECT_TRUE(moved.error().is(ErrorDomain::posix, EINVAL));
        EXPECT_NE(sentence(moved).find("into itself"), std::string::npos);
    }
    EXPECT_EQ(at_.tree(), before);
}

TEST_F(MoveTest, RootsLinksAndMissingThingsAreErrors) {
    at_.file("a.txt");
    ASSERT_EQ(::symlink(at_.outside().c_str(), at_.path("link").c_str()), 0);
    testing::writeFile(at_.outside("secret"), "x");
    const auto before = at_.tree();
    const auto root = renameItem(context(), at_.place(""), "x");
    ASSERT_FALSE(root);
    EXPECT_TRUE(root.error().is(ErrorDomain::posix, EBUSY)) << describe(root.error());
    const auto missing = renameItem(context(), at_.place("none"), "x");
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().is(ErrorDomain::posix, ENOENT));
    EXPECT_NE(sentence(missing).find("not there any more"), std::string::npos);
    EXPECT_FALSE(moveItem(context(), at_.place("a.txt"), at_.place("link"), "a.txt"));
    EXPECT_FALSE(moveItem(context(), at_.place("link/secret"), at_.place(""), "secret"));
    EXPECT_FALSE(removeItem(context(), at_.place("link/secret")));
    EXPECT_FALSE(makeFolder(context(), at_.place("link"), "x"));
    EXPECT_FALSE(importItem(context(), at_.path("a.txt"), at_.place("link")));
    EXPECT_FALSE(moveItem(context(), at_.place("a.txt"), at_.place("a.txt"), "b"));
    EXPECT_EQ(at_.tree(), before);
    EXPECT_EQ(treeOf(at_.outside()).size(), 1u);
}

TEST_F(MoveTest, TheLongestNameFitsAndOneMoreByteDoesNot) {
    at_.file("a");
    ASSERT_TRUE(renameItem(context(), at_.place("a"), std::string(255, 'x')));
    const auto longer = renameItem(context(), at_.place(std::string(255, 'x')), std::string(256, 'x'));
    ASSERT_FALSE(longer);
    EXPECT_TRUE(longer.error().is(ErrorDomain::posix, ENAMETOOLONG));
    const auto made = makeFolder(context(), at_.place(""), std::string(255, 'y'));
    EXPECT_TRUE(made);
    EXPECT_FALSE(makeFolder(context(), at_.place(""), std::string(256, 'y')));
}

TEST_F(MoveTest, AFolderIsMadeOnceAndNeverOverSomething) {
    const auto made = makeFolder(context(), at_.place(""), "new");
    ASSERT_TRUE(made) << describe(made.error());
    EXPECT_EQ(made->relative, "new");
    ASSERT_EQ(::symlink("nowhere", at_.path("link").c_str()), 0);
    for (const char* taken : {"new", "link"}) {
        const auto again = makeFolder(context(), at_.place(""), taken);
        ASSERT_FALSE(again);
        EXPECT_TRUE(again.error().is(ErrorDomain::generalFile, kFileExists));
        EXPECT_EQ(again.error().userInfo.at(kErrorPath), at_.path(taken));
    }
    for (const char* name : {"", ".", "..", "a/b"}) EXPECT_FALSE(makeFolder(context(), at_.place(""), name));
    EXPECT_EQ(at_.tree().size(), 2u);
}

TEST_F(MoveTest, TrashKeepsTheNameOrTakesAFreeOneAndPuttingBackRemembersIt) {
    at_.folder(".Trash");
    at_.file(".Trash/a.txt", "older");
    at_.file("folder/a.txt", "newer");
    const auto trashed = trashItem(context(), at_.place("folder/a.txt"), at_.place(".Trash"));
    ASSERT_TRUE(trashed) << describe(trashed.error());
    EXPECT_EQ(trashed->relative, ".Trash/a 2.txt");
    const auto origin = trashOriginOf(context(), *trashed);
    ASSERT_TRUE(origin);
    EXPECT_EQ(origin->name, "a.txt");
    EXPECT_EQ(putBackName(context(), *trashed), "a.txt");
    EXPECT_EQ(putBackName(context(), at_.place(".Trash/a.txt")), "a.txt");
    const auto back = moveOutOfTrash(context(), *trashed, at_.place("folder"), putBackName(context(), *trashed));
    ASSERT_TRUE(back) << describe(back.error());
    EXPECT_EQ(at_.read("folder/a.txt"), "newer");
    // Forgotten: the name in the trash counts from now on.
    ASSERT_EQ(::rename(at_.path("folder/a.txt").c_str(), at_.path(".Trash/a 2.txt").c_str()), 0);
    EXPECT_EQ(putBackName(context(), at_.place(".Trash/a 2.txt")), "a 2.txt");
}

TEST_F(MoveTest, WhatWasRenamedInTheTrashKeepsThatName) {
    at_.folder(".Trash");
    at_.file(".Trash/a.txt");
    at_.file("a.txt");
    ASSERT_TRUE(trashItem(context(), at_.place("a.txt"), at_.place(".Trash")));
    ASSERT_TRUE(renameItem(context(), at_.place(".Trash/a 2.txt"), "other.txt"));
    EXPECT_EQ(putBackName(context(), at_.place(".Trash/other.txt")), "other.txt");
}

TEST_F(MoveTest, OriginsSurviveAnotherStart) {
    at_.folder(".Trash");
    at_.file(".Trash/a.txt");
    at_.file("a.txt");
    ASSERT_TRUE(trashItem(context(), at_.place("a.txt"), at_.place(".Trash")));
    at_.store.reset();
    Workplace again(directory_.path());
    EXPECT_EQ(putBackName(*again.context, again.place(".Trash/a 2.txt")), "a.txt");
    again.store.reset();
    at_.store = store::Store::open({directory_.path("state")}).value();
}

TEST_F(MoveTest, AFailedTrashIsForgotten) {
    at_.folder("folder/.Trash");
    const auto trashed = trashItem(context(), at_.place("folder"), at_.place("folder/.Trash"));
    ASSERT_FALSE(trashed);
    EXPECT_TRUE(at_.exists("folder"));
}

TEST_F(MoveTest, TwentyThreadsLoseNothing) {
    constexpr int kThreads = 20, kSteps = 60;
    at_.folder(".Trash");
    for (int f = 0; f < 4; ++f) at_.folder("f" + std::to_string(f));
    for (int i = 0; i < kThreads; ++i) {
        at_.file("f" + std::to_string(i % 4) + "/same.txt " + std::to_string(i), "file " + std::to_string(i));
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Place mine = at_.place("f" + std::to_string(t % 4) + "/same.txt " + std::to_string(t));
            unsigned random = static_cast<unsigned>(t) * 2654435761u + 1;
            for (int step = 0; step < kSteps; ++step) {
                random = random * 1664525u + 1013904223u;
                const Place folder = at_.place("f" + std::to_string((random >> 8) % 4));
                MoveOptions options;
                options.taken = Taken::freeName;
                Result<Place> done = failure(posixError(EINVAL));
                switch ((random >> 16) % 4) {
                    case 0:
                        // All want the same name.
                        done = moveItem(context(), mine, folder, "same.txt", options);
                        break;
                    case 1:
                        done = renameItem(context(), mine, "same.txt");
                        break;
                    case 2:
                        done = trashItem(context(), mine, at_.place(".Trash"));
                        break;
                    default:
                        done = moveOutOfTrash(context(), mine, folder, putBackName(context(), mine), options);
                }
                if (done) mine = *done;
                if (!done) {
                    EXPECT_TRUE(done.error().is(ErrorDomain::generalFile, kFileExists)) << describe(done.error());
                }
            }
            EXPECT_EQ(at_.read(mine.relative), "file " + std::to_string(t));
        });
    }
    for (auto& thread : threads) thread.join();
    std::map<std::string, int> found;
    int files = 0;
    for (const auto& [name, text] : at_.tree()) {
        if (text == "folder") continue;
        ++files;
        ++found[text];
    }
    EXPECT_EQ(files, kThreads);
    EXPECT_EQ(found.size(), static_cast<std::size_t>(kThreads));
}

}  // namespace
}  // namespace tarnwell::operations
