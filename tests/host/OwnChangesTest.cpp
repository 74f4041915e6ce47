#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>

#include "host/HostFileOperations.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TestDevice.h"

namespace tarnwell::host {
namespace {

namespace fs = std::filesystem;
using testing::writeFile;

/// A document that comes to a name which another one had a moment ago may be its new version. Where this program's own
/// operations took the name from the one or gave it to the other, it is not: identifiers stay with the documents.
/// `true`: what happened is found between the two steps, too.
class OwnChanges : public ::testing::TestWithParam<bool> {
protected:
    OwnChanges() {
        writeFile(device_.path("a.txt"), "first");
        writeFile(device_.path("b.txt"), "second");
        fs::create_directory(device_.path("folder"));
        fs::create_directory(device_.path(".Trash"));
        device_.watch();
        device_.settle();
        a_ = documentAt("a.txt");
        b_ = documentAt("b.txt");
    }

    DocumentID documentAt(const std::string& relative) {
        const auto row = device_.comparer().rowAt(*device_.roots().locate(device_.url(relative).path()));
        EXPECT_TRUE(row && row->documentID) << relative;
        return row && row->documentID ? *row->documentID : DocumentID{};
    }
    /// What went a moment ago went.
    void look() {
        if (GetParam()) device_.settle();
    }

    template <typename Start>
    void run(Start&& start) {
        std::promise<Result<URL>> promise;
        start([&](const Result<URL>& url) { promise.set_value(url); });
        const auto done = promise.get_future().get();
        ASSERT_TRUE(done) << describe(done.error());
    }
    void rename(const std::string& item, const std::string& name) {
        run([&](auto done) { operations_.renameWithNewName(device_.url(item), name, done); });
    }
    void move(const std::string& item, const std::string& folder) {
        run([&](auto done) {
            operations_.reparentUnderFolder(device_.url(item), device_.url(folder), std::nullopt,
                                            hostframework::Bouncing::refused, done);
        });
    }
    void trash(const std::string& item) {
        run([&](auto done) { operations_.trashUnderFolder(device_.url(item), device_.url(".Trash"), done); });
    }
    void remove(const std::string& item) {
        std::promise<std::optional<Error>> gone;
        operations_.deleteItem(device_.url(item), [&](const auto& error) { gone.set_value(error); });
        const auto error = gone.get_future().get();
        ASSERT_FALSE(error) << describe(*error);
    }
    void import(const std::string& content, const std::string& name) {
        const std::string outside = device_.home() + "/" + name;
        writeFile(outside, content);
        run([&](auto done) {
            operations_.importUnderFolder(device_.roots().urlForRealPath(outside), device_.url(), done);
        });
    }
    void byHand(const std::string& from, const std::string& to) { fs::rename(device_.path(from), device_.path(to)); }

    testing::TestDevice device_;
    HostFileOperations operations_{
        operations::Context{device_.roots(), device_.store(), device_.log(), &device_.ownChanges()}, device_.pool()};
    DocumentID a_{}, b_{};
};

INSTANTIATE_TEST_SUITE_P(, OwnChanges, ::testing::Bool(),
                         [](const auto& seen) { return seen.param ? "Seen" : "Unseen"; });

TEST_P(OwnChanges, OneThatIsRenamedToTheNameOfADeletedOneStaysItself) {
    remove("a.txt");
    look();
    rename("b.txt", "a.txt");
    device_.settle();
    EXPECT_EQ(documentAt("a.txt"), b_);
}

TEST_P(OwnChanges, OneThatIsRenamedToTheNameOfOneThatWasRemovedByHandStaysItself) {
    fs::remove(device_.path("a.txt"));
    look();
    rename("b.txt", "a.txt");
    device_.settle();
    EXPECT_EQ(documentAt("a.txt"), b_);
}

TEST_P(OwnChanges, OneThatIsMadeByHandInPlaceOfARenamedOneIsNew) {
    rename("a.txt", "c.txt");
    look();
    writeFile(device_.path("a.txt"), "new");
    device_.settle();
    EXPECT_EQ(documentAt("c.txt"), a_);
    EXPECT_NE(documentAt("a.txt"), a_);
}

TEST_P(OwnChanges, SoIsOneInPlaceOfADeletedOne) {
    remove("a.txt");
    look();
    writeFile(device_.path("a.txt"), "new");
    device_.settle();
    EXPECT_NE(documentAt("a.txt"), a_);
}

TEST_P(OwnChanges, SoIsAnImportedOne) {
    fs::remove(device_.path("a.txt"));
    look();
    import("new", "a.txt");
    device_.settle();
    EXPECT_NE(documentAt("a.txt"), a_);
}

TEST_P(OwnChanges, ABackupNameThatWasGivenHereIsAName) {
    rename("a.txt", "a.txt~");
    look();
    writeFile(device_.path("a.txt"), "new");
    device_.settle();
    EXPECT_EQ(documentAt("a.txt~"), a_);
    EXPECT_NE(documentAt("a.txt"), a_);
}

TEST_P(OwnChanges, TwoThatChangeNamesHereTakeTheirIdentifiersAlong) {
    rename("a.txt", "c.txt");
    look();
    rename("b.txt", "a.txt");
    look();
    rename("c.txt", "b.txt");
    device_.settle();
    EXPECT_EQ(documentAt("b.txt"), a_);
    EXPECT_EQ(documentAt("a.txt"), b_);
}

TEST_P(OwnChanges, ThroughTrashAndFoldersToo) {
    trash("a.txt");
    look();
    rename("b.txt", "a.txt");
    look();
    move("a.txt", "folder");
    look();
    move(".Trash/a.txt", "");
    device_.settle();
    EXPECT_EQ(documentAt("a.txt"), a_);
    EXPECT_EQ(documentAt("folder/a.txt"), b_);
}

// What people's editors do to a document goes on keeping its identifier, whatever was done to it here before.

TEST_P(OwnChanges, SavingAsEditorsDoKeepsTheNameOfARenamedOne) {
    rename("a.txt", "c.txt");
    device_.settle();
    byHand("c.txt", "c.txt~");
    look();
    writeFile(device_.path("c.txt"), "next version");
    device_.settle();
    EXPECT_EQ(documentAt("c.txt"), a_);
}

TEST_P(OwnChanges, SoDoesOneThatIsBackUnderItsFirstName) {
    rename("a.txt", "c.txt");
    look();
    rename("c.txt", "a.txt");
    look();
    byHand("a.txt", "a.txt~");
    look();
    writeFile(device_.path("a.txt"), "next version");
    device_.settle();
    EXPECT_EQ(documentAt("a.txt"), a_);
}

TEST_P(OwnChanges, SoDoesOneWhoseRenamingWasRefused) {
    std::promise<Result<URL>> promise;
    operations_.renameWithNewName(device_.url("a.txt"), "b.txt", [&](const auto& url) { promise.set_value(url); });
    ASSERT_FALSE(promise.get_future().get());
    look();
    fs::remove(device_.path("a.txt"));
    look();
    writeFile(device_.path("a.txt"), "next version");
    device_.settle();
    EXPECT_EQ(documentAt("a.txt"), a_);
}

}  // namespace
}  // namespace tarnwell::host
