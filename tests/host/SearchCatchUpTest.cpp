#include "host/SearchCatchUp.h"

#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <random>

#include "host/Listing.h"
#include "hostframework/HostError.h"
#include "platform/store/Store.h"
#include "testing/RandomChanges.h"
#include "tests/host/SearchFixture.h"

namespace tarnwell::host {
namespace {

namespace files = std::filesystem;

TEST_F(SearchTest, FindsWhatTheFirstFillFound) {
    make(document("Annual-Report.txt"));
    make(note("Sub/Deep/Été.md"));
    make(document(".hidden/secret.txt"));
    make(note("Inbox/inbox letter.txt"));
    make(document(".Trash/old report.txt"));
    make(document(".Trash/Folder/older report.txt"));
    catchUp();
    EXPECT_EQ(found("report"), Texts{"Annual-Report.txt"});
    EXPECT_EQ(found("report", {.withTrashed = true}),
              (Texts{"Annual-Report.txt", "old report.txt", "older report.txt"}));
    EXPECT_EQ(found("ete"), Texts{"Été.md"});
    EXPECT_EQ(found("notes"), Texts{"Notes"});
    EXPECT_EQ(found("type:file", {.below = {"#Notes"}}), Texts{"Été.md"});
    EXPECT_EQ(found("secret"), Texts{});
    EXPECT_EQ(found("inbox"), Texts{});
    EXPECT_EQ(found("trash", {.withTrashed = true}), Texts{});
    expectEqualToTheDisk();
}

TEST_F(SearchTest, FillsFoldersOfManyPages) {
    for (int i = 0; i < 1450; ++i) make(document("Many/file " + std::to_string(i) + ".txt"));
    std::vector<std::size_t> told;
    ASSERT_TRUE(tryToCatchUp([&](std::size_t count) { told.push_back(count); }));
    EXPECT_EQ(told, (std::vector<std::size_t>{1453}));
    EXPECT_EQ(found("file").size(), 1450u);
    end();
    // Only what changed is looked at.
    make(document("Many/file 7.txt"), "other");
    told.clear();
    ASSERT_TRUE(tryToCatchUp([&](std::size_t count) { told.push_back(count); }));
    EXPECT_TRUE(told.empty());
    expectEqualToTheDisk();
}

TEST_F(SearchTest, FollowsWhatHappensToSingleItems) {
    make(note("one.txt"));
    make(note("two.txt"));
    catchUp();
    ItemOperations operations(context());
    ASSERT_TRUE(operations.setTags(identifierOf(note("one.txt")), {"Red", "in work"}));
    ASSERT_EQ(std::rename(note("two.txt").c_str(), document("renamed.md").c_str()), 0);
    make(document("new.txt"));
    EXPECT_EQ(found("tag:red"), Texts{});
    catchUp();
    EXPECT_EQ(found("tag:red"), Texts{"one.txt"});
    EXPECT_EQ(found("two"), Texts{});
    EXPECT_EQ(found("renamed"), Texts{"renamed.md"});
    EXPECT_EQ(found("new"), Texts{"new.txt"});
    ASSERT_TRUE(operations.setTags(identifierOf(note("one.txt")), {}));
    std::remove(document("new.txt").c_str());
    end();
    catchUp();
    EXPECT_EQ(found("tag:*"), Texts{});
    EXPECT_EQ(found("new"), Texts{});
    expectEqualToTheDisk();
}

TEST_F(SearchTest, WhatAFolderHoldsGoesWithItIntoTheTrashAndAnotherLibrary) {
    make(note("Album/Inner/photo.txt"));
    catchUp();
    ItemOperations operations(context());
    const auto album = identifierOf(note("Album"));
    ASSERT_TRUE(operations.trash(album));
    catchUp();
    EXPECT_EQ(found("photo"), Texts{});
    EXPECT_EQ(found("photo", {.withTrashed = true}), Texts{"photo.txt"});
    expectEqualToTheDisk();
    ASSERT_TRUE(operations.restore(album, std::nullopt));
    ASSERT_TRUE(operations.move(album, "#Maps", std::nullopt));
    catchUp();
    EXPECT_EQ(found("photo", {.below = {"#Maps"}}), Texts{"photo.txt"});
    expectEqualToTheDisk();
    // By somebody who knows nothing of trashes.
    makeDirectories(maps_ + "/.Trash");
    make(maps_ + "/.Trash/Box/thrown.txt");
    catchUp();
    ASSERT_EQ(std::rename((maps_ + "/.Trash").c_str(), (maps_ + "/NoTrash").c_str()), 0);
    catchUp();
    EXPECT_EQ(found("thrown"), Texts{"thrown.txt"});
    expectEqualToTheDisk();
}

TEST_F(SearchTest, ARemovedApplicationsItemsLeaveAndComeBackWithIt) {
    make(note("Sub/note.txt"));
    make(maps_ + "/map.txt");
    catchUp();
    EXPECT_EQ(found("type:file"), (Texts{"map.txt", "note.txt"}));
    end();
    uninstall("Notes");
    catchUp();
    EXPECT_EQ(found("type:file"), Texts{"map.txt"});
    EXPECT_EQ(found("notes"), Texts{});
    expectEqualToTheDisk();
    end();
    install("Notes");
    install("Third");
    make(home_ + "/Apps/Third/Documents/third.txt");
    catchUp();
    EXPECT_EQ(found("type:file"), (Texts{"map.txt", "note.txt", "third.txt"}));
    expectEqualToTheDisk();
}

TEST_F(SearchTest, AnotherClientsLookRemovesARemovedApplicationThroughTheProviderManager) {
    make(note("note.txt"));
    make(maps_ + "/map.txt");
    catchUp();
    end();
    uninstall("Notes");
    auto follower = ChangeFollower::create(context().provider(), hostframework::kWorkingSetContainer);
    ASSERT_TRUE(follower);
    const auto anchor = context().searchIndex().anchor();
    ASSERT_TRUE(anchor && *anchor);
    ASSERT_TRUE(follower->changesSince(**anchor));
    EXPECT_EQ(found("type:file"), Texts{"map.txt"});
    catchUp();
    expectEqualToTheDisk();
}

TEST_F(SearchTest, AnAnchorThatExpiredFillsAnewAndFindsMeanwhile) {
    make(note("kept.txt"));
    make(note("gone.txt"));
    catchUp();
    end();
    std::remove(note("gone.txt").c_str());
    make(note("new.txt"));
    // As if the journal remembered less.
    const auto anchor = context().searchIndex().anchor();
    ASSERT_TRUE(anchor && *anchor);
    ASSERT_TRUE(context().searchIndex().apply({.reports = {}, .anchor = Bytes{1, 2, 3}, .moreComing = false}));
    int fills = 0;
    ASSERT_TRUE(tryToCatchUp([&](std::size_t) {
        ++fills;
        EXPECT_EQ(found("kept"), Texts{"kept.txt"});
        EXPECT_EQ(found("gone"), Texts{"gone.txt"});
    }));
    EXPECT_EQ(fills, 1);
    EXPECT_EQ(found("gone"), Texts{});
    EXPECT_EQ(found("new"), Texts{"new.txt"});
    expectEqualToTheDisk();
}

TEST_F(SearchTest, AFolderThatMovesDuringTheFillIsNotLost) {
    // Whichever is listed first: something moves from where nobody has looked yet to where nobody looks any more.
    constexpr int kSources = 16;
    const auto moving = [&](const std::string& folder, int i) { return document(folder + "/M" + std::to_string(i)); };
    Texts names;
    for (int i = 0; i < kSources; ++i) {
        names.push_back("inside" + std::to_string(i) + ".txt");
        make(moving("A" + std::to_string(i), i) + "/Deep/" + names.back());
    }
    for (int i = 0; i < 1000; ++i) make(document("B/file " + std::to_string(i)));
    std::ranges::sort(names);
    bool isMoved = false;
    ASSERT_TRUE(tryToCatchUp([&](std::size_t) {
        for (int i = 0; !isMoved && i < kSources; ++i) {
            std::rename(moving("A" + std::to_string(i), i).c_str(), moving("B", i).c_str());
        }
        // Another client's look sees each move as one, so that nothing is told of what the folder holds.
        EXPECT_TRUE(currentSyncAnchor(context().provider(), hostframework::kWorkingSetContainer));
        isMoved = true;
    }));
    EXPECT_TRUE(isMoved);
    EXPECT_EQ(found("inside"), names);
    expectEqualToTheDisk();
}

TEST_F(SearchTest, ADamagedCutForeignOrMissingDatabaseIsFilledAnew) {
    make(note("note.txt"));
    for (int i = 0; i < 50; ++i) make(document("f" + std::to_string(i) + ".txt"));
    catchUp();
    end();
    const std::string good = testing::readFile(databasePath());
    std::mt19937 random(11);
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        std::string bad = good;
        if (round % 3 == 0) {
            bad.resize(random() % bad.size());
        } else if (round % 3 == 1) {
            for (int i = 0; i < 1 << (round % 10); ++i)
                bad[random() % bad.size()] ^= static_cast<char>(1 + random() % 255);
        } else {
            bad = "something else, " + std::string(random() % 9000, 'x');
        }
        for (const char* suffix : {"-wal", "-shm"}) std::remove((databasePath() + suffix).c_str());
        testing::writeFile(databasePath(), bad);
        const auto done = tryToCatchUp();
        EXPECT_TRUE(done) << describe(done.error());
        const auto lines = context().searchIndex().lines();
        EXPECT_TRUE(lines) << describe(lines.error());
        end();
    }
    std::remove(databasePath().c_str());
    for (const char* suffix : {"-wal", "-shm"}) std::remove((databasePath() + suffix).c_str());
    catchUp();
    expectEqualToTheDisk();
    end();
    // Another store's: its anchors say nothing to this one.
    files::remove_all(home_ + "/.local/state/tarnwell");
    catchUp();
    expectEqualToTheDisk();
}

TEST_F(SearchTest, DamageThatIsMetLaterIsFilledAnewAsWell) {
    make(note("note.txt"));
    const std::string origin = context().store().uuid().text();
    end();
    // Too large to be checked as a whole when it is opened.
    makeDirectories(home_ + "/.cache/tarnwell");
    {
        auto table = search::EntryTable::open(databasePath(), origin);
        ASSERT_TRUE(table);
        (*table)->begin();
        for (int i = 0; i < 25'000; ++i) {
            search::Entry entry;
            entry.key = "did=" + std::to_string(1'000'000 + i);
            entry.parent = "RootContainer";
            entry.name = "a rather long name of file number " + std::to_string(i) + ".txt";
            entry.type = "text/plain";
            (*table)->put(entry);
        }
        ASSERT_TRUE((*table)->commit());
    }
    const std::string good = testing::readFile(databasePath());
    ASSERT_GT(good.size(), 5u << 20);
    std::mt19937 random(3);
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        std::string bad = good;
        for (int i = 0; i < 2000; ++i) bad[4096 + random() % (bad.size() - 4096)] = static_cast<char>(random());
        for (const char* suffix : {"-wal", "-shm"}) std::remove((databasePath() + suffix).c_str());
        testing::writeFile(databasePath(), bad);
        (void)context().searchIndex().find({});
        catchUp();
        EXPECT_EQ(found("note.txt"), Texts{"note.txt"});
        expectEqualToTheDisk();
        end();
    }
}

