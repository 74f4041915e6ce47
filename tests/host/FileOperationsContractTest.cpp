#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "host/HostFileOperations.h"
#include "items/ItemAttributes.h"
#include "items/LocalItem.h"
#include "testing/FakeFileOperations.h"
#include "testing/TestDevice.h"
#include "tests/provider/OperationsFixture.h"

namespace tarnwell::host {
namespace {

namespace filesystem = std::filesystem;
using hostframework::Bouncing;
using provider::Answer;
using provider::DoneAnswer;

using URLAnswer = Answer<Result<URL>>;

/// What is promised to a provider: by the host's operations (true), and by those that tests play.
class FileOperationsContract : public ::testing::TestWithParam<bool> {
protected:
    FileOperationsContract() {
        if (!isReal()) return;
        real_ = std::make_unique<HostFileOperations>(
            operations::Context{device_.roots(), device_.store(), device_.log(), &device_.ownChanges()},
            device_.pool());
    }
    static bool isReal() { return GetParam(); }
    hostframework::FileOperations& operations() {
        return isReal() ? static_cast<hostframework::FileOperations&>(*real_) : device_.fileOperations();
    }
    hostframework::AccessScopes& scopes() {
        return isReal() ? static_cast<hostframework::AccessScopes&>(*real_) : device_.accessScopes();
    }

    void make(const std::string& relative, std::string_view content = "x") {
        const std::string path = device_.path(relative);
        testing::makeDirectories(path.substr(0, path.rfind('/')));
        testing::writeFile(path, content);
    }
    void makeFolder(const std::string& relative) { testing::makeDirectories(device_.path(relative)); }
    std::string content(const std::string& relative) const { return testing::readFile(device_.path(relative)); }
    bool exists(const std::string& relative) const {
        return filesystem::exists(filesystem::symlink_status(device_.path(relative)));
    }
    URL url(const std::string& relative) const { return device_.url(relative); }

    Result<URL> import(const std::string& document, const std::string& parent) {
        URLAnswer answer;
        operations().importUnderFolder(URL::file(document), url(parent), answer);
        return answer.wait();
    }
    Result<URL> create(const std::string& parent, const std::string& name) {
        URLAnswer answer;
        operations().createSubfolder(url(parent), name, answer);
        return answer.wait();
    }
    Result<URL> rename(const std::string& item, const std::string& name) {
        URLAnswer answer;
        operations().renameWithNewName(url(item), name, answer);
        return answer.wait();
    }
    Result<URL> move(const std::string& item, const std::string& parent,
                     const std::optional<std::string>& name = std::nullopt, Bouncing bouncing = Bouncing::refused) {
        URLAnswer answer;
        operations().reparentUnderFolder(url(item), url(parent), name, bouncing, answer);
        return answer.wait();
    }
    Result<URL> trash(const std::string& item) {
        URLAnswer answer;
        operations().trashUnderFolder(url(item), url(".Trash"), answer);
        return answer.wait();
    }
    std::optional<Error> remove(const std::string& item) {
        DoneAnswer answer;
        operations().deleteItem(url(item), answer);
        return answer.wait();
    }
    /// "file exists", with the place that has the name.
    void expectTaken(const Result<URL>& outcome, const std::string& taken) {
        ASSERT_FALSE(outcome.has_value()) << outcome->path();
        EXPECT_TRUE(outcome.error().is(ErrorDomain::generalFile, kFileExists)) << describe(outcome.error());
        const auto colliding = outcome.error().userInfo.find(hostframework::kErrorCollidingURL);
        ASSERT_NE(colliding, outcome.error().userInfo.end());
        EXPECT_EQ(colliding->second, url(taken).path());
    }
    void expectPosix(const Result<URL>& outcome, int code) {
        ASSERT_FALSE(outcome.has_value()) << outcome->path();
        EXPECT_TRUE(outcome.error().is(ErrorDomain::posix, code)) << describe(outcome.error());
    }

