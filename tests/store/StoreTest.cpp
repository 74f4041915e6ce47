#include "platform/store/Store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "testing/CapturingLog.h"
#include "testing/Sanitized.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::store {
namespace {

using testing::TemporaryDirectory;

class StoreTest : public ::testing::Test {
protected:
    std::unique_ptr<Store> open(std::chrono::milliseconds patience = std::chrono::milliseconds(0)) {
        auto opened = tryOpen(patience);
        EXPECT_TRUE(opened.has_value()) << describe(opened.error());
        return opened ? std::move(*opened) : nullptr;
    }
    Result<std::unique_ptr<Store>> tryOpen(std::chrono::milliseconds patience = std::chrono::milliseconds(0)) {
        StoreOptions options;
        options.directory = directory_.path("state");
        options.patience = patience;
        options.log = &log_;
        return Store::open(options);
    }
    std::string databasePath() const { return directory_.path("state/index.sqlite"); }

    TemporaryDirectory directory_;
    testing::CapturingLog log_;
};

ObjectRow rowNamed(const std::string& name, std::uint64_t inode, std::int64_t birth = 1) {
    ObjectRow row;
    row.identity = {1, inode, birth};
    row.parent = 2;
    row.name = name;
    row.kind = FileKind::regular;
    return row;
}

FileID insert(Store& store, ObjectRow row) {
    Session session(store);
    session.write();
    session.journal().recordChange(row, kChangeCreated);
    session.index().insert(row);
    EXPECT_TRUE(session.commit().has_value());
    return row.fileID;
}

TEST_F(StoreTest, ItsIdentityStaysFromStartToStart) {
    auto store = open();
    UUID uuid = store->uuid();
    EXPECT_EQ(StoreOrigin::created, store->origin());
    store.reset();
    store = open();
    EXPECT_EQ(uuid, store->uuid());
    EXPECT_EQ(StoreOrigin::reopened, store->origin());
}

TEST_F(StoreTest, AFileIDIsTheInodeNumberOnlyTheFirstTime) {
    auto store = open();
    EXPECT_EQ(FileID{50}, insert(*store, rowNamed("a", 50, 1)));
    FileID second = insert(*store, rowNamed("b", 50, 2));
    EXPECT_GE(raw(second), Numbers::kFirstFreshFileID);
    EXPECT_GE(raw(insert(*store, rowNamed("zero", 0))), Numbers::kFirstFreshFileID);
    EXPECT_GE(raw(insert(*store, rowNamed("huge", ~std::uint64_t{0}))), Numbers::kFirstFreshFileID);
    {
        Session session(*store);
        session.write();
        session.index().setState(FileID{50}, ObjectState::gone);
        EXPECT_EQ(1u, session.index().purgeGone());
        ASSERT_TRUE(session.commit().has_value());
    }
    store.reset();
    store = open();
    EXPECT_GE(raw(insert(*store, rowNamed("c", 50, 3))), Numbers::kFirstFreshFileID);
}

TEST_F(StoreTest, WhatWasNotCommittedIsTakenBackAndItsNumbersAreNotGivenAgain) {
    auto store = open();
    EventID taken{};
    {
        Session session(*store);
        session.write();
        ObjectRow row = rowNamed("a", 50);
        session.journal().recordChange(row, kChangeCreated);
        taken = EventID{row.event};
        session.index().insert(row);
    }
    Session session(*store);
    EXPECT_FALSE(session.index().byFileID(FileID{50}).has_value());
    EXPECT_EQ(EventID{0}, store->lastEventID());
    session.write();
    ObjectRow row = rowNamed("a", 50);
    session.journal().recordChange(row, kChangeCreated);
    EXPECT_GT(row.event, raw(taken));
}

/// Runs `work` in a child; it ends with `die`, before any destructor has run.
[[noreturn]] void die() {
    kill(getpid(), SIGKILL);
    _exit(1);
}

void inKilledProcess(const std::function<void()>& work) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
}

TEST_F(StoreTest, AfterAKillCommittedRecordsStandAndNoNumberComesAgain) {
    std::set<std::uint64_t> events;
    std::set<std::uint32_t> documents;
    for (int round = 0; round < 5; ++round) {
        std::string report = directory_.path("report");
        inKilledProcess([&] {
            auto store = tryOpen();
            if (!store) return;
            Session session(**store);
            session.write();
            ObjectRow row = rowNamed("a" + std::to_string(round), static_cast<std::uint64_t>(100 + round));
            session.journal().recordChange(row, kChangeCreated);
            row.documentID = session.numbers().nextDocument();
            session.index().insert(row);
            auto committed = session.commit();
            // Taken, but never committed: nobody may get them again either.
            Session lost(**store);
            lost.write();
            lost.numbers().nextEvent();
            testing::writeFile(
                report, committed ? std::to_string(row.event) + " " + std::to_string(raw(*row.documentID)) : "failed");
            die();
        });
        std::string text = testing::readFile(report);
        unsigned long event = 0, document = 0;
        ASSERT_EQ(2, sscanf(text.c_str(), "%lu %lu", &event, &document)) << text;
        EXPECT_TRUE(events.insert(event).second) << event;
        EXPECT_TRUE(documents.insert(static_cast<std::uint32_t>(document)).second) << document;
        auto store = open();
        Session session(*store);
        auto row = session.index().byFileID(FileID{static_cast<std::uint64_t>(100 + round)});
        ASSERT_TRUE(row.has_value());
        EXPECT_EQ(event, row->event);
        EXPECT_TRUE(session.journal().canReplayAfter(event)) << "a committed position is honoured";
        EXPECT_FALSE(session.journal().canReplayAfter(event + 1)) << "a position that may have been lost is not";
        EXPECT_TRUE(session.journal().canReplayAfter(event - 1));
        EXPECT_TRUE(session.journal().canReplayAfter(raw(store->lastEventID())));
    }
}

