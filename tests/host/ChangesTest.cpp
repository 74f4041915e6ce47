#include "host/Changes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "fs/ChangeToken.h"
#include "host/Listing.h"
#include "hostframework/HostError.h"
#include "hostframework/TagCodec.h"
#include "items/LocalItem.h"
#include "items/TarnwellError.h"
#include "platform/archive/KeyedArchive.h"
#include "platform/files/ChangeTime.h"
#include "provider/LocalProvider.h"
#include "testing/TestDevice.h"

namespace tarnwell::host {
namespace {

using hostframework::ItemIdentifier;
using hostframework::kAllDirectoriesContainer;
using hostframework::kRootContainer;
using hostframework::kWorkingSetContainer;
using hostframework::SyncAnchor;
using testing::makeDirectories;
using testing::writeFile;
using Texts = std::vector<std::string>;

bool isExpired(const Result<ChangeBatch>& batch) {
    return !batch && batch.error().is(ErrorDomain::host, hostframework::kSyncAnchorExpired);
}

Texts updatesIn(const ChangeBatch& batch) {
    Texts identifiers;
    for (const auto& report : batch.reports) {
        if (report.updated) identifiers.push_back(report.updated->itemIdentifier());
    }
    return identifiers;
}

Texts deletionsIn(const ChangeBatch& batch) {
    Texts identifiers;
    for (const auto& report : batch.reports) {
        if (report.deleted) identifiers.push_back(*report.deleted);
    }
    return identifiers;
}

std::multiset<std::string> updatedNames(const ChangeBatch& batch) {
    std::multiset<std::string> names;
    for (const auto& report : batch.reports) {
        if (report.updated) names.insert(report.updated->filename());
    }
    return names;
}

/// A device of one person with its provider on top, as a host has them. Only errors are logged.
class ChangesTest : public ::testing::Test {
protected:
    ChangesTest() { open(); }
    ~ChangesTest() override { close(); }

    void open() {
        device_.log().setThreshold(log::Level::error);
        environment_.emplace(fs::FSEnvironment{device_.environment(), device_.events(), device_.pool()});
        appLibraries_ = std::make_unique<applibraries::AppLibraryContext>(device_.environment(), device_.registry(),
                                                                          device_.pool(), device_.applicationSupport());
        provider_ = provider::LocalProvider::create(provider::ProviderContext{*environment_, *appLibraries_});
    }
    void close() {
        provider_.reset();
        // What enumerators and readers put on their queues when they ended still uses the services.
        device_.pool()->waitUntilQuiet();
        appLibraries_.reset();
        environment_.reset();
    }
    /// As a new start of the program.
    void restart() {
        close();
        device_.restart();
        open();
    }
    /// The kernel's hints keep the index from now on; sources are chosen before anything is asked.
    void watch() {
        close();
        device_.watch();
        open();
    }

    ItemIdentifier identifierOf(const std::string& relative) {
        const auto identifier = provider_->persistentIdentifierForItemAtURL(device_.url(relative));
        EXPECT_TRUE(identifier) << relative;
        return identifier.value_or("");
    }
    SyncAnchor anchorOf(const ItemIdentifier& container) {
        const auto anchor = currentSyncAnchor(*provider_, container);
        EXPECT_TRUE(anchor && *anchor);
        return anchor && *anchor ? **anchor : SyncAnchor();
    }
    ChangeFollower follow(const ItemIdentifier& container) {
        auto follower = ChangeFollower::create(*provider_, container);
        if (!follower) ADD_FAILURE() << describe(follower.error());
        return std::move(follower.value());
    }
    /// One request, which must be answered.
    ChangeBatch answer(ChangeFollower& follower, const SyncAnchor& since) {
        auto batch = follower.changesSince(since);
        if (!batch) {
            ADD_FAILURE() << describe(batch.error());
            return {};
        }
        return std::move(*batch);
    }
    ChangeBatch answer(const ItemIdentifier& container, const SyncAnchor& since) {
        auto follower = follow(container);
        return answer(follower, since);
    }
    Result<ChangeBatch> ask(const ItemIdentifier& container, const SyncAnchor& since) {
        return follow(container).changesSince(since);
    }

