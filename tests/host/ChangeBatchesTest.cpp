#include "tests/host/ChangesFixture.h"

namespace tarnwell::host {
namespace {

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

}  // namespace
}  // namespace tarnwell::host