TEST_F(StoreTest, AReservationThatASessionOutgrowsHolds) {
    std::uint64_t last = 0;
    std::string report = directory_.path("report");
    inKilledProcess([&] {
        auto store = tryOpen();
        if (!store) return;
        Session session(**store);
        session.write();
        std::uint64_t event = 0;
        for (int i = 0; i < 200'000; ++i) event = raw(session.numbers().nextEvent());
        testing::writeFile(report, session.commit() ? std::to_string(event) : "failed");
        die();
    });
    last = std::stoull(testing::readFile(report));
    EXPECT_EQ(200'000u, last);
    auto store = open();
    Session session(*store);
    session.write();
    EXPECT_GT(raw(session.numbers().nextEvent()), last);
}

TEST_F(StoreTest, ASecondOwnerIsToldWhoHoldsIt) {
    auto store = open();
    auto began = std::chrono::steady_clock::now();
    auto second = tryOpen(std::chrono::milliseconds(100));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(100));
    ASSERT_FALSE(second.has_value());
    EXPECT_TRUE(second.error().is(ErrorDomain::store, static_cast<std::int64_t>(StoreError::inUse)));
    std::string message = second.error().userInfo[kErrorMessage];
    EXPECT_NE(std::string::npos, message.find("process " + std::to_string(getpid()))) << message;
}

TEST_F(StoreTest, ASecondOwnerGetsItWhenTheFirstEnds) {
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    // Made before the store is open: a child made later would inherit the lock itself.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char byte = 0;
        bool told = read(gate[0], &byte, 1) == 1;
        _exit(told && tryOpen(std::chrono::seconds(20)).has_value() ? 0 : 1);
    }
    auto store = open();
    ASSERT_EQ(1, write(gate[1], "x", 1));
    store.reset();
    close(gate[0]);
    close(gate[1]);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(StoreTest, ADamagedDatabaseIsSetAsideAndSaidOnce) {
    UUID before;
    {
        auto store = open();
        before = store->uuid();
        insert(*store, rowNamed("a", 50));
    }
    std::string bytes = testing::readFile(databasePath());
    const std::vector<std::pair<const char*, std::string>> kDamages = {
        {"no database", "this is no database at all, just a few words that stand in its place"},
        {"cut in the middle", bytes.substr(0, bytes.size() / 2 + 100)},
        {"zeroes in its pages", bytes.substr(0, 4096) + std::string(bytes.size() - 4096, '\0')},
    };
    for (const auto& [title, damaged] : kDamages) {
        std::filesystem::remove_all(directory_.path("state"));
        std::filesystem::create_directory(directory_.path("state"));
        testing::writeFile(databasePath(), damaged);
        log_.clear();
        auto store = open();
        ASSERT_NE(nullptr, store) << title;
        EXPECT_EQ(StoreOrigin::recoveredAfterDamage, store->origin()) << title;
        EXPECT_NE(before, store->uuid()) << title;
        EXPECT_EQ(1u, log_.lines().size()) << title;
        int kept = 0;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path("state"))) {
            kept += entry.path().filename().string().starts_with("index.sqlite.damaged-") ? 1 : 0;
        }
        EXPECT_EQ(1, kept) << title;
        insert(*store, rowNamed("b", 51));
        store.reset();
        log_.clear();
        EXPECT_EQ(StoreOrigin::reopened, open()->origin()) << title;
        EXPECT_TRUE(log_.lines().empty()) << title;
    }
}

/// What it says of its objects, or nothing where it says that it is damaged.
std::optional<std::string> accountOf(Store& store) {
    std::string account;
    Session session(store);
    for (const EntryRow& entry : session.index().children(FileID{2}, 0, 100)) {
        const auto row = session.index().byIdentity(entry.identity);
        if (!row) continue;
        for (const std::uint64_t number : {raw(row->fileID), row->identity.inode, row->position, row->size, row->event,
                                           static_cast<std::uint64_t>(row->modified)}) {
            account += std::to_string(number) + ' ';
        }
        account += row->name + '\n';
    }
    for (const auto& record : session.journal().recordsAfter(0, 100, false)) {
        account += std::to_string(record.event) + ' ';
    }
    account += std::to_string(raw(store.lastEventID()));
    return session.check() ? std::optional(account) : std::nullopt;
}

