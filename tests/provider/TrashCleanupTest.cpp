#include "provider/TrashCleanup.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "platform/base/DateText.h"
#include "tests/provider/OperationsFixture.h"

namespace tarnwell::provider {
namespace {

using namespace std::chrono_literals;
using items::LocalItem;

class TrashCleanupTest : public OperationsTest {
protected:
    static inline const Date kReference{1'700'000'000'123'456'789ns};

    TrashCleanupTest() {
        makeNoteFolder(".Trash");
        makeFolder(".Trash");
    }
    /// An entry of the library's trash.
    void makeTrashed(const std::string& name, std::optional<Date> date) {
        makeNote(".Trash/" + name);
        if (date) setTrashDate(notePath(".Trash/" + name), *date);
        device_.settle();  // entries are looked at in the order in which they came
    }
    DoneAnswer start(Date reference = kReference) {
        DoneAnswer answer;
        cleanup_.removeTrashedItemsOlderThan(reference, answer);
        return answer;
    }
    void clean(Date reference = kReference) { EXPECT_EQ(start(reference).wait(), std::nullopt); }
    Lines deletedPaths() {
        Lines paths;
        for (const std::string& call : calls()) {
            if (call.starts_with("delete ")) paths.push_back(call.substr(7));
        }
        return paths;
    }

