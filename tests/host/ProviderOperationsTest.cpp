#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <functional>

#include "host/Changes.h"
#include "host/HostFileOperations.h"
#include "host/Listing.h"
#include "hostframework/TagCodec.h"
#include "tests/provider/OperationsFixture.h"

namespace tarnwell::host {
namespace {

using namespace std::chrono_literals;
using hostframework::ProviderItemPtr;
using hostframework::TagCodec;
using provider::DoneAnswer;
using provider::ItemAnswer;

/// The provider's operations through the host's own file operations, on real files.
class ProviderOperationsTest : public provider::OperationsTest {
protected:
    ProviderOperationsTest() {
        provider_ = provider::LocalProvider::create(
            {environment_, context_, real_, real_, device_.deviceInfo(), device_.iconRenderer()});
    }
    ~ProviderOperationsTest() override {
        provider_.reset();
        device_.pool()->waitUntilQuiet();
    }

    ProviderItemPtr wait(const ItemAnswer& answer) {
        auto item = answer.wait();
        if (!item) throw std::runtime_error(describe(item.error()));
        return *item;
    }
    ProviderItemPtr trash(const std::string& identifier) {
        ItemAnswer answer;
        provider_->trashItemWithIdentifier(identifier, answer);
        return wait(answer);
    }
    ProviderItemPtr untrash(const std::string& identifier, const std::optional<std::string>& parent = std::nullopt) {
        ItemAnswer answer;
        provider_->untrashItemWithIdentifier(identifier, parent, answer);
        return wait(answer);
    }
    void clean(Date date) {
        DoneAnswer answer;
        provider_->removeTrashedItemsOlderThanDate(date, answer);
        EXPECT_EQ(answer.wait(), std::nullopt);
    }