    void write(const std::string& relative, std::string_view content = "x") {
        writeFile(device_.path(relative), content);
    }
    void make(const std::string& relative) { makeDirectories(device_.path(relative)); }
    void rename(const std::string& from, const std::string& to) {
        ASSERT_EQ(std::rename(device_.path(from).c_str(), device_.path(to).c_str()), 0) << from;
    }
    void remove(const std::string& relative) { ASSERT_EQ(std::remove(device_.path(relative).c_str()), 0) << relative; }
    void tag(const std::string& relative, const std::string& label) {
        const Bytes bytes = archive::archiveRoot({archive::ArchivedArray{{label}}});
        testing::setUserAttribute(device_.path(relative), items::LocalItem::xattrTagDataName,
                                  std::string(bytes.begin(), bytes.end()));
    }
    /// `prefix`0, `prefix`1, … in the folder; returns their names.
    std::multiset<std::string> writeMany(const std::string& folder, int count, const std::string& prefix) {
        std::multiset<std::string> names;
        for (int i = 0; i < count; ++i) {
            names.insert(prefix + std::to_string(i));
            write(folder + "/" + prefix + std::to_string(i));
        }
        return names;
    }
    /// Until nothing that was done so far is too young to be told of once only: what changes while it is looked at may
    /// be told of twice.
    static void waitUntilSettled() {
        const auto now = files::stampingClock();
        while (!files::isSettled(now, files::stampingClock())) std::this_thread::yield();
    }
    void writeAndAskAgain(int rounds);
    enum class Look { afterwards, betweenTheSteps };
    void keepDocumentThroughSafeSave(Look look);

