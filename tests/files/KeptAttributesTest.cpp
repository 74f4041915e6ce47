#include "platform/files/KeptAttributes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>

#include "platform/files/ChangeTime.h"
#include "platform/files/Comparer.h"
#include "platform/mime/TypeDatabase.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::files {
namespace {

using testing::writeFile;
using Values = std::map<std::string, std::string>;

/// Folders named "….bundle" are packages.
class BundleTypes : public mime::TypeDatabase {
public:
    std::string_view typeForName(std::string_view) override { return "text/plain"; }
    std::string_view typeForContent(ByteView) override { return "text/plain"; }
    bool isPackageName(std::string_view name) override { return name.ends_with(".bundle"); }
};

/// A folder of documents and a comparer that keeps "tags", "rank" and "note".
class Kept : public ::testing::Test {
protected:
    Kept() {
        testing::makeDirectories(directory_.path("Documents"));
        root_ = roots_.addStorage(directory_.path("Documents")).value();
        store::StoreOptions options;
        options.directory = directory_.path("state");
        options.log = &log_;
        store_ = store::Store::open(options).value();
        comparer_ =
            std::make_unique<Comparer>(roots_, *store_, types_, KeptAttributes({"tags", "rank", "note"}, &log_));
    }

    std::string path(const std::string& relative) const { return directory_.path("Documents/" + relative); }
    void settle() { ASSERT_TRUE(comparer_->compare({}, Detail::everything)); }
    store::ObjectRow row(const std::string& relative) {
        auto found = comparer_->rowAt(Place{root_, relative});
        EXPECT_TRUE(found) << relative << ": " << (found ? "" : describe(found.error()));
        return found.value_or(store::ObjectRow());
    }
    Values remembered(FileID object) {
        store::Session session(*store_);
        Values values;
        for (const auto& attribute : session.kept().of(object)) {
            values[attribute.name] = std::string(textOf(attribute.value));
        }
        EXPECT_TRUE(session.check());
        return values;
    }
    Values remembered(const std::string& relative) { return remembered(row(relative).fileID); }

    void make(const std::string& relative, const std::string& content, const Values& attributes) {
        writeFile(path(relative), content);
        set(relative, attributes);
    }
    void set(const std::string& relative, const Values& attributes) {
        for (const auto& [name, value] : attributes) testing::setUserAttribute(path(relative), name, value);
    }
    Values carried(const std::string& relative) {
        Values values;
        for (const char* name : {"tags", "rank", "note", "other"}) {
            char buffer[8192];
            const ssize_t size =
                ::lgetxattr(path(relative).c_str(), (std::string("user.") + name).c_str(), buffer, sizeof buffer);
            if (size >= 0) values[name] = std::string(buffer, static_cast<std::size_t>(size));
        }
        return values;
    }
    void renameOver(const std::string& from, const std::string& to) {
        ASSERT_EQ(::rename(path(from).c_str(), path(to).c_str()), 0);
    }
    /// A new file in the document's place.
    void saveAnew(const std::string& relative, const Values& attributes = {}) {
        make(".new", "a new version of " + relative, attributes);
        renameOver(".new", relative);
    }
    /// Until what happens next gives the object another change time.
    void waitUntilSettled(const std::string& relative) {
        struct stat status{};
        ASSERT_EQ(::lstat(path(relative).c_str(), &status), 0);
        const std::int64_t changed = std::int64_t{status.st_ctim.tv_sec} * 1'000'000'000 + status.st_ctim.tv_nsec;
        while (!isSettled(changed, stampingClock())) std::this_thread::yield();
    }

