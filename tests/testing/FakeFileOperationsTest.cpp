#include "testing/FakeFileOperations.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>

#include "platform/dispatch/ThreadPool.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::testing {
namespace {

using Texts = std::vector<std::string>;

class FakeFileOperationsTest : public ::testing::Test {
protected:
    FakeFileOperationsTest() {
        makeDirectories(directory_.path("Documents/Folder"));
        writeFile(directory_.path("Documents/a.txt"), "a");
        documents_ = URL::file(roots_.addStorage(directory_.path("Documents")).value()->name);
    }
    std::string path(const std::string& relative) const { return directory_.path("Documents/" + relative); }
    URL url(const std::string& relative) const { return documents_.appending(relative); }
    static hostframework::FileOperations::URLCompletion into(std::vector<Result<URL>>& answers) {
        return [&answers](const Result<URL>& outcome) { answers.push_back(outcome); };
    }

    TemporaryDirectory directory_;
    Roots roots_;
    URL documents_ = URL::file("/");
    FakeFileOperations operations_{dispatch::ThreadPool::create(), roots_};
    FakeAccessScopes scopes_{roots_};
};

TEST_F(FakeFileOperationsTest, KeepsAnswersUntilToldAndGivesThemInOrder) {
    std::vector<Result<URL>> answers;
    operations_.hold();
    operations_.renameWithNewName(url("a.txt"), "b.txt", into(answers));
    operations_.createSubfolder(documents_, "New", into(answers));
    EXPECT_EQ(operations_.heldAnswers(), 2u);
    EXPECT_TRUE(answers.empty());
    EXPECT_TRUE(std::filesystem::exists(path("b.txt")));
    operations_.release();
    EXPECT_EQ(answers, (std::vector<Result<URL>>{url("b.txt"), url("New")}));
    operations_.createSubfolder(documents_, "Another", into(answers));
    operations_.drain();
    EXPECT_EQ(answers.size(), 3u);
}

TEST_F(FakeFileOperationsTest, AScriptedFailureTouchesNothingAndIsForOneOperation) {
    std::vector<Result<URL>> answers;
    operations_.failNext(posixError(ENOSPC));
    operations_.failNext(posixError(EBUSY));
    for (int i = 0; i < 3; ++i) operations_.renameWithNewName(url("a.txt"), "b.txt", into(answers));
    operations_.drain();
    EXPECT_EQ(answers, (std::vector<Result<URL>>{failure(posixError(ENOSPC)), failure(posixError(EBUSY)),
                                                 Result<URL>(url("b.txt"))}));
}

TEST_F(FakeFileOperationsTest, RecordsWhatWasAskedFor) {
    std::vector<Result<URL>> answers;
    const std::string top = documents_.path();
    operations_.importUnderFolder(URL::file("/nowhere/x"), documents_, into(answers));
    operations_.reparentUnderFolder(url("a.txt"), url("Folder"), std::nullopt, hostframework::Bouncing::allowed,
                                    into(answers));
    operations_.reparentUnderFolder(url("Folder/a.txt"), documents_, "b", hostframework::Bouncing::refused,
                                    into(answers));
    operations_.trashUnderFolder(url("b"), url("Folder"), into(answers));
    operations_.deleteItem(url("Folder"), [](const std::optional<Error>&) {});
    operations_.drain();
    EXPECT_EQ(
        operations_.calls(),
        (Texts{"import /nowhere/x under " + top, "move " + top + "/a.txt under " + top + "/Folder or another name",
               "move " + top + "/Folder/a.txt under " + top + " as b", "trash " + top + "/b under " + top + "/Folder",
               "delete " + top + "/Folder"}));
    EXPECT_EQ(answers[0], Result<URL>(failure(answers[0].error())));
    EXPECT_FALSE(std::filesystem::exists(path("Folder")));
}

TEST_F(FakeFileOperationsTest, SomethingMayHappenMeanwhile) {
    std::vector<Result<URL>> answers;
    operations_.meanwhile([&] { std::filesystem::remove(path("a.txt")); });
    operations_.renameWithNewName(url("a.txt"), "b.txt", into(answers));
    operations_.drain();
    EXPECT_EQ(answers, (std::vector<Result<URL>>{failure(posixError(ENOENT))}));
}

TEST_F(FakeFileOperationsTest, ScopesFailAsToldAndRecordTheRest) {
    int works = 0;
    const auto work = [&](const Descriptor& descriptor) -> Result<void> {
        EXPECT_TRUE(descriptor.valid());
        ++works;
        return {};
    };
    scopes_.failNext(posixError(EACCES));
    EXPECT_EQ(scopes_.readWrite(url("a.txt"), work).error(), posixError(EACCES));
    EXPECT_TRUE(scopes_.readWrite(url("a.txt"), work).has_value());
    EXPECT_TRUE(scopes_.readWrite(url("Folder"), work).has_value());
    EXPECT_EQ(works, 2);
    EXPECT_EQ(scopes_.granted(), (Texts{url("a.txt").path(), url("Folder").path()}));
}

}  // namespace
}  // namespace tarnwell::testing