    testing::TestDevice device_;
    std::optional<fs::FSEnvironment> environment_;
    std::unique_ptr<applibraries::AppLibraryContext> appLibraries_;
    std::shared_ptr<provider::LocalProvider> provider_;
};

TEST_F(ChangesTest, Comes200AtATime) {
    make("folder");
    for (const auto& container : {identifierOf("folder"), kRootContainer, kWorkingSetContainer}) {
        SCOPED_TRACE(container);
        const SyncAnchor since = anchorOf(container);
        const bool isFolder = container.starts_with("fid=");
        // A folder in which something was created has changed as well; the storage root is no item.
        const auto created = writeMany(isFolder ? "folder" : "", 450, container.substr(0, 1));
        waitUntilSettled();
        auto follower = follow(container);
        std::multiset<std::string> told;
        std::vector<std::size_t> sizes;
        std::vector<bool> more;
        SyncAnchor anchor = since;
        for (int request = 0; request < 5 && (more.empty() || more.back()); ++request) {
            const auto batch = answer(follower, anchor);
            anchor = batch.anchor;
            told.merge(updatedNames(batch));
            EXPECT_TRUE(deletionsIn(batch).empty());
            sizes.push_back(batch.reports.size());
            more.push_back(batch.moreComing);
        }
        EXPECT_EQ(sizes, (std::vector<std::size_t>{200, 200, 50}));
        EXPECT_EQ(more, (std::vector<bool>{true, true, false}));
        EXPECT_EQ(told, created);
        EXPECT_TRUE(answer(follower, anchor).reports.empty());
        // The whole of it again for whoever still stands where it began.
        EXPECT_EQ(answer(follower, since).reports.size(), 200u);
    }
}

TEST_F(ChangesTest, Exactly200GiveAFullBatchAndAnEmptyOne) {
    make("folder");
    const auto container = identifierOf("folder");
    for (const int count : {199, 200, 201}) {
        SCOPED_TRACE(count);
        const SyncAnchor since = anchorOf(container);
        const auto created = writeMany("folder", count, std::to_string(count) + "-");
        waitUntilSettled();
        auto follower = follow(container);
        auto told = std::multiset<std::string>();
        const auto first = answer(follower, since);
        EXPECT_EQ(first.reports.size(), static_cast<std::size_t>(std::min(count, 200)));
        EXPECT_EQ(first.moreComing, count >= 200);
        told.merge(updatedNames(first));
        if (first.moreComing) {
            const auto second = answer(follower, first.anchor);
            EXPECT_EQ(second.reports.size(), static_cast<std::size_t>(count - 200));
            EXPECT_FALSE(second.moreComing);
            told.merge(updatedNames(second));
        }
        EXPECT_EQ(told, created);
    }
}

/// After the first batch more happens, to what was told and to what was not; nothing is lost and nothing is shifted.
TEST_F(ChangesTest, ABatchsAnchorIsGoodAfterMoreChangesAndAfterRestarts) {
    make("folder");
    const auto container = identifierOf("folder");
    const SyncAnchor since = anchorOf(container);
    const auto all = writeMany("folder", 450, "f");
    waitUntilSettled();
    ChangeBatch batch = answer(container, since);
    ASSERT_TRUE(batch.moreComing);
    ASSERT_EQ(batch.reports.size(), 200u);
    std::map<std::string, std::string> mirror;  // name by identifier, as a client keeps it
    std::multiset<std::string> told;
    const auto apply = [&](const ChangeBatch& next) {
        for (const auto& report : next.reports) {
            if (report.updated) {
                mirror[report.updated->itemIdentifier()] = report.updated->filename();
                told.insert(report.updated->filename());
            } else {
                EXPECT_EQ(mirror.erase(*report.deleted), 1u) << *report.deleted;
            }
        }
    };
    apply(batch);
    const Texts first(told.begin(), told.end());
    ASSERT_EQ(first.size(), 200u);

    // Of those told: 20 are written again, 10 go, 10 are renamed. 30 are new, and of those not told 5 are written
    // again.
    for (int i = 0; i < 20; ++i) write("folder/" + first[static_cast<std::size_t>(i)], "again");
    for (int i = 20; i < 30; ++i) remove("folder/" + first[static_cast<std::size_t>(i)]);
    for (int i = 30; i < 40; ++i) {
        const auto& name = first[static_cast<std::size_t>(i)];
        rename("folder/" + name, "folder/renamed-" + name);
    }
    writeMany("folder", 30, "new");
    Texts rest;
    for (const auto& name : all) {
        if (!std::ranges::count(first, name)) rest.push_back(name);
    }
    ASSERT_EQ(rest.size(), 250u);
    for (std::size_t i = 0; i < 5; ++i) write("folder/" + rest[i], "again");
    waitUntilSettled();
    restart();

    const auto second = answer(container, batch.anchor);
    EXPECT_EQ(second.reports.size(), 200u);
    EXPECT_TRUE(second.moreComing);
    restart();
    // The same anchor a second time is the same place; what was written again meanwhile may come later.
    const auto withoutWrittenAgain = [&](const ChangeBatch& next) {
        Texts names;
        for (const auto& report : next.reports) {
            if (!report.updated) continue;
            const auto& name = report.updated->filename();
            if (std::find(rest.begin(), rest.begin() + 5, name) == rest.begin() + 5) names.push_back(name);
        }
        names.resize(std::min<std::size_t>(names.size(), 190));
        return names;
    };
    const auto again = answer(container, batch.anchor);
    EXPECT_EQ(withoutWrittenAgain(again), withoutWrittenAgain(second));
    apply(second);
    batch = second;
    write("folder/last");
    waitUntilSettled();
    for (int request = 0; request < 5 && batch.moreComing; ++request) {
        restart();
        batch = answer(container, batch.anchor);
        apply(batch);
    }
    EXPECT_FALSE(batch.moreComing);

    for (std::size_t i = 5; i < rest.size(); ++i) EXPECT_EQ(told.count(rest[i]), 1u) << rest[i];
    for (std::size_t i = 40; i < first.size(); ++i) EXPECT_EQ(told.count(first[i]), 1u) << first[i];
    for (int i = 0; i < 30; ++i) EXPECT_EQ(told.count("new" + std::to_string(i)), 1u) << i;
    std::map<std::string, std::string> listed;
    const auto items = listContainer(*provider_, container, {});
    ASSERT_TRUE(items);
    for (const auto& item : *items) listed[item.item->itemIdentifier()] = item.item->filename();
    EXPECT_EQ(listed.size(), 471u);
    EXPECT_EQ(mirror, listed);
}

TEST_F(ChangesTest, AnAnchorFromBeforeARestartIsGood) {
    make("folder");
    write("folder/kept");
    write("folder/gone");
    for (const auto& container : {identifierOf("folder"), kRootContainer, kAllDirectoriesContainer}) {
        SCOPED_TRACE(container);
        const SyncAnchor since = anchorOf(container);
        const std::string name = "sub" + container.substr(0, 1);
        restart();
        make("folder/" + name);
        const auto batch = answer(container, since);
        EXPECT_TRUE(updatedNames(batch).contains(name)) << ::testing::PrintToString(updatedNames(batch));
        EXPECT_FALSE(batch.moreComing);
    }
    const auto container = identifierOf("folder");
    const auto gone = identifierOf("folder/gone");
    const SyncAnchor since = anchorOf(container);
    close();
    remove("folder/gone");
    device_.restart();
    open();
    EXPECT_EQ(deletionsIn(answer(container, since)), Texts{gone});
}

TEST_F(ChangesTest, AnAnchorOfAnotherStoreExpires) {
    testing::TestDevice other;
    for (const auto& container : {kRootContainer, kWorkingSetContainer}) {
        const SyncAnchor since = anchorOf(container);
        auto token = fs::ChangeToken::decode(since);
        ASSERT_TRUE(token);
        ASSERT_EQ(token->deviceUUID, device_.store().uuid());
        ASSERT_NE(other.store().uuid(), device_.store().uuid());
        token->deviceUUID = other.store().uuid();
        EXPECT_TRUE(isExpired(ask(container, token->encode())));
        EXPECT_TRUE(ask(container, since));
    }
}

TEST_F(ChangesTest, AnAnchorOfTheFutureExpires) {
    make("folder");
    for (const auto& container : {kRootContainer, identifierOf("folder")}) {
        auto token = fs::ChangeToken::decode(anchorOf(container));
        ASSERT_TRUE(token);
        for (const std::uint64_t further : {1ull, 1000ull, 1ull << 40}) {
            auto future = *token;
            future.streamEventID = EventID{raw(token->streamEventID) + further};
            EXPECT_TRUE(isExpired(ask(container, future.encode()))) << further;
        }
        auto last = *token;
        last.streamEventID = EventID{~0ull};
        EXPECT_TRUE(isExpired(ask(container, last.encode())));
        EXPECT_TRUE(ask(container, token->encode()));
    }
}

TEST_F(ChangesTest, AnAnchorOfALostRangeExpires) {
    make("folder");
    write("folder/a");
    const auto container = identifierOf("folder");
    const SyncAnchor since = anchorOf(container);
    const auto lost = raw(fs::ChangeToken::decode(since)->streamEventID);
    write("folder/b");
    write("folder/c");
    const SyncAnchor later = anchorOf(container);
    ASSERT_GT(raw(fs::ChangeToken::decode(later)->streamEventID), lost);
    {
        store::Session session(device_.store());
        session.write();
        session.journal().addLostRange(lost - 1, lost + 1);
        ASSERT_TRUE(session.commit());
    }
    EXPECT_TRUE(isExpired(ask(container, since)));
    EXPECT_TRUE(isExpired(ask(kRootContainer, since)));
    EXPECT_TRUE(ask(container, later));
}

TEST_F(ChangesTest, EachFlippedByteExpiresOrIsAnotherToken) {
    make("folder");
    write("folder/a");
    for (const auto& container : {kRootContainer, identifierOf("folder")}) {
        SCOPED_TRACE(container);
        const SyncAnchor since = anchorOf(container);
        const auto good = fs::ChangeToken::decode(since);
        ASSERT_TRUE(good);
        auto follower = follow(container);
        std::size_t expired = 0;
        for (std::size_t at = 0; at < since.size(); ++at) {
            for (const unsigned flip : {0x01u, 0x10u, 0x80u, 0xFFu}) {
                SCOPED_TRACE("byte " + std::to_string(at) + " flipped by " + std::to_string(flip));
                SyncAnchor damaged = since;
                damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ flip);
                const auto batch = follower.changesSince(damaged);
                const auto token = fs::ChangeToken::decode(damaged);
                if (!batch) {
                    EXPECT_TRUE(isExpired(batch)) << describe(batch.error());
                    ++expired;
                    continue;
                }
                ASSERT_TRUE(token);
                EXPECT_EQ(token->deviceUUID, good->deviceUUID);
                EXPECT_LE(raw(token->streamEventID), raw(good->streamEventID));
                EXPECT_EQ(token->offset, 0u);
                if (container == kRootContainer) {
                    EXPECT_EQ(token->appLibraryVersionToken, 0u);
                }
                const auto next = fs::ChangeToken::decode(batch->anchor);
                ASSERT_TRUE(next);
                EXPECT_EQ(next->deviceUUID, good->deviceUUID);
            }
        }
        EXPECT_GT(expired, since.size());
        EXPECT_TRUE(follower.changesSince(since));
    }
}

TEST_F(ChangesTest, AnAnchorThatIsNoTokenExpires) {
    for (const auto& anchor : {SyncAnchor(), SyncAnchor(48, 0), SyncAnchor{1, 2, 3}}) {
        EXPECT_TRUE(isExpired(ask(kRootContainer, anchor)));
    }
}

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

/// Every kind of write in turn, each followed by a request at once.
void ChangesTest::writeAndAskAgain(int rounds) {
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

TEST_F(ChangesTest, AWriteThatReturnedIsInTheReplyByComparing) { writeAndAskAgain(2000); }

TEST_F(ChangesTest, AWriteThatReturnedIsInTheReplyByTheKernelsHints) {
    watch();
    ASSERT_TRUE(device_.liveStatus());
    writeAndAskAgain(10'000);
    EXPECT_TRUE(device_.liveStatus());
}

/// An editor that puts the old file aside and writes a new one under its name.
void ChangesTest::keepDocumentThroughSafeSave(Look look) {
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

TEST_F(ChangesTest, ASafeSaveKeepsItsDocumentByComparing) { keepDocumentThroughSafeSave(Look::afterwards); }

TEST_F(ChangesTest, ASafeSaveKeepsItsDocumentThoughALookComesBetweenItsSteps) {
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

/// A provider whose enumerators answer requests for changes with one script: deletions, then an anchor or an error.
class ScriptedProvider : public hostframework::ProviderExtension {
public:
    struct Answer {
        Texts deletions;
        Result<SyncAnchor> finish = SyncAnchor{1};
    };
    std::vector<Answer> script;
    int enumerators = 0, invalidations = 0;

    Result<hostframework::ProviderItemPtr> itemForIdentifier(const ItemIdentifier& identifier) override {
        return failure(hostframework::noSuchItem(identifier));
    }
    std::optional<URL> URLForItemWithPersistentIdentifier(const ItemIdentifier&) override { return std::nullopt; }
    std::optional<ItemIdentifier> persistentIdentifierForItemAtURL(const URL&) override { return std::nullopt; }
    void providePlaceholderAtURL(const URL&, const hostframework::Completion&) override {}
    void startProvidingItemAtURL(const URL&, const hostframework::Completion&) override {}
    void stopProvidingItemAtURL(const URL&) override {}
    void itemChangedAtURL(const URL&) override {}
    Result<std::shared_ptr<hostframework::ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const ItemIdentifier&) override {
        ++enumerators;
        return std::make_shared<Enumerator>(*this);
    }

private:
    class Enumerator : public hostframework::ProviderEnumerator {
    public:
        explicit Enumerator(ScriptedProvider& provider) : provider_(provider) {}
        void enumerateItemsForObserver(const std::shared_ptr<hostframework::EnumerationObserver>&,
                                       const hostframework::EnumerationPage&) override {}
        void enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                         const SyncAnchor&) override {
            ASSERT_FALSE(provider_.script.empty()) << "asked once more than the script has answers";
            const Answer answer = provider_.script.front();
            provider_.script.erase(provider_.script.begin());
            observer->didDeleteItemsWithIdentifiers(answer.deletions);
            if (answer.finish) {
                observer->finishEnumeratingChangesUpToSyncAnchor(*answer.finish, true);
            } else {
                observer->finishEnumeratingWithError(answer.finish.error());
            }
            // Whatever comes after a finish is nobody's business any more.
            observer->didDeleteItemsWithIdentifiers({"late"});
            observer->finishEnumeratingChangesUpToSyncAnchor({9}, false);
            observer->finishEnumeratingWithError(posixError(EIO));
        }
        void currentSyncAnchorWithCompletionHandler(
            const std::function<void(const std::optional<SyncAnchor>&)>&) override {}
        void invalidate() override { ++provider_.invalidations; }

    private:
        ScriptedProvider& provider_;
    };
};

TEST(ChangeFollower, KeepsWhatCameBeforeTheFinish) {
    ScriptedProvider provider;
    provider.script = {{{"a", "b"}}, {{}, SyncAnchor{2}}, {{"c"}, failure(posixError(EIO))}};
    {
        auto follower = ChangeFollower::create(provider, "c");
        ASSERT_TRUE(follower);
        const auto first = follower->changesSince({0});
        ASSERT_TRUE(first);
        EXPECT_EQ(deletionsIn(*first), (Texts{"a", "b"}));
        EXPECT_EQ(first->anchor, SyncAnchor{1});
        EXPECT_TRUE(first->moreComing);
        const auto second = follower->changesSince(first->anchor);
        ASSERT_TRUE(second);
        EXPECT_TRUE(second->reports.empty());
        EXPECT_EQ(second->anchor, SyncAnchor{2});
        const auto third = follower->changesSince(second->anchor);
        ASSERT_FALSE(third);
        EXPECT_TRUE(third.error().is(ErrorDomain::posix, EIO));
        EXPECT_EQ(provider.enumerators, 1);
        EXPECT_EQ(provider.invalidations, 0);
    }
    EXPECT_EQ(provider.invalidations, 1);
}

TEST(ChangeFollower, AsksAgainOnceForAFolderThatIsElsewhere) {
    const auto elsewhere = items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID);
    ScriptedProvider provider;
    provider.script = {{{"a"}, failure(elsewhere)}, {{"b"}}, {{}, failure(elsewhere)}, {{}, failure(elsewhere)}};
    {
        auto follower = ChangeFollower::create(provider, "c");
        ASSERT_TRUE(follower);
        const auto batch = follower->changesSince({0});
        ASSERT_TRUE(batch);
        EXPECT_EQ(deletionsIn(*batch), Texts{"b"});
        EXPECT_EQ(provider.enumerators, 2);
        const auto gone = follower->changesSince({0});
        ASSERT_FALSE(gone);
        EXPECT_EQ(gone.error(), elsewhere);
        EXPECT_EQ(provider.enumerators, 3);
        EXPECT_TRUE(provider.script.empty());
    }
    EXPECT_EQ(provider.invalidations, 3);
}

TEST_F(ChangesTest, AContainerThatIsNotThereCannotBeFollowed) {
    for (const char* container : {"fid=123456789", "no such", ""}) {
        EXPECT_FALSE(ChangeFollower::create(*provider_, container)) << container;
    }
}

}  // namespace
}  // namespace tarnwell::host
