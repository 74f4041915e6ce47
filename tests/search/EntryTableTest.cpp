#include "platform/search/EntryTable.h"

#include <gtest/gtest.h>

#include <random>

#include "testing/TemporaryDirectory.h"

namespace tarnwell::search {
namespace {

using Texts = std::vector<std::string>;

bool isDamage(const Error& error) {
    return error.is(ErrorDomain::store, static_cast<std::int64_t>(store::StoreError::damaged));
}

class EntryTableTest : public ::testing::Test {
protected:
    std::unique_ptr<EntryTable> open(const std::string& origin = "origin") const {
        auto table = EntryTable::open(path_, origin);
        if (!table) ADD_FAILURE() << describe(table.error());
        return table ? std::move(*table) : nullptr;
    }
    static Entry entry(const std::string& key, const std::string& parent, bool isFolder = false) {
        Entry made;
        made.key = key;
        made.parent = parent;
        made.name = "name of " + key;
        made.type = "text/plain";
        made.isFolder = isFolder;
        return made;
    }
    static void commit(EntryTable& table) {
        const auto committed = table.commit();
        ASSERT_TRUE(committed) << describe(committed.error());
    }
    static void fill(EntryTable& table, int count) {
        table.begin();
        for (int i = 0; i < count; ++i) table.put(entry("k" + std::to_string(i), "top"));
        commit(table);
    }

    testing::TemporaryDirectory directory_;
    const std::string path_ = directory_.path("search.sqlite");
};

TEST_F(EntryTableTest, KeepsWhatWasCommitted) {
    Texts lines;
    {
        auto table = open();
        table->begin();
        Entry full = entry("a", "top", true);
        full.tags = {"red", "blue"};
        full.created = Date(std::chrono::nanoseconds(-5));
        full.size = ~std::uint64_t{0};
        full.own.domain = "d";
        table->put(full);
        table->setFact("anchor", std::string("\0\x01", 2));
        commit(*table);
        lines = table->lines();
        table->begin();
        table->put(entry("b", "a"));
        table->setFact("anchor", "later");
        table->rollBack();
    }
    auto table = open();
    EXPECT_EQ(table->count(), 1u);
    EXPECT_EQ(table->lines(), lines);
    EXPECT_EQ(table->fact("anchor"), std::string("\0\x01", 2));
    EXPECT_FALSE(table->fact("other"));
}

TEST_F(EntryTableTest, AnEntryGoesWithEverythingBelowIt) {
    auto table = open();
    table->begin();
    table->put(entry("f", "top", true));
    table->put(entry("g", "f", true));
    table->put(entry("x", "g"));
    table->put(entry("y", "top"));
    // Two that stand in each other, as they may between two reports of a move.
    table->put(entry("p", "q", true));
    table->put(entry("q", "p", true));
    table->remove("f");
    commit(*table);
    EXPECT_FALSE(table->has("x"));
    EXPECT_EQ(table->count(), 3u);
    table->begin();
    table->remove("p");
    table->remove("unknown");
    commit(*table);
    EXPECT_EQ(table->count(), 1u);
}

TEST_F(EntryTableTest, WhatLiesBelowAFolderThatMovedHasWhatItsNewPlaceGives) {
    auto table = open();
    table->begin();
    Entry folder = entry("f", "one", true);
    folder.own.domain = folder.below.domain = "one";
    table->put(folder);
    Entry inner = entry("g", "f", true), file = entry("x", "g");
    inner.own.domain = inner.below.domain = file.own.domain = "one";
    table->put(inner);
    table->put(file);
    folder.own = folder.below = {"two", true};
    folder.parent = "two";
    table->put(folder);
    table->removeDomain("one");
    commit(*table);
    EXPECT_EQ(table->count(), 3u);
    EXPECT_NE(table->lines().back().find("\"two\" \"1\""), std::string::npos) << table->lines().back();
    table->begin();
    table->removeDomain("two");
    commit(*table);
    EXPECT_EQ(table->count(), 0u);
}

TEST_F(EntryTableTest, ASweepTakesWhatWasNotPutInItsRound) {
    {
        auto table = open();
        fill(*table, 3);
    }
    auto table = open();
    table->begin();
    table->beginRound();
    table->put(entry("k1", "top"));
    table->sweep();
    commit(*table);
    EXPECT_EQ(table->count(), 1u);
    EXPECT_TRUE(table->has("k1"));
}

TEST_F(EntryTableTest, AFileOfAnotherOriginVersionOrKindIsDamaged) {
    open();
    auto other = EntryTable::open(path_, "another");
    ASSERT_FALSE(other);
    EXPECT_TRUE(isDamage(other.error()));

    testing::writeFile(path_, "this is no database");
    other = EntryTable::open(path_, "origin");
    ASSERT_FALSE(other);
    EXPECT_TRUE(isDamage(other.error()));

    for (const char* sql : {"PRAGMA user_version=9", "CREATE TABLE entry(a)"}) {
        const std::string path = directory_.path(std::string("other") + sql[0]);
        {
            auto database = store::Database::open(path);
            (*database)->execute(sql);
        }
        other = EntryTable::open(path, "origin");
        ASSERT_FALSE(other);
        EXPECT_TRUE(isDamage(other.error())) << describe(other.error());
    }
}

TEST_F(EntryTableTest, ADamagedFileIsFoundOutOrReadButNeverHarms) {
    {
        auto table = open();
        fill(*table, 300);
    }
    const std::string good = testing::readFile(path_);
    std::mt19937 random(7);
    int refused = 0;
    for (int round = 0; round < 200; ++round) {
        std::string bad = good;
        if (round % 4 == 0) {
            bad.resize(random() % bad.size());
        } else {
            for (int i = 0; i < 1 << (round % 8); ++i) bad[random() % bad.size()] = static_cast<char>(random());
        }
        for (const char* suffix : {"-wal", "-shm"}) std::remove((path_ + suffix).c_str());
        testing::writeFile(path_, bad);
        auto table = EntryTable::open(path_, "origin");
        if (!table) {
            ++refused;
            continue;
        }
        (void)(*table)->lines();
        (void)(*table)->check();
        (*table)->begin();
        for (int i = 0; i < 50; ++i) (*table)->put(entry("k" + std::to_string(i * 7), "elsewhere"));
        (*table)->remove("elsewhere");
        (*table)->beginRound();
        (*table)->sweep();
        (void)(*table)->commit();
    }
    EXPECT_GT(refused, 50);
}

}  // namespace
}  // namespace tarnwell::search
