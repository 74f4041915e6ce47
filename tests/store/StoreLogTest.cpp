// What is written ahead of the database file itself, and when it is brought to its place.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <thread>

#include "platform/store/Store.h"
#include "tests/store/StoreFixture.h"

namespace tarnwell::store {
namespace {

constexpr std::uint64_t kPageBytes = 4096, kFolders = 600, kFilesInEach = 20;

class StoreLogTest : public StoreFixture {
protected:
    /// So many files in folders of their own, far from each other in every index.
    void fill() {
        Session session(*store_);
        session.write();
        for (std::uint64_t folder = 0; folder < kFolders; ++folder) {
            for (std::uint64_t file = 0; file < kFilesInEach; ++file) {
                ObjectRow row;
                row.identity = {1, 1'000 + file * kFolders + folder, static_cast<std::int64_t>(file)};
                row.documentID = session.numbers().nextDocument();
                row.parent = 10 + folder;
                row.name = "a file with a name that takes a place " + std::to_string(file);
                row.kind = FileKind::regular;
                session.index().insert(row);
            }
        }
        ASSERT_TRUE(session.commit());
    }
    static ObjectRow rowOf(Session& session, std::uint64_t folder) {
        return *session.index().byIdentity({1, 1'000 + 3 * kFolders + folder, 3});
    }
    std::uint64_t bytesAhead() const {
        return std::filesystem::file_size(directory_.path("state/index.sqlite") + "-wal");
    }
    std::uint64_t bytes() const { return std::filesystem::file_size(directory_.path("state/index.sqlite")); }
};

TEST_F(StoreLogTest, AFileThatWasWrittenToTouchesNoIndexButTheEvents) {
    fill();
    open();
    {
        Session session(*store_);
        session.write();
        for (std::uint64_t folder = 0; folder < kFolders; folder += 4) {
            ObjectRow row = rowOf(session, folder);
            row.size = 5;
            row.modified = 6;
            row.changed = 7;
            row.listed = 8;
            row.entries = 9;
            session.journal().recordChange(row, kChangeModified);
            session.index().update(row);
        }
        ASSERT_TRUE(session.commit());
    }
    // Each row is on a page of its own; those of the events, of the counters and of the way there come to it.
    EXPECT_LT(bytesAhead(), (kFolders / 4 * 3 / 2 + 20) * kPageBytes);
    Session session(*store_);
    const ObjectRow row = rowOf(session, 8);
    EXPECT_EQ(row.size, 5u);
    EXPECT_EQ(row.modified, 6);
    EXPECT_EQ(row.changed, 7);
    EXPECT_EQ(row.listed, 8);
    EXPECT_EQ(row.entries, 9u);
    EXPECT_EQ(row.change, kChangeModified);
    EXPECT_GT(row.event, 0u);
    EXPECT_EQ(session.journal().recordsAfter(row.event - 1, 1, false).at(0).changed, row.fileID);
}

TEST_F(StoreLogTest, EachOtherColumnIsWrittenAsWell) {
    fill();
    Session session(*store_);
    session.write();
    const auto change = [&](std::uint64_t folder, const std::function<void(ObjectRow&)>& how) {
        ObjectRow row = rowOf(session, folder);
        how(row);
        session.index().update(row);
        return *session.index().byFileID(row.fileID);
    };
    EXPECT_EQ(change(0, [](ObjectRow& row) { row.name = "another"; }).name, "another");
    EXPECT_EQ(change(1, [](ObjectRow& row) { row.parent = 500; }).parent, 500u);
    EXPECT_EQ(change(2, [](ObjectRow& row) { row.position = 1 << 20; }).position, 1u << 20);
    EXPECT_EQ(change(3, [](ObjectRow& row) { row.state = ObjectState::gone; }).state, ObjectState::gone);
    EXPECT_EQ(change(4, [](ObjectRow& row) { row.visible = !row.visible; }).visible, !ObjectRow().visible);
    EXPECT_EQ(change(5, [](ObjectRow& row) { row.documentID.reset(); }).documentID, std::nullopt);
    EXPECT_EQ(change(5, [](ObjectRow& row) { row.documentID = DocumentID{90'000}; }).documentID, DocumentID{90'000});
    EXPECT_EQ(change(6, [](ObjectRow& row) { row.identity.fileSystem = 2; }).identity.fileSystem, 2u);
    EXPECT_EQ(change(7, [](ObjectRow& row) { row.identity.inode = 7; }).identity.inode, 7u);
    EXPECT_EQ(change(8, [](ObjectRow& row) { row.identity.birth = 8; }).identity.birth, 8);
    EXPECT_EQ(change(9, [](ObjectRow& row) { row.kind = FileKind::directory; }).kind, FileKind::directory);
    ASSERT_TRUE(session.commit());
}

TEST_F(StoreLogTest, AFolderThatMovesIsFoundWhereItIsThoughItWasOnlyWrittenToBefore) {
    fill();
    Session session(*store_);
    session.write();
    ObjectRow row = rowOf(session, 1);
    EXPECT_EQ(session.index().folderNode(raw(row.fileID))->parent, 11u);
    row.changed = 5;
    session.index().update(row);
    EXPECT_EQ(session.index().folderNode(raw(row.fileID))->parent, 11u);
    row.parent = 12;
    session.index().update(row);
    EXPECT_EQ(session.index().folderNode(raw(row.fileID))->parent, 12u);
    ASSERT_TRUE(session.commit());
}

TEST_F(StoreLogTest, MuchIsBroughtToItsPlaceInAQuietMoment) {
    const std::uint64_t before = bytes();
    fill();
    ASSERT_GT(bytesAhead(), 500 * kPageBytes);
    {
        // Somebody is at it: not now.
        const Session session(*store_);
        std::thread([&] { store_->tidy(); }).join();
    }
    EXPECT_EQ(bytes(), before);
    store_->tidy();
    EXPECT_GT(bytes(), before + 400 * kPageBytes);
    // What comes next begins at the log's beginning.
    const std::uint64_t ahead = bytesAhead();
    {
        Session session(*store_);
        session.write();
        ObjectRow row = rowOf(session, 1);
        row.size = 77;
        session.index().update(row);
        ASSERT_TRUE(session.commit());
    }
    EXPECT_EQ(bytesAhead(), ahead);
    open();
    Session session(*store_);
    EXPECT_EQ(rowOf(session, 1).size, 77u);
}

TEST_F(StoreLogTest, WithoutOneTheLogDoesNotGrowForEver) {
    fill();
    for (std::int64_t round = 1; round <= 60; ++round) {
        Session session(*store_);
        session.write();
        for (std::uint64_t folder = 0; folder < kFolders; ++folder) {
            ObjectRow row = rowOf(session, folder);
            row.changed = round;
            session.index().update(row);
        }
        ASSERT_TRUE(session.commit());
    }
    EXPECT_LT(bytesAhead(), std::uint64_t{16} << 20);
    EXPECT_GT(bytesAhead(), std::uint64_t{4} << 20);
}

}  // namespace
}  // namespace tarnwell::store