TEST_F(SearchTest, DomainsAreRemovedUnderEitherNameAndWithoutAnIndexThatIsASuccess) {
    make(note("Sub/note.txt"));
    make(maps_ + "/map.txt");
    ASSERT_TRUE(context().searchIndex().removeDomains({"#Notes"}));
    EXPECT_FALSE(files::exists(databasePath()));
    const auto status = context().searchIndex().status();
    ASSERT_TRUE(status);
    EXPECT_FALSE(*status);
    catchUp();
    const auto remove = [&](const Texts& domains) {
        std::promise<std::optional<Error>> done;
        context().providerManager().deleteSearchableItemsWithDomainIdentifiers(
            domains, [&](const std::optional<Error>& error) { done.set_value(error); });
        return done.get_future().get();
    };
    EXPECT_EQ(remove({"#Notes", "#unknown"}), std::nullopt);
    EXPECT_EQ(found("type:file"), Texts{"map.txt"});
    EXPECT_EQ(found("notes"), Texts{});
    EXPECT_EQ(remove({"Maps"}), std::nullopt);
    EXPECT_EQ(found("type:file"), Texts{});
    end();
    // What cannot be opened cannot be emptied.
    std::remove(databasePath().c_str());
    for (const char* suffix : {"-wal", "-shm"}) std::remove((databasePath() + suffix).c_str());
    makeDirectories(databasePath() + "/in the way");
    EXPECT_NE(remove({"Maps"}), std::nullopt);
}