    testing::TestDevice device_;
    std::unique_ptr<HostFileOperations> real_;
};

TEST_P(FileOperationsContract, AnImportIsACopyOfAFileOrAFolder) {
    makeFolder("Target");
    testing::makeDirectories(device_.home() + "/source/sub");
    testing::writeFile(device_.home() + "/source/sub/a.txt", "a");
    testing::writeFile(device_.home() + "/b.txt", "b");
    EXPECT_EQ(import(device_.home() + "/b.txt", "Target"), url("Target/b.txt"));
    EXPECT_EQ(import(device_.home() + "/source", "Target"), url("Target/source"));
    EXPECT_EQ(content("Target/b.txt"), "b");
    EXPECT_EQ(content("Target/source/sub/a.txt"), "a");
    EXPECT_EQ(testing::readFile(device_.home() + "/b.txt"), "b");
    EXPECT_EQ(testing::readFile(device_.home() + "/source/sub/a.txt"), "a");
}

TEST_P(FileOperationsContract, ATakenNameIsToldWithItsPlaceAndNothingIsReplaced) {
    make("a.txt", "a");
    make("b.txt", "b");
    make("Folder/a.txt", "in folder");
    makeFolder("Folder/b.txt");
    testing::writeFile(device_.home() + "/a.txt", "imported");
    expectTaken(import(device_.home() + "/a.txt", "Folder"), "Folder/a.txt");
    expectTaken(create("Folder", "a.txt"), "Folder/a.txt");
    expectTaken(create("Folder", "b.txt"), "Folder/b.txt");
    expectTaken(rename("a.txt", "b.txt"), "b.txt");
    expectTaken(rename("a.txt", "Folder"), "Folder");
    expectTaken(move("a.txt", "Folder"), "Folder/a.txt");
    expectTaken(move("a.txt", "Folder", "b.txt"), "Folder/b.txt");
    EXPECT_EQ(content("a.txt"), "a");
    EXPECT_EQ(content("b.txt"), "b");
    EXPECT_EQ(content("Folder/a.txt"), "in folder");
}

TEST_P(FileOperationsContract, AFolderIsCreatedRenamedAndMoved) {
    EXPECT_EQ(create("", "New"), url("New"));
    EXPECT_TRUE(filesystem::is_directory(device_.path("New")));
    make("New/inner.txt", "inner");
    EXPECT_EQ(rename("New", "Renamed"), url("Renamed"));
    makeFolder("Other");
    EXPECT_EQ(move("Renamed", "Other"), url("Other/Renamed"));
    EXPECT_EQ(content("Other/Renamed/inner.txt"), "inner");
    EXPECT_FALSE(exists("Renamed"));
}

TEST_P(FileOperationsContract, AMoveKeepsTheNameOrTakesTheGivenOne) {
    make("a.txt", "a");
    makeFolder("Folder");
    EXPECT_EQ(move("a.txt", "Folder"), url("Folder/a.txt"));
    EXPECT_EQ(move("Folder/a.txt", "", "b.txt"), url("b.txt"));
    EXPECT_EQ(content("b.txt"), "a");
}

TEST_P(FileOperationsContract, WhereBouncingIsAllowedATakenNameGivesAFreeOne) {
    make("a.txt", "a");
    make("Folder/a.txt", "there");
    const auto moved = move("a.txt", "Folder", std::nullopt, Bouncing::allowed);
    EXPECT_EQ(moved, url("Folder/a 2.txt"));
    EXPECT_EQ(content("Folder/a.txt"), "there");
    EXPECT_EQ(content("Folder/a 2.txt"), "a");
}

TEST_P(FileOperationsContract, TheTrashTakesWhateverNameIsFree) {
    makeFolder(".Trash");
    make("a.txt", "first");
    const auto first = trash("a.txt");
    make("a.txt", "second");
    const auto second = trash("a.txt");
    ASSERT_TRUE(first.has_value()) << describe(first.error());
    ASSERT_TRUE(second.has_value()) << describe(second.error());
    EXPECT_FALSE(exists("a.txt"));
    EXPECT_NE(*first, *second);
    for (const auto& [place, text] : {std::pair{*first, "first"}, std::pair{*second, "second"}}) {
        EXPECT_EQ(place.deletingLastPathComponent(), url(".Trash"));
        EXPECT_EQ(testing::readFile(device_.roots().realPath(place.path())), text);
    }
}

TEST_P(FileOperationsContract, ADeletedItemIsGoneWithAllThatItHolds) {
    make("a.txt");
    make("Folder/Sub/b.txt");
    make("kept.txt", "kept");
    filesystem::create_symlink(device_.path("kept.txt"), device_.path("Folder/link"));
    EXPECT_EQ(remove("a.txt"), std::nullopt);
    EXPECT_EQ(remove("Folder"), std::nullopt);
    EXPECT_FALSE(exists("a.txt"));
    EXPECT_FALSE(exists("Folder"));
    EXPECT_EQ(content("kept.txt"), "kept");
}

TEST_P(FileOperationsContract, WhatIsNotThereFails) {
    make("a.txt");
    makeFolder(".Trash");
    expectPosix(import(device_.home() + "/gone", ""), ENOENT);
    expectPosix(create("gone", "New"), ENOENT);
    expectPosix(rename("gone", "b"), ENOENT);
    expectPosix(move("gone", ""), ENOENT);
    expectPosix(move("a.txt", "gone"), ENOENT);
    expectPosix(trash("gone"), ENOENT);
    const auto removed = remove("gone");
    ASSERT_TRUE(removed.has_value());
    EXPECT_TRUE(removed->is(ErrorDomain::posix, ENOENT)) << describe(*removed);
    EXPECT_TRUE(exists("a.txt"));
}

TEST_P(FileOperationsContract, AFileTakesNothing) {
    make("file");
    make("a.txt");
    expectPosix(create("file", "New"), ENOTDIR);
    expectPosix(move("a.txt", "file"), ENOTDIR);
    EXPECT_TRUE(exists("a.txt"));
}

TEST_P(FileOperationsContract, WhatIsNoNameIsRefused) {
    make("a.txt");
    makeFolder("Folder");
    for (const std::string name : {"", ".", "..", "b/c", "/b", "../b"}) {
        SCOPED_TRACE(name);
        expectPosix(create("Folder", name), EINVAL);
        expectPosix(rename("a.txt", name), EINVAL);
        expectPosix(move("a.txt", "Folder", name), EINVAL);
    }
    const std::string longest(255, 'n');
    expectPosix(create("Folder", longest + "n"), ENAMETOOLONG);
    expectPosix(rename("a.txt", longest + "n"), ENAMETOOLONG);
    EXPECT_TRUE(filesystem::is_empty(device_.path("Folder")));
    EXPECT_EQ(create("Folder", longest), url("Folder/" + longest));
    EXPECT_EQ(rename("a.txt", "caf\xE9\n"), url("caf\xE9\n"));
}

TEST_P(FileOperationsContract, ACompletionMayAskForMoreOnTheSamePath) {
    make("a.txt");
    URLAnswer answer;
    Result<void> written = failure(posixError(EIO));
    operations().renameWithNewName(url("a.txt"), "b.txt", [&, answer](const Result<URL>& outcome) {
        if (outcome) {
            written = scopes().readWrite(*outcome, [](const Descriptor&) -> Result<void> { return {}; });
            operations().renameWithNewName(*outcome, "c.txt", answer);
            return;
        }
        answer(outcome);
    });
    EXPECT_EQ(answer.wait(), url("c.txt"));
    EXPECT_TRUE(written.has_value());
}

TEST_P(FileOperationsContract, AScopeGrantsADescriptorThatTakesAttributes) {
    make("a.txt");
    makeFolder("Folder");
    const std::string name = items::LocalItem::xattrFavoriteRankName;
    const Bytes value{1, 2, 3};
    for (const std::string item : {"a.txt", "Folder"}) {
        SCOPED_TRACE(item);
        const auto written = scopes().readWrite(url(item), [&](const Descriptor& descriptor) {
            return items::writeAttribute(device_.environment(), descriptor, name, value);
        });
        ASSERT_TRUE(written.has_value()) << describe(written.error());
        EXPECT_EQ(items::valueOfAttribute(device_.environment(), name, url(item)), value);
    }
    EXPECT_EQ(
        scopes()
            .readWrite(url("a.txt"), [](const Descriptor&) -> Result<void> { return failure(posixError(ENOSPC)); })
            .error(),
        posixError(ENOSPC));
}

TEST_P(FileOperationsContract, AScopeOpensNoLinkNoPipeAndNothingThatIsNotThere) {
    make("a.txt");
    filesystem::create_symlink("a.txt", device_.path("link"));
    ASSERT_EQ(::mkfifo(device_.path("pipe").c_str(), 0600), 0);
    for (const std::string item : {"link", "pipe", "gone"}) {
        SCOPED_TRACE(item);
        bool ran = false;
        const auto outcome = scopes().readWrite(url(item), [&](const Descriptor&) -> Result<void> {
            ran = true;
            return {};
        });
        EXPECT_FALSE(ran);
        ASSERT_FALSE(outcome.has_value());
        EXPECT_EQ(outcome.error().domain, ErrorDomain::posix);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, FileOperationsContract, ::testing::Values(false, true),
                         [](const auto& kind) { return kind.param ? "TheHost" : "TheFake"; });

}  // namespace
}  // namespace tarnwell::host