    HostFileOperations real_{
        operations::Context{device_.roots(), device_.store(), device_.log(), &device_.ownChanges()}, device_.pool()};
    std::shared_ptr<provider::LocalProvider> provider_;
};

TEST_F(ProviderOperationsTest, TrashAndRestoreGiveBackFolderNameContentMetadataAndIdentifier) {
    makeNote("Folder/Sub/letter.txt", "dear");
    makeNote("Folder/Sub/Album/inner.txt", "inner");
    for (const std::string name : {"letter.txt", "Album"}) {
        SCOPED_TRACE(name);
        const std::string relative = "Folder/Sub/" + name;
        const std::string identifier = noteIdentifier(relative);
        ItemAnswer tagged, ranked, used;
        provider_->setTagData(TagCodec::encode({{"red", {}}}), identifier, tagged);
        wait(tagged);
        provider_->setFavoriteRank(7, identifier, ranked);
        wait(ranked);
        const Date date{1'700'000'000'000'000'000ns};
        provider_->setLastUsedDate(date, identifier, used);
        wait(used);

        const auto trashed = trash(identifier);
        EXPECT_TRUE(trashed->isTrashed());
        EXPECT_EQ(trashed->itemIdentifier(), identifier);
        EXPECT_TRUE(trashDate(trashed->fileURL()).has_value());
        EXPECT_EQ(putBack(trashed->fileURL()), relative);
        EXPECT_FALSE(exists(notePath(relative)));

        const auto restored = untrash(identifier);
        EXPECT_EQ(restored->itemIdentifier(), identifier);
        EXPECT_EQ(restored->fileURL(), noteURL(relative));
        EXPECT_EQ(restored->filename(), name);
        EXPECT_FALSE(restored->isTrashed());
        EXPECT_EQ(restored->tagData(), TagCodec::encode({{"red", {}}}));
        EXPECT_EQ(restored->favoriteRank(), 7u);
        EXPECT_EQ(restored->lastUsedDate(), date);
        EXPECT_EQ(trashDate(restored->fileURL()), std::nullopt);
    }
    EXPECT_EQ(testing::readFile(notePath("Folder/Sub/letter.txt")), "dear");
    EXPECT_EQ(testing::readFile(notePath("Folder/Sub/Album/inner.txt")), "inner");
}

TEST_F(ProviderOperationsTest, ANameThatTheTrashReplacedComesBack) {
    makeNote("a/letter.txt", "a");
    makeNote("b/letter.txt", "b");
    const std::string a = noteIdentifier("a/letter.txt");
    const std::string b = noteIdentifier("b/letter.txt");
    trash(a);
    EXPECT_NE(trash(b)->filename(), "letter.txt");
    EXPECT_EQ(untrash(b)->fileURL(), noteURL("b/letter.txt"));
    EXPECT_EQ(untrash(a)->fileURL(), noteURL("a/letter.txt"));
    EXPECT_EQ(testing::readFile(notePath("b/letter.txt")), "b");
}

TEST_F(ProviderOperationsTest, WhereAnotherHasTheNameBothAreKept) {
    makeNote("letter.txt", "old");
    const std::string identifier = noteIdentifier("letter.txt");
    trash(identifier);
    makeNote("letter.txt", "new");
    const auto restored = untrash(identifier);
    EXPECT_EQ(restored->filename(), "letter 2.txt");
    EXPECT_EQ(testing::readFile(notePath("letter 2.txt")), "old");
    EXPECT_EQ(testing::readFile(notePath("letter.txt")), "new");
}

TEST_F(ProviderOperationsTest, TheCleanUpStampsOnceAndRemovesOnlyWhatIsOlder) {
    const Date reference{1'700'000'000'000'000'000ns};
    makeNote(".Trash/undated");
    makeNote(".Trash/older/inner");
    makeNote(".Trash/at");
    setTrashDate(notePath(".Trash/older"), reference - 1ns);
    setTrashDate(notePath(".Trash/at"), reference);
    makeFile(".Trash/own");
    setTrashDate(device_.path(".Trash/own"), reference - 1ns);
    clean(reference);
    EXPECT_FALSE(exists(notePath(".Trash/older")));
    EXPECT_FALSE(exists(device_.path(".Trash/own")));
    EXPECT_TRUE(exists(notePath(".Trash/at")));
    const auto stamped = trashDate(noteURL(".Trash/undated"));
    ASSERT_TRUE(stamped.has_value());
    clean(*stamped);
    EXPECT_EQ(trashDate(noteURL(".Trash/undated")), stamped);
    EXPECT_FALSE(exists(notePath(".Trash/at")));
    clean(*stamped + 1ns);
    EXPECT_FALSE(exists(notePath(".Trash/undated")));
}

TEST_F(ProviderOperationsTest, ImportCreateRenameMoveAndDeleteOnRealFiles) {
    testing::writeFile(device_.home() + "/letter.txt", "dear");
    ItemAnswer created, imported, renamed, moved, taken;
    provider_->createDirectoryWithName("Folder", kLibrary, created);
    const std::string folder = wait(created)->itemIdentifier();
    provider_->importDocumentAtURL(URL::file(device_.home() + "/letter.txt"), folder, imported);
    const std::string identifier = wait(imported)->itemIdentifier();
    provider_->renameItemWithIdentifier(identifier, "a.txt", renamed);
    EXPECT_EQ(wait(renamed)->itemIdentifier(), identifier);
    provider_->reparentItemWithIdentifier(identifier, kLibrary, "b.txt", moved);
    EXPECT_EQ(wait(moved)->itemIdentifier(), identifier);
    EXPECT_EQ(testing::readFile(notePath("b.txt")), "dear");

    makeNote("c.txt", "there");
    provider_->renameItemWithIdentifier(identifier, "c.txt", taken);
    EXPECT_EQ(taken.wait().error(), collision(noteIdentifier("c.txt"), "c.txt"));

    DoneAnswer deleted;
    provider_->deleteItemWithIdentifier(folder, deleted);
    EXPECT_EQ(deleted.wait(), std::nullopt);
    EXPECT_FALSE(exists(notePath("Folder")));
    EXPECT_FALSE(exists(notePath(".Trash")));
}

TEST_F(ProviderOperationsTest, WhatAnOperationChangedIsInTheNextReplyOnce) {
    // With the journal itself.
    const fs::FSEnvironment journaled{device_.environment(), device_.events(), device_.pool()};
    provider_ = provider::LocalProvider::create(
        {journaled, context_, real_, real_, device_.deviceInfo(), device_.iconRenderer()});
    makeNote("Folder/inner.txt", "inner");
    makeNote("a.txt", "text");
    testing::writeFile(device_.home() + "/letter.txt", "dear");
    const std::string folder = noteIdentifier("Folder"), item = noteIdentifier("a.txt");
    struct Row {
        const char* title;
        std::function<void(const ItemAnswer&)> operation;
    };
    const std::vector<Row> rows{
        {"rename", [&](const ItemAnswer& answer) { provider_->renameItemWithIdentifier(item, "b.txt", answer); }},
        {"move", [&](const ItemAnswer& answer) { provider_->reparentItemWithIdentifier(item, folder, {}, answer); }},
        {"tag",
         [&](const ItemAnswer& answer) { provider_->setTagData(TagCodec::encode({{"red", {}}}), item, answer); }},
        {"rank", [&](const ItemAnswer& answer) { provider_->setFavoriteRank(3, item, answer); }},
        {"used", [&](const ItemAnswer& answer) { provider_->setLastUsedDate(Date{}, item, answer); }},
        {"trash", [&](const ItemAnswer& answer) { provider_->trashItemWithIdentifier(item, answer); }},
        {"restore", [&](const ItemAnswer& answer) { provider_->untrashItemWithIdentifier(item, {}, answer); }},
        {"import",
         [&](const ItemAnswer& answer) {
             provider_->importDocumentAtURL(URL::file(device_.home() + "/letter.txt"), folder, answer);
         }},
        {"mkdir", [&](const ItemAnswer& answer) { provider_->createDirectoryWithName("new", folder, answer); }},
    };
    auto follower = ChangeFollower::create(*provider_, kLibrary);
    ASSERT_TRUE(follower.has_value()) << describe(follower.error());
    auto anchor = currentSyncAnchor(*provider_, kLibrary).value().value();
    const auto reported = [&](const std::string& identifier) {
        const auto batch = follower->changesSince(anchor).value();
        EXPECT_FALSE(batch.moreComing);
        anchor = batch.anchor;
        std::string text;
        for (const auto& report : batch.reports) {
            if (report.updated && report.updated->itemIdentifier() == identifier) text += "+";
            if (report.deleted) text += *report.deleted == identifier ? "-" : "- of another";
        }
        return text;
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        ItemAnswer answer;
        row.operation(answer);
        EXPECT_EQ(reported(wait(answer)->itemIdentifier()), "+");
    }
    DoneAnswer deleted;
    provider_->deleteItemWithIdentifier(item, deleted);
    EXPECT_EQ(deleted.wait(), std::nullopt);
    EXPECT_EQ(reported(item), "-");
    EXPECT_EQ(reported(item), "");
    follower = failure(posixError(ECANCELED));
    provider_.reset();
    device_.pool()->waitUntilQuiet();
}

TEST_F(ProviderOperationsTest, ManyOperationsAtOnceEachCompleteOnce) {
    constexpr int kItems = 60;
    std::vector<std::string> identifiers;
    for (int i = 0; i < kItems; ++i) {
        makeNote("Folder/f" + std::to_string(i));
        identifiers.push_back(noteIdentifier("Folder/f" + std::to_string(i)));
    }
    std::vector<ItemAnswer> answers(kItems);
    for (int i = 0; i < kItems; ++i) provider_->trashItemWithIdentifier(identifiers[i], answers[i]);
    for (const auto& answer : answers) EXPECT_TRUE(wait(answer)->isTrashed());
    std::vector<ItemAnswer> restored(kItems);
    for (int i = 0; i < kItems; ++i) provider_->untrashItemWithIdentifier(identifiers[i], std::nullopt, restored[i]);
    for (int i = 0; i < kItems; ++i) {
        EXPECT_EQ(wait(restored[i])->fileURL(), noteURL("Folder/f" + std::to_string(i)));
    }
}

TEST_F(ProviderOperationsTest, ALinkIsTrashedAndRestoredItselfAndItsTargetStays) {
    makeNote("target.txt", "target");
    std::filesystem::create_symlink("target.txt", notePath("link"));
    device_.settle();
    const auto listed = provider_->persistentIdentifierForItemAtURL(noteURL("link"));
    ASSERT_TRUE(listed.has_value());
    const auto trashed = trash(*listed);
    EXPECT_TRUE(trashed->isTrashed());
    EXPECT_EQ(testing::readFile(notePath("target.txt")), "target");
    const auto restored = untrash(*listed, kLibrary);
    EXPECT_EQ(restored->fileURL(), noteURL("link"));
    EXPECT_TRUE(std::filesystem::is_symlink(notePath("link")));
}

}  // namespace
}  // namespace tarnwell::host