TEST_F(SearchTest, EndsEqualToTheDiskAfterRandomChanges) {
    const auto given = std::getenv("TARNWELL_DEEP_SEED");
    const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
    SCOPED_TRACE("TARNWELL_DEEP_SEED=" + std::to_string(seed));
    makeDirectories(documents_ + "/.Trash");
    makeDirectories(notes_ + "/.Trash");
    testing::RandomChanges::Options options;
    options.areas = {"Documents",           "Documents/.Trash", "Apps/Notes/Documents", "Apps/Notes/Documents/.Trash",
                     "Apps/Maps/Documents", "outside"};
    options.mostNames = 150;
    makeDirectories(home_ + "/outside");
    testing::RandomChanges changes(home_, seed, options);
    bool hasThird = false;
    for (int round = 0; round < 25; ++round) {
        SCOPED_TRACE(round);
        std::string account;
        for (std::uint64_t i = 0, steps = 1 + changes.below(60); i < steps; ++i) account += changes.step() + "\n";
        if (changes.below(4) == 0) {
            end();
            if (hasThird) {
                uninstall("Third");
            } else {
                install("Third");
                make(home_ + "/Apps/Third/Documents/Sub/third.txt");
            }
            hasThird = !hasThird;
        } else if (changes.below(3) == 0) {
            end();
        }
        const auto tagged = changes.anyPath();
        const auto url =
            tagged.empty() ? failure(posixError(ENOENT)) : urlForPath(context().roots(), home_ + "/" + tagged);
        const auto item = url ? identifierForURL(context(), *url) : std::nullopt;
        if (item) (void)ItemOperations(context()).setTags(*item, {"label " + std::to_string(round)});
        catchUp();
        expectEqualToTheDisk();
        if (HasFailure()) FAIL() << account;
    }
}

