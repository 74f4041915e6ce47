#include "host/Changes.h"

#include "testing/Sanitized.h"
#include "tests/host/ChangesFixture.h"

namespace tarnwell::host {
namespace {

TEST_F(ChangesTest, AFolderThatCameInBringsItsContents) {
    make("followed");
    make("elsewhere/bundle/deep/deeper");
    write("elsewhere/bundle/a");
    write("elsewhere/bundle/deep/b");
    write("elsewhere/bundle/deep/deeper/c");
    // Known where it is: moving the folder is no change of what it holds.
    device_.settle();
    const auto container = identifierOf("followed");
    const SyncAnchor since = anchorOf(container);
    rename("elsewhere/bundle", "followed/bundle");
    waitUntilSettled();
    const auto batch = answer(container, since);
    const auto names = updatedNames(batch);
    for (const char* name : {"bundle", "a", "deep", "b", "deeper", "c"}) EXPECT_TRUE(names.contains(name)) << name;
    EXPECT_TRUE(deletionsIn(batch).empty());
    EXPECT_TRUE(answer(container, batch.anchor).reports.empty());
}

TEST_F(ChangesTest, AFolderWithMoreThanABatchBringsEverythingInItOnce) {
    make("followed");
    make("elsewhere/bundle");
    auto contents = writeMany("elsewhere/bundle", 450, "f");
    device_.settle();
    const auto container = identifierOf("followed");
    SyncAnchor anchor = anchorOf(container);
    rename("elsewhere/bundle", "followed/bundle");
    waitUntilSettled();
    auto follower = follow(container);
    std::multiset<std::string> told;
    bool more = true;
    for (int request = 0; request < 6 && more; ++request) {
        const auto batch = answer(follower, anchor);
        EXPECT_EQ(batch.reports.size() == 200, batch.moreComing);
        anchor = batch.anchor;
        more = batch.moreComing;
        told.merge(updatedNames(batch));
    }
    EXPECT_FALSE(more);
    contents.insert("bundle");
    EXPECT_EQ(told, contents);
}

TEST_F(ChangesTest, WhatLeftIsDeletedUnderTheIdentifierThatWasKnown) {
    make("folder/inner");
    make("elsewhere");
    for (const char* name : {"removed", "moved", "kept"}) write(std::string("folder/") + name, name);
    write("folder/inner/below");
    const auto container = identifierOf("folder");
    std::map<std::string, ItemIdentifier> known;
    const auto items = listContainer(*provider_, container, {.depth = Depth::recursive, .progress = {}});
    ASSERT_TRUE(items);
    for (const auto& item : *items) known[item.item->filename()] = item.item->itemIdentifier();
    ASSERT_EQ(known.size(), 5u);
    EXPECT_TRUE(known["removed"].starts_with("did="));
    EXPECT_TRUE(known["inner"].starts_with("fid="));
    const SyncAnchor since = anchorOf(container);
    remove("folder/removed");
    rename("folder/moved", "elsewhere/moved");
    remove("folder/inner/below");
    remove("folder/inner");
    auto batch = answer(container, since);
    auto deleted = deletionsIn(batch);
    std::ranges::sort(deleted);
    Texts expected{known["removed"], known["moved"], known["below"], known["inner"]};
    std::ranges::sort(expected);
    EXPECT_EQ(deleted, expected);
    EXPECT_EQ(std::ranges::count(updatesIn(batch), known["moved"]), 0);
    // For the root it only went elsewhere.
    EXPECT_EQ(identifierOf("elsewhere/moved"), known["moved"]);
}

TEST_F(ChangesTest, AnAttributeChangeIsAnUpdate) {
    make("folder/inner");
    write("folder/tagged");
    write("folder/closed");
    write("folder/quiet");
    for (const auto& container : {identifierOf("folder"), kWorkingSetContainer}) {
        SCOPED_TRACE(container);
        SyncAnchor since = anchorOf(container);
        const std::string label = "tag of " + container;
        tag("folder/tagged", label);
        waitUntilSettled();
        auto batch = answer(container, since);
        EXPECT_EQ(updatesIn(batch), Texts{identifierOf("folder/tagged")});
        ASSERT_EQ(batch.reports.size(), 1u);
        const auto data = batch.reports[0].updated->tagData();
        ASSERT_TRUE(data);
        const auto tags = hostframework::TagCodec::decode(*data);
        ASSERT_TRUE(tags && tags->size() == 1);
        EXPECT_EQ(tags->front().label, label);

        const mode_t mode = container == kWorkingSetContainer ? 0644 : 0400;
        ASSERT_EQ(::chmod(device_.path("folder/closed").c_str(), mode), 0);
        ASSERT_EQ(::chmod(device_.path("folder/inner").c_str(), mode | 0100), 0);
        waitUntilSettled();
        batch = answer(container, batch.anchor);
        auto updated = updatesIn(batch);
        std::ranges::sort(updated);
        EXPECT_EQ(updated, (Texts{identifierOf("folder/closed"), identifierOf("folder/inner")}));
        EXPECT_TRUE(deletionsIn(batch).empty());
        EXPECT_TRUE(answer(container, batch.anchor).reports.empty());
    }
}

/// What programs do to files, looked at by comparing and by the kernel's hints.
class WrittenFiles : public ChangesTest {
protected:
    void writeAndAskAgain(int rounds);
    enum class Look { afterwards, betweenTheSteps };
    void keepDocumentThroughSafeSave(Look look);
};

/// Every kind of write in turn, each followed by a request at once.
void WrittenFiles::writeAndAskAgain(int rounds) {
    make("folder");
    for (const char* name : {"same", "grown", "tagged"}) write(std::string("folder/") + name);
    const auto container = identifierOf("folder");
    const auto same = identifierOf("folder/same"), grown = identifierOf("folder/grown"),
               tagged = identifierOf("folder/tagged");
    auto follower = follow(container);
    SyncAnchor anchor = anchorOf(container);
    const int append = ::open(device_.path("folder/grown").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const int rewrite = ::open(device_.path("folder/same").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(append, 0);
    ASSERT_GE(rewrite, 0);
    std::string created;
    int missed = 0;
    for (int round = 0; round < rounds; ++round) {
        std::string what, identifier;
        const std::string text = std::to_string(round);
        switch (round % 6) {
            case 0:
                what = "a longer file";
                ASSERT_EQ(::write(append, "+", 1), 1);
                identifier = grown;
                break;
            case 1:
                what = "a new file";
                write("folder/new");
                break;
            case 2:
                what = "other bytes in a file as long";
                ASSERT_EQ(::pwrite(rewrite, text.data() + text.size() - 1, 1, 0), 1);
                identifier = same;
                break;
            case 3:
                what = "a removed file";
                remove("folder/new");
                identifier = created;
                break;
            case 4:
                what = "an attribute";
                tag("folder/tagged", text);
                identifier = tagged;
                break;
            default:
                what = "another name";
                rename(round % 12 == 5 ? "folder/same" : "folder/other",
                       round % 12 == 5 ? "folder/other" : "folder/same");
                identifier = same;
        }
        const auto batch = answer(follower, anchor);
        ASSERT_FALSE(batch.anchor.empty()) << round;
        anchor = batch.anchor;
        const auto updates = updatesIn(batch), deletions = deletionsIn(batch);
        if (round % 6 == 1) {
            for (const auto& report : batch.reports) {
                if (report.updated && report.updated->filename() == "new")
                    identifier = report.updated->itemIdentifier();
            }
            created = identifier;
        }
        const bool isTold = !identifier.empty() && std::ranges::count(round % 6 == 3 ? deletions : updates, identifier);
        if (!isTold && ++missed <= 5) ADD_FAILURE() << what << " was not told of in round " << round;
    }
    EXPECT_EQ(missed, 0);
    ::close(append);
    ::close(rewrite);
}

TEST_F(WrittenFiles, AWriteThatReturnedIsInTheReplyByComparing) { writeAndAskAgain(2000); }

TEST_F(WrittenFiles, AWriteThatReturnedIsInTheReplyByTheKernelsHints) {
    watch();
    ASSERT_TRUE(device_.liveStatus());
    writeAndAskAgain(testing::kIsSanitized ? 1'000 : 10'000);
    EXPECT_TRUE(device_.liveStatus());
}

/// An editor that puts the old file aside and writes a new one under its name.
void WrittenFiles::keepDocumentThroughSafeSave(Look look) {
    make("folder");
    const std::string folder = "folder", name = "folder/a";
    write(name, "first");
    const auto container = identifierOf(folder), identifier = identifierOf(name);
    ASSERT_TRUE(identifier.starts_with("did="));
    const SyncAnchor since = anchorOf(container);
    const auto begin = std::chrono::steady_clock::now();
    rename(name, name + "~");
    if (look == Look::betweenTheSteps) device_.settle();
    write(name, "second");
    device_.settle();
    ASSERT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << "too slow to say anything";
    EXPECT_EQ(identifierOf(name), identifier);
    EXPECT_NE(identifierOf(name + "~"), identifier);
    const auto batch = answer(container, since);
    EXPECT_EQ(std::ranges::count(deletionsIn(batch), identifier), 0);
    bool isTold = false;
    for (const auto& report : batch.reports) {
        if (!report.updated || report.updated->itemIdentifier() != identifier) continue;
        isTold = true;
        EXPECT_EQ(report.updated->filename(), "a");
        EXPECT_EQ(report.updated->documentSize(), 6u);
    }
    EXPECT_TRUE(isTold);
    remove(name + "~");
    device_.settle();
    EXPECT_EQ(identifierOf(name), identifier);
    EXPECT_EQ(std::ranges::count(deletionsIn(answer(container, batch.anchor)), identifier), 0);
}

TEST_F(WrittenFiles, ASafeSaveKeepsItsDocumentByComparing) { keepDocumentThroughSafeSave(Look::afterwards); }

TEST_F(WrittenFiles, ASafeSaveKeepsItsDocumentThoughALookComesBetweenItsSteps) {
    watch();
    keepDocumentThroughSafeSave(Look::betweenTheSteps);
}

TEST_F(ChangesTest, AFollowedFolderThatGoesElsewhereIsFollowedThere) {
    make("folder");
    make("elsewhere");
    write("folder/a");
    const auto container = identifierOf("folder");
    auto follower = follow(container);
    const SyncAnchor since = anchorOf(container);
    rename("folder", "elsewhere/folder");
    write("elsewhere/folder/b");
    const auto batch = answer(follower, since);
    EXPECT_TRUE(updatedNames(batch).contains("b"));
    EXPECT_TRUE(deletionsIn(batch).empty());
}

}  // namespace
}  // namespace tarnwell::host