    testing::TemporaryDirectory directory_;
    testing::CapturingLog log_;
    Roots roots_;
    std::shared_ptr<const Root> root_;
    BundleTypes types_;
    std::unique_ptr<store::Store> store_;
    std::unique_ptr<Comparer> comparer_;
};

TEST_F(Kept, TheNamedAttributesAreRememberedAndPutBackOnANewVersion) {
    make("a.txt", "text", {{"tags", "red"}, {"rank", ""}, {"other", "not ours"}});
    settle();
    const auto before = row("a.txt");
    EXPECT_EQ(remembered("a.txt"), (Values{{"tags", "red"}, {"rank", ""}}));
    saveAnew("a.txt");
    settle();
    EXPECT_EQ(carried("a.txt"), (Values{{"tags", "red"}, {"rank", ""}}));
    const auto after = row("a.txt");
    EXPECT_EQ(after.documentID, before.documentID);
    EXPECT_NE(after.fileID, before.fileID);
    EXPECT_EQ(remembered(after.fileID), (Values{{"tags", "red"}, {"rank", ""}}));
    EXPECT_EQ(remembered(before.fileID), Values{}) << "nothing is kept for an object that is gone";
    EXPECT_EQ(log_.texts(), std::vector<std::string>{});
}

TEST_F(Kept, AKindThatTheNewVersionHasStaysAsItIs) {
    make("a.txt", "text", {{"tags", "red"}, {"rank", "1"}, {"note", "old"}});
    settle();
    saveAnew("a.txt", {{"tags", "green"}, {"note", ""}});
    settle();
    EXPECT_EQ(carried("a.txt"), (Values{{"tags", "green"}, {"rank", "1"}, {"note", ""}}));
    EXPECT_EQ(remembered("a.txt"), carried("a.txt"));
}

TEST_F(Kept, WhatChangedOnTheDocumentItselfIsWhatIsPutBack) {
    make("a.txt", "text", {{"tags", "red"}, {"rank", "1"}});
    settle();
    waitUntilSettled("a.txt");
    set("a.txt", {{"tags", "blue"}, {"note", "new"}});
    ASSERT_EQ(::removexattr(path("a.txt").c_str(), "user.rank"), 0);
    settle();
    EXPECT_EQ(remembered("a.txt"), (Values{{"tags", "blue"}, {"note", "new"}}));
    saveAnew("a.txt");
    settle();
    EXPECT_EQ(carried("a.txt"), (Values{{"tags", "blue"}, {"note", "new"}}));
    waitUntilSettled("a.txt");
    for (const char* name : {"user.tags", "user.note"}) ASSERT_EQ(::removexattr(path("a.txt").c_str(), name), 0);
    settle();
    EXPECT_EQ(remembered("a.txt"), Values{});
    saveAnew("a.txt");
    settle();
    EXPECT_EQ(carried("a.txt"), Values{});
}

TEST_F(Kept, ADocumentThatIsMovedOrRenamedIsRememberedWhereItIs) {
    testing::makeDirectories(path("one/.hidden"));
    make("one/a.txt", "text", {{"tags", "red"}});
    make("one/.hidden/b.txt", "text", {{"tags", "blue"}});
    settle();
    renameOver("one/a.txt", "c.txt");
    renameOver("one/.hidden", "two");
    settle();
    saveAnew("c.txt");
    saveAnew("two/b.txt");
    settle();
    EXPECT_EQ(carried("c.txt"), (Values{{"tags", "red"}}));
    EXPECT_EQ(carried("two/b.txt"), (Values{{"tags", "blue"}})) << "it was seen while it was hidden";
}

TEST_F(Kept, AnotherDocumentThatTakesTheNameGetsWhatItLacks) {
    make("a.txt", "text", {{"tags", "red"}, {"rank", "1"}});
    make("b.txt", "other text", {{"rank", "2"}});
    settle();
    const auto document = row("a.txt").documentID;
    renameOver("b.txt", "a.txt");
    settle();
    EXPECT_EQ(row("a.txt").documentID, document);
    EXPECT_EQ(carried("a.txt"), (Values{{"tags", "red"}, {"rank", "2"}}));
}

TEST_F(Kept, AnOldVersionUnderABackupNameHasItToo) {
    make("a.txt", "text", {{"tags", "red"}});
    settle();
    renameOver("a.txt", "a.txt~");
    writeFile(path("a.txt"), "second version");
    settle();
    EXPECT_EQ(carried("a.txt"), (Values{{"tags", "red"}}));
    EXPECT_EQ(carried("a.txt~"), (Values{{"tags", "red"}}));
    EXPECT_EQ(remembered("a.txt~"), (Values{{"tags", "red"}}));
}

TEST_F(Kept, NothingIsPutBackWhereNoDocumentWasReplaced) {
    make("a.txt", "text", {{"tags", "red"}});
    make("b.txt", "text", {{"rank", "2"}});
    make("c.txt", "text", {{"note", "3"}});
    settle();
    ASSERT_EQ(::renameat2(AT_FDCWD, path("a.txt").c_str(), AT_FDCWD, path("b.txt").c_str(), RENAME_EXCHANGE), 0);
    // Moved away, not saved: the file at the old place is another document.
    renameOver("c.txt", "d.txt");
    writeFile(path("c.txt"), "another document");
    settle();
    EXPECT_EQ(carried("a.txt"), (Values{{"rank", "2"}}));
    EXPECT_EQ(carried("b.txt"), (Values{{"tags", "red"}}));
    EXPECT_EQ(carried("c.txt"), Values{});
    EXPECT_EQ(carried("d.txt"), (Values{{"note", "3"}}));
}

TEST_F(Kept, APackageIsADocumentToo) {
    testing::makeDirectories(path("p.bundle"));
    writeFile(path("p.bundle/content"), "1");
    settle();
    const auto before = row("p.bundle");
    ASSERT_TRUE(before.documentID);
    waitUntilSettled("p.bundle");
    set("p.bundle", {{"tags", "red"}});
    writeFile(path("p.bundle/more"), "2");
    // Its own folder alone is looked at.
    ASSERT_TRUE(comparer_->compareFolder(Place{root_, "p.bundle"}));
    EXPECT_EQ(remembered("p.bundle"), (Values{{"tags", "red"}}));
    renameOver("p.bundle", ".old");
    testing::makeDirectories(path("p.bundle"));
    writeFile(path("p.bundle/content"), "2");
    ASSERT_EQ(::unlink(path(".old/content").c_str()), 0);
    ASSERT_EQ(::unlink(path(".old/more").c_str()), 0);
    ASSERT_EQ(::rmdir(path(".old").c_str()), 0);
    settle();
    EXPECT_EQ(row("p.bundle").documentID, before.documentID);
    EXPECT_EQ(carried("p.bundle"), (Values{{"tags", "red"}}));
}

TEST_F(Kept, AFolderThatIsNoDocumentIsNotLookedAt) {
    testing::makeDirectories(path("folder"));
    set("folder", {{"tags", "red"}});
    settle();
    EXPECT_EQ(remembered("folder"), Values{});
}

TEST_F(Kept, ThereIsRoomForALimitedAmountInTheOrderOfTheNames) {
    const auto text = [](std::size_t size, char c) { return std::string(size, c); };
    const struct {
        const char* title;
        Values attributes;
        std::vector<std::string> expected;
    } rows[] = {
        {"exactly the limit in one", {{"rank", text(KeptAttributes::kMostBytes, 'r')}}, {"rank"}},
        {"one byte past it", {{"rank", text(KeptAttributes::kMostBytes + 1, 'r')}}, {}},
        {"exactly the limit in two",
         {{"tags", text(KeptAttributes::kMostBytes - 9, 't')}, {"rank", text(9, 'r')}},
         {"rank", "tags"}},
        {"one byte past it in the second",
         {{"tags", text(KeptAttributes::kMostBytes - 9, 't')}, {"rank", text(10, 'r')}},
         {"tags"}},
        {"the third fits where the second does not",
         {{"tags", text(KeptAttributes::kMostBytes - 9, 't')}, {"rank", text(10, 'r')}, {"note", text(9, 'n')}},
         {"note", "tags"}},
        {"no room left for an empty one", {{"tags", text(KeptAttributes::kMostBytes, 't')}, {"rank", ""}}, {"tags"}},
        {"a large one before a small one",
         {{"tags", text(KeptAttributes::kMostBytes + 1, 't')}, {"rank", "r"}},
         {"rank"}},
    };
    for (const auto& [title, attributes, expected] : rows) {
        make("a.txt", title, attributes);
        settle();
        const Values values = remembered("a.txt");
        std::vector<std::string> names;
        for (const auto& [name, value] : values) {
            names.push_back(name);
            EXPECT_EQ(value, attributes.at(name)) << title;
        }
        EXPECT_EQ(names, expected) << title;
        ASSERT_EQ(::unlink(path("a.txt").c_str()), 0);
        settle();
    }
}

TEST_F(Kept, WhatCannotBePutBackIsLoggedAndTheComparisonGoesOn) {
    make("a.txt", "text", {{"tags", std::string(2000, 't')}, {"rank", "1"}});
    settle();
    const auto document = row("a.txt").documentID;
    writeFile(path(".new"), "new version");
    // No room for another attribute, on file systems that have little.
    int filled = 0, code = 0;
    for (std::size_t size = 2048; size > 0 && filled < 200;) {
        const std::string name = "user.fill" + std::to_string(filled);
        if (::setxattr(path(".new").c_str(), name.c_str(), std::string(size, 'x').data(), size, 0) == 0) {
            ++filled;
        } else {
            code = errno;
            size /= 2;
        }
    }
    if (code == 0) GTEST_SKIP() << "this file system always has room for another attribute";
    renameOver(".new", "a.txt");
    settle();
    EXPECT_EQ(row("a.txt").documentID, document);
    EXPECT_EQ(carried("a.txt"), Values{});
    EXPECT_EQ(remembered("a.txt"), Values{});
    EXPECT_EQ(log_.texts(), (std::vector<std::string>{"[ERROR] what was known of \"" + path("a.txt") +
                                                      "\" (tags and the like) cannot be put back on its new version; " +
                                                      describe(posixError(code))}));
}

TEST_F(Kept, AnotherObjectIsNeitherReadNorChanged) {
    make("a.txt", "text", {{"tags", "red"}});
    settle();
    const auto object = row("a.txt");
    store::ObjectIdentity another = object.identity;
    ++another.inode;
    const KeptAttributes kept({"tags", "rank"});
    const Descriptor folder(::open(path("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_FALSE(kept.readAt(folder.get(), "a.txt", another));
    EXPECT_FALSE(kept.readAt(folder.get(), "b.txt", object.identity));
    EXPECT_EQ(kept.readAt(folder.get(), "a.txt", object.identity).value().kept,
              (std::vector<store::KeptAttribute>{{"tags", {'r', 'e', 'd'}}}));
    const std::vector<store::KeptAttribute> rank{{"rank", {'1'}}};
    EXPECT_EQ(kept.putBack(Place{root_, "a.txt"}, another, rank), std::nullopt);
    EXPECT_EQ(kept.putBack(Place{root_, "b.txt"}, object.identity, rank), std::nullopt);
    EXPECT_EQ(carried("a.txt"), (Values{{"tags", "red"}}));
    EXPECT_EQ(kept.putBack(Place{root_, "a.txt"}, object.identity, rank),
              (std::vector<store::KeptAttribute>{{"tags", {'r', 'e', 'd'}}, {"rank", {'1'}}}));
    EXPECT_EQ(carried("a.txt"), (Values{{"tags", "red"}, {"rank", "1"}}));
}

TEST_F(Kept, ANewDocumentWithoutAttributesIsKnownToBeBareIfItsChangeTimeVouchesForIt) {
    make("bare.txt", "text", {});
    make("other.txt", "text", {{"other", "1"}});
    make("kept.txt", "text", {{"tags", "red"}});
    make("shared.txt", "text", {});
    const bool isShared = std::system(("setfacl -m u:12345:rw '" + path("shared.txt") + "' 2>/dev/null").c_str()) == 0;
    for (const char* name : {"kept.txt", "shared.txt"}) waitUntilSettled(name);
    make("young.txt", "text", {});
    const bool isYoung = [&] {
        settle();
        return !isSettled(row("young.txt").changed, stampingClock());
    }();
    EXPECT_TRUE(row("bare.txt").bare);
    EXPECT_FALSE(row("other.txt").bare);
    EXPECT_FALSE(row("kept.txt").bare);
    EXPECT_EQ(row("shared.txt").bare, !isShared) << "it has an access list";
    // On a machine that is held up it may have grown old before it was looked at.
    if (isYoung) {
        EXPECT_FALSE(row("young.txt").bare);
    }
    waitUntilSettled("bare.txt");
    set("bare.txt", {{"tags", "red"}});
    settle();
    EXPECT_FALSE(row("bare.txt").bare);
    EXPECT_EQ(remembered("bare.txt"), (Values{{"tags", "red"}}));
}

TEST_F(Kept, AComparerWithoutNamesKeepsNothing) {
    make("a.txt", "text", {{"tags", "red"}});
    Comparer plain(roots_, *store_, types_);
    ASSERT_TRUE(plain.compare({}, Detail::everything));
    EXPECT_EQ(remembered("a.txt"), Values{});
}

}  // namespace
}  // namespace tarnwell::files