TEST_F(StoreTest, AFlippedBitIsToldOrChangesNothing) {
    std::string account;
    {
        auto store = open();
        for (std::uint64_t i = 0; i < 20; ++i) insert(*store, rowNamed("n" + std::to_string(i), 50 + i));
        account = *accountOf(*store);
    }
    const std::string bytes = testing::readFile(databasePath());
    std::size_t told = 0, looks = 0;
    for (std::size_t at = 0; at < bytes.size(); at += testing::kIsSanitized ? 1987 : 149) {
        std::filesystem::remove_all(directory_.path("state"));
        std::filesystem::create_directory(directory_.path("state"));
        std::string damaged = bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ (1 << at % 8));
        testing::writeFile(databasePath(), damaged);
        auto opened = tryOpen();
        ++looks;
        if (!opened) {
            // The header says in which version it was made, before the page is read as a whole.
            EXPECT_LT(at, 100u) << describe(opened.error());
            ++told;
        } else if ((*opened)->origin() == StoreOrigin::recoveredAfterDamage) {
            ++told;
        } else if (const auto found = accountOf(**opened)) {
            EXPECT_EQ(*found, account) << "with another byte at " << at;
        } else {
            ++told;
        }
    }
    // Pages that nothing uses any more are not read.
    EXPECT_GT(told * 10, looks * 9);
}

/// As SQLite makes a database by itself.
void copyWithoutChecksums(const std::string& from, const std::string& to) {
    sqlite3* plain = nullptr;
    ASSERT_EQ(sqlite3_open(to.c_str(), &plain), SQLITE_OK);
    const auto run = [&](const std::string& sql) {
        EXPECT_EQ(sqlite3_exec(plain, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(plain);
    };
    run("ATTACH '" + from + "' AS old");
    sqlite3_stmt* made = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(
                  plain, "SELECT sql, type, name FROM old.sqlite_master WHERE sql IS NOT NULL ORDER BY type DESC", -1,
                  &made, nullptr),
              SQLITE_OK);
    const auto text = [&](int column) {
        return std::string(reinterpret_cast<const char*>(sqlite3_column_text(made, column)));
    };
    while (sqlite3_step(made) == SQLITE_ROW) {
        run(text(0));
        if (text(1) == "table") run("INSERT INTO main." + text(2) + " SELECT * FROM old." + text(2));
    }
    sqlite3_finalize(made);
    run("PRAGMA user_version=1");
    sqlite3_close(plain);
}

TEST_F(StoreTest, AStoreFromBeforeChecksumsGoesOn) {
    const auto file = insert(*open(), rowNamed("older", 50));
    {
        const std::string copy = directory_.path("copy.sqlite");
        copyWithoutChecksums(databasePath(), copy);
        std::filesystem::rename(copy, databasePath());
        ASSERT_EQ(testing::readFile(databasePath())[20], 0);
    }
    auto store = open();
    EXPECT_EQ(store->origin(), StoreOrigin::reopened);
    (void)insert(*store, rowNamed("newer", 51));
    store.reset();
    store = open();
    Session session(*store);
    EXPECT_EQ(session.index().byFileID(file)->name, "older");
    EXPECT_EQ(session.index().children(FileID{2}, 0, 10).size(), 2u);
}

TEST_F(StoreTest, ANewerVersionIsLeftAlone) {
    open();
    {
        auto database = Database::open(databasePath());
        ASSERT_TRUE(database.has_value());
        (*database)->execute("PRAGMA user_version=99");
    }
    auto opened = tryOpen();
    ASSERT_FALSE(opened.has_value());
    EXPECT_TRUE(opened.error().is(ErrorDomain::store, static_cast<std::int64_t>(StoreError::unusable)));
    EXPECT_TRUE(std::filesystem::exists(databasePath()));
}

TEST_F(StoreTest, AFolderThatCannotBeWrittenIsSaidPlainly) {
    testing::writeFile(directory_.path("state"), "a file where the folder should be");
    auto opened = tryOpen();
    ASSERT_FALSE(opened.has_value());
    EXPECT_NE(std::string::npos, describe(opened.error()).find("the store's folder")) << describe(opened.error());
}

TEST_F(StoreTest, OneDepartureForEachObjectAndFolderTheLastOne) {
    auto store = open();
    Session session(*store);
    session.write();
    session.journal().recordDeparture(FileID{5}, DocumentID{1}, 2, "/r/a");
    session.journal().recordDeparture(FileID{5}, DocumentID{1}, 3, "/r/sub/a");
    session.journal().recordDeparture(FileID{5}, DocumentID{1}, 2, "/r/b");
    auto records = session.journal().recordsAfter(0, 10, true);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("/r/sub/a", records[0].departure->path);
    EXPECT_EQ("/r/b", records[1].departure->path);
}

}  // namespace
}  // namespace tarnwell::store