TEST_F(SearchTest, OneThatStaysFollowsWhileTheKernelTells) {
    make(note("note.txt"));
    make(maps_ + "/map.txt");
    makeDirectories(documents_ + "/.Trash");
    if (auto watching = context().watchForChanges(); !watching) GTEST_SKIP() << describe(watching.error());
    // It has an enumerator, which has to go before the context does.
    std::optional<SearchCatchUp> staying(std::in_place, context().provider(), context().searchIndex());
    const auto catchUp = [&] {
        const auto done = staying->run();
        ASSERT_TRUE(done) << describe(done.error());
    };
    catchUp();
    const std::uint64_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    testing::RandomChanges::Options options;
    options.areas = {"Documents", "Documents/.Trash", "Apps/Notes/Documents", "Apps/Maps/Documents"};
    // With files of several names one run in a hundred still ends with one too few.
    options.makesHardLinks = false;
    options.mostNames = 100;
    testing::RandomChanges changes(home_, seed, options);
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        for (std::uint64_t i = 0, steps = 1 + changes.below(40); i < steps; ++i) changes.step();
        catchUp();
        expectEqualToTheDisk();
        if (HasFailure()) return;
    }
    uninstall("Maps");
    std::promise<void> looked;
    std::once_flag once;
    context().provider().refreshInstalledAppsWithCompletionHandler(
        [&] { std::call_once(once, [&] { looked.set_value(); }); });
    looked.get_future().wait();
    catchUp();
    EXPECT_EQ(found("type:file", {.below = {"#Maps"}}), Texts{});
    EXPECT_EQ(found("maps", {.withTrashed = true}), Texts{});
    expectEqualToTheDisk();
    staying.reset();
    end();
}

/// Whether the process ended by our signal, and not before it.
bool wasKilled(pid_t child) {
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFSIGNALED(status);
}

TEST_F(SearchTest, AKillAtAnyMomentLeavesAnIndexThatGoesOn) {
    constexpr int kRounds = 16;
    std::mt19937 random(5);
    int killed = 0;
    // As long as the work takes on this machine, more or less: earlier after a kill that came too late.
    unsigned longest = 200'000;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        for (int i = 0; i < 400; ++i) {
            const std::string folder = "F" + std::to_string(random() % 8);
            const std::string path = document(folder + "/" + std::to_string(random() % 200) + ".txt");
            if (random() % 3 == 0) {
                std::remove(path.c_str());
            } else {
                make(path, std::to_string(i));
            }
        }
        end();
        // Every other round kills a fill, the others what follows one.
        if (round % 2 == 0) {
            for (const char* suffix : {"", "-wal", "-shm"}) std::remove((databasePath() + suffix).c_str());
        }
        std::array<int, 2> ready{};
        ASSERT_EQ(::pipe(ready.data()), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            (void)context();
            (void)!::write(ready[1], "x", 1);
            (void)tryToCatchUp();
            ::_exit(0);
        }
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
        ::close(ready[1]);
        ::usleep(static_cast<useconds_t>(random() % longest));
        ::kill(child, SIGKILL);
        if (wasKilled(child)) {
            ++killed;
            longest += longest / 2;
        } else {
            longest = std::max(longest / 2, 1'000U);
        }
        catchUp();
        expectEqualToTheDisk();
    }
    EXPECT_GT(killed, 2);
}

}  // namespace
}  // namespace tarnwell::host