    TrashCleanup cleanup_{providerContext_};
};

TEST_F(TrashCleanupTest, RemovesWhatWasTrashedStrictlyBeforeTheDate) {
    makeTrashed("before", kReference - 1ns);
    makeTrashed("at", kReference);
    makeTrashed("after", kReference + 1ns);
    makeTrashed("folder/inner", std::nullopt);
    setTrashDate(notePath(".Trash/folder"), kReference - 24h);
    clean();
    EXPECT_FALSE(exists(notePath(".Trash/before")));
    EXPECT_FALSE(exists(notePath(".Trash/folder")));
    EXPECT_TRUE(exists(notePath(".Trash/at")));
    EXPECT_TRUE(exists(notePath(".Trash/after")));
    EXPECT_EQ(trashDate(noteURL(".Trash/at")), kReference);
}

TEST_F(TrashCleanupTest, AnEntryWithoutADateSurvivesTheFirstCleanUpAndGetsTheCurrentDateOnce) {
    makeTrashed("undated", std::nullopt);
    const Date before = std::chrono::system_clock::now();
    const Date farAhead = before + 24h;
    clean(farAhead);
    const Date after = std::chrono::system_clock::now();
    const auto date = trashDate(noteURL(".Trash/undated"));
    ASSERT_TRUE(date.has_value());
    EXPECT_LE(before, *date);
    EXPECT_LE(*date, after);
    EXPECT_EQ(deletedPaths(), Lines{});
    clean(*date);
    EXPECT_EQ(trashDate(noteURL(".Trash/undated")), date);
    clean(farAhead);
    EXPECT_FALSE(exists(notePath(".Trash/undated")));
}

TEST_F(TrashCleanupTest, ADateThatCannotBeReadIsAsNone) {
    const std::pair<std::string, Bytes> rows[] = {
        {"raw", Bytes(16, 0)},
        {"empty", Bytes{}},
        {"number", archive::archiveRoot({archive::Integer::fromUnsigned(7)})},
        {"text", archive::archiveRoot({std::string("yesterday")})},
    };
    for (const auto& [name, bytes] : rows) {
        makeNote(".Trash/" + name);
        setAttribute(notePath(".Trash/" + name), LocalItem::xattrTrashDateName, bytes);
    }
    newLines();
    clean();
    const auto lines = newLines();
    for (const auto& [name, bytes] : rows) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(trashDate(noteURL(".Trash/" + name)).has_value());
        EXPECT_EQ(std::ranges::count(lines, "[DEBUG] can't unarchive xattr data for URL \"" +
                                                noteURL(".Trash/" + name).path() + "\"; set current date"),
                  1);
    }
    EXPECT_EQ(deletedPaths(), Lines{});
}

TEST_F(TrashCleanupTest, EachStepIsLogged) {
    makeTrashed("old", kReference - 1h);
    makeTrashed("undated", std::nullopt);
    makeTrashed("young", kReference);
    const std::string identifier = noteIdentifier(".Trash/old");
    const URL old = noteURL(".Trash/old");
    const URL undated = noteURL(".Trash/undated");
    device_.settle();
    newLines();
    operations().hold();
    const auto answer = start();
    EXPECT_EQ(newLines(),
              (Lines{kOpen + "remove trashed items older than " + iso8601(kReference),
                     kOpen + "fetching item identifier for \"" + old.path() + "\"", "[DEBUG] found " + identifier,
                     kClose, "[DEBUG] item " + identifier + " was trashed before reference date, let's remove it",
                     kOpen + "delete item \"" + identifier + "\"", kOpen + "fetching URL for \"" + identifier + "\"",
                     "[DEBUG] found " + old.text(), kClose, kClose,
                     "[DEBUG] can't find trash date for URL \"" + undated.path() + "\"; set current date",
                     "[DEBUG] setting trash date on " + undated.path(), "[DEBUG] wait until all deletions are complete",
                     kClose}));
    operations().release();
    EXPECT_EQ(answer.wait(), std::nullopt);
    EXPECT_EQ(newLines(), Lines{});
}

TEST_F(TrashCleanupTest, TheCompletionComesOnAQueueOfItsOwnAfterTheLastDeletion) {
    for (const char* name : {"a", "b", "c"}) makeTrashed(name, kReference - 1h);
    operations().hold();
    const auto answer = start();
    EXPECT_EQ(operations().heldAnswers(), 3u);
    EXPECT_FALSE(answer.hasCome());
    operations().release();
    EXPECT_EQ(answer.wait(), std::nullopt);
    EXPECT_NE(answer.thread(), std::this_thread::get_id());
}

TEST_F(TrashCleanupTest, WithNothingToRemoveTheCompletionComesAllTheSame) {
    const auto answer = start();
    EXPECT_EQ(answer.wait(), std::nullopt);
    EXPECT_NE(answer.thread(), std::this_thread::get_id());
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(TrashCleanupTest, AnEntryThatCannotBeRemovedIsLoggedAndTheOthersGo) {
    makeTrashed("a", kReference - 1h);
    makeTrashed("b", kReference - 1h);
    const std::string identifier = noteIdentifier(".Trash/a");
    operations().failNext(posixError(EBUSY));
    newLines();
    clean();
    const auto lines = newLines();
    EXPECT_EQ(std::ranges::count(lines, "[ERROR] can't remove item " + identifier + "; " + describe(posixError(EBUSY))),
              1);
    EXPECT_TRUE(exists(notePath(".Trash/a")));
    EXPECT_FALSE(exists(notePath(".Trash/b")));
}

TEST_F(TrashCleanupTest, AnEntryThatGetsNoDateIsLoggedAndStays) {
    makeTrashed("undated", std::nullopt);
    device_.accessScopes().failNext(posixError(EROFS));
    newLines();
    clean();
    EXPECT_EQ(std::ranges::count(newLines(), "[ERROR] can't set xattr com.vellum.trash.time#PS on " +
                                                 noteURL(".Trash/undated").path() + "; " + describe(posixError(EROFS))),
              1);
    EXPECT_TRUE(exists(notePath(".Trash/undated")));
}

TEST_F(TrashCleanupTest, AnEntryWithoutAnIdentifierIsLoggedAndSkipped) {
    // A folder of that name is taken for an application's, and there is no such application.
    makeTrashed("Documents/inner", std::nullopt);
    setTrashDate(notePath(".Trash/Documents"), kReference - 1h);
    makeTrashed("old", kReference - 1h);
    newLines();
    clean();
    EXPECT_EQ(std::ranges::count(newLines(), "[ERROR] identifier lookup failed for URL \"" +
                                                 noteURL(".Trash/Documents").path() + "\""),
              1);
    EXPECT_EQ(deletedPaths(), Lines{noteURL(".Trash/old").path()});
}

TEST_F(TrashCleanupTest, LooksIntoEveryLibrarysTrashAndThenIntoTheStorages) {
    const Application zither = application("zither");
    const Application abacus = application("abacus");
    install({zither, notes_, abacus});
    const auto trashed = [](const Application& application) {
        const std::string path = *application.containerPath + "/Documents/.Trash";
        testing::makeDirectories(path);
        testing::writeFile(path + "/old", "x");
        setTrashDate(path + "/old", kReference - 1h);
    };
    for (const Application& application : {zither, abacus, notes_}) trashed(application);
    makeFile(".Trash/old");
    setTrashDate(device_.path(".Trash/old"), kReference - 1h);
    clean();
    EXPECT_EQ(deletedPaths(),
              (Lines{documentsOf(zither).path() + "/.Trash/old", documentsOf(notes_).path() + "/.Trash/old",
                     documentsOf(abacus).path() + "/.Trash/old", pathOf(".Trash/old")}));
}

TEST_F(TrashCleanupTest, OnlyWhatLiesDirectlyInATrashIsLookedAt) {
    makeTrashed("folder/deep", std::nullopt);
    setTrashDate(notePath(".Trash/folder/deep"), kReference - 1h);
    setTrashDate(notePath(".Trash/folder"), kReference + 1h);
    makeNote("Folder/.Trash/old");
    setTrashDate(notePath("Folder/.Trash/old"), kReference - 1h);
    makeNote("old");
    setTrashDate(notePath("old"), kReference - 1h);
    clean();
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(TrashCleanupTest, LibrariesWithoutATrashAreNoFailure) {
    std::filesystem::remove(notePath(".Trash"));
    std::filesystem::remove(device_.path(".Trash"));
    clean();
    EXPECT_EQ(calls(), Lines{});
    EXPECT_FALSE(exists(notePath(".Trash")));
}

TEST_F(TrashCleanupTest, ManyEntriesAllGo) {
    for (int i = 0; i < 300; ++i) makeTrashed("f" + std::to_string(i), kReference - 1h);
    clean();
    EXPECT_EQ(deletedPaths().size(), 300u);
    EXPECT_TRUE(std::filesystem::is_empty(notePath(".Trash")));
}

TEST_F(TrashCleanupTest, WhatWasPutBackMeanwhileIsNotDeletedWhereItIsNow) {
    makeTrashed("wanted.txt", kReference - 1h);
    operations().meanwhile([&] { std::filesystem::rename(notePath(".Trash/wanted.txt"), notePath("wanted.txt")); });
    newLines();
    clean();
    EXPECT_TRUE(exists(notePath("wanted.txt")));
    // The last line is this one or the end of the section: the deletion completes on a thread of its own.
    EXPECT_TRUE(std::ranges::any_of(
        newLines(), [](const std::string& line) { return line.starts_with("[ERROR] can't remove item did="); }));
}

TEST_F(TrashCleanupTest, AnotherNameOfATrashedDocumentStays) {
    for (const bool trashedFirst : {true, false}) {
        SCOPED_TRACE(trashedFirst);
        const std::string trashed = notePath(".Trash/copy.txt");
        const std::string wanted = notePath("wanted.txt");
        testing::writeFile(trashedFirst ? trashed : wanted, "content");
        device_.settle();
        std::filesystem::create_hard_link(trashedFirst ? trashed : wanted, trashedFirst ? wanted : trashed);
        setTrashDate(wanted, kReference - 1h);
        clean();
        EXPECT_EQ(testing::readFile(wanted), "content");
        // A document with two names is listed at the older of them.
        EXPECT_EQ(exists(trashed), !trashedFirst);
        std::filesystem::remove(wanted);
        std::filesystem::remove(trashed);
    }
}

}  // namespace
}  // namespace tarnwell::provider
