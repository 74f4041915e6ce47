// What stands in a store after the power failed at any of its writes.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/store/Store.h"
#include "testing/LongRun.h"
#include "testing/Sanitized.h"
#include "testing/TemporaryDirectory.h"
#include "tests/store/RecordingDisk.h"

namespace tarnwell::store {
namespace {

constexpr std::uint64_t kCommits = 120, kRowsInEach = 30;

std::unique_ptr<Store> openStore(const std::string& directory) {
    StoreOptions options;
    options.directory = directory;
    auto store = Store::open(options);
    EXPECT_TRUE(store) << describe(store.error());
    return store ? std::move(*store) : nullptr;
}

/// What a reader outside had been told when a commit had returned.
struct Told {
    std::size_t steps = 0;
    std::uint64_t event = 0;
    std::uint64_t document = 0, freshFile = 0, position = 0;
};

/// Each commit makes a row that is named by its number, changes what earlier ones made, and now and then a quiet moment
/// comes.
std::vector<Told> work(Store& store, const RecordingDisk& disk, std::mt19937_64& random) {
    std::vector<Told> told;
    std::vector<FileID> files;
    Told last;
    for (std::uint64_t commit = 0; commit < kCommits; ++commit) {
        Session session(store);
        session.write();
        for (std::uint64_t i = 0; i < kRowsInEach; ++i) {
            ObjectRow row;
            // Every third comes with an inode number that was used before, and is given a fresh number.
            row.identity = {1, 1'000 + (i % 3 == 0 ? i : commit * kRowsInEach + i), static_cast<std::int64_t>(commit)};
            row.documentID = session.numbers().nextDocument();
            row.parent = 2 + random() % 7;
            row.name = std::to_string(commit) + (i == 0 ? std::string() : " and " + std::to_string(i));
            row.kind = FileKind::regular;
            session.journal().recordChange(row, kChangeCreated);
            session.index().insert(row);
            files.push_back(row.fileID);
            last.document = raw(*row.documentID);
            if (raw(row.fileID) >= Numbers::kFirstFreshFileID) last.freshFile = raw(row.fileID);
            last.position = row.position;
            last.event = row.event;
        }
        for (int i = 0; i < 40; ++i) {
            auto row = *session.index().byFileID(files[random() % files.size()]);
            row.size = random();
            if (random() % 4 == 0) row.name += "'";
            session.journal().recordChange(row, kChangeModified);
            session.index().update(row);
            last.event = row.event;
        }
        EXPECT_TRUE(session.commit());
        last.steps = disk.steps();
        told.push_back(last);
        if (random() % 10 == 0) store.tidy();
    }
    return told;
}

TEST(PowerCut, LeavesAStoreThatHoldsWhatItPromised) {
    std::mt19937_64 random(testing::chooseSeed("PowerCut"));
    const testing::TemporaryDirectory directory;
    RecordingDisk disk;
    const std::string original = directory.path("state");
    auto store = openStore(original);
    ASSERT_NE(store, nullptr);
    const auto told = work(*store, disk, random);
    const std::size_t beforeClosing = disk.steps();
    store.reset();
    ASSERT_GT(disk.steps(), beforeClosing);

    const int cuts = testing::kIsSanitized ? 40 : 400;
    std::size_t lostSomething = 0, lostNothing = 0;
    for (int cut = 0; cut < cuts && !HasFailure(); ++cut) {
        // Every tenth while it is closed.
        const std::size_t steps = cut % 10 == 0 ? beforeClosing + random() % (disk.steps() - beforeClosing + 1)
                                                : random() % (beforeClosing + 1);
        SCOPED_TRACE("cut " + std::to_string(cut) + " after " + std::to_string(steps) + " steps of " +
                     std::to_string(disk.steps()));
        const std::string copy = directory.path("cut");
        std::filesystem::remove_all(copy);
        std::filesystem::create_directory(copy);
        for (const auto& [path, content] : disk.afterPowerCut(steps, random)) {
            testing::writeFile(copy + path.substr(original.size()), content);
        }
        const auto after = openStore(copy);
        ASSERT_NE(after, nullptr);
        // While it was being made, half a database may be found, and is put aside for a new one.
        if (steps >= told.front().steps) {
            EXPECT_EQ(after->origin(), StoreOrigin::reopened);
        }

        // The last that anybody had been told, and what must not be told of anything else ever.
        Told known;
        std::size_t returned = 0;
        for (const Told& each : told) {
            if (each.steps > steps) break;
            known = each;
            ++returned;
        }
        Session session(*after);
        session.write();
        // Commits stand or fell from the end on, never one in between.
        std::size_t standing = 0;
        std::optional<ObjectRow> lastRow;
        for (std::uint64_t commit = 0; commit < kCommits; ++commit) {
            const auto row =
                session.index().byIdentity({1, 1'001 + commit * kRowsInEach, static_cast<std::int64_t>(commit)});
            if (!row) break;
            ++standing;
            lastRow = row;
        }
        for (std::uint64_t commit = standing; commit < kCommits; ++commit) {
            EXPECT_FALSE(
                session.index().byIdentity({1, 1'001 + commit * kRowsInEach, static_cast<std::int64_t>(commit)}));
        }
        EXPECT_LE(standing, returned + 1);
        (standing < returned ? lostSomething : lostNothing) += 1;

        EXPECT_GT(raw(session.numbers().nextEvent()), known.event);
        EXPECT_GT(raw(session.numbers().nextDocument()), known.document);
        EXPECT_GT(raw(session.numbers().nextFreshFile()), known.freshFile);
        EXPECT_GT(session.numbers().nextPosition(), known.position);
        // A position that was told is honoured if all up to it is there, and refused if not.
        for (std::size_t i = 0; i < returned; ++i) {
            EXPECT_EQ(session.journal().canReplayAfter(told[i].event), i < standing) << "commit " << i;
        }
        EXPECT_TRUE(session.commit());
    }
    std::printf("%zu cuts lost the latest commits, %zu none\n", lostSomething, lostNothing);
    EXPECT_GT(lostSomething, 0u);
    EXPECT_GT(lostNothing, 0u);
}

}  // namespace
}  // namespace tarnwell::store
