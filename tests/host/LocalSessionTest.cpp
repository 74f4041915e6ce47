#include "host/LocalSession.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>

#include "hostframework/HostError.h"
#include "tests/host/SessionFixture.h"

namespace tarnwell::host {
namespace {

using session::JobControl;
using session::JobProgress;
using session::PathUse;

TEST_F(LocalSessionTest, TellsItemsInTheOrderAskedForAndOfEachThatThereIsNone) {
    make(document("a.txt"), "abc");
    const auto identifier = idOf(document("a.txt"));
    const auto items = session().items({session::kRootContainer, "fid=999999", identifier, "nonsense", notesLibrary_});
    ASSERT_EQ(items.size(), 5u);
    EXPECT_EQ(items[0]->identifier, session::kRootContainer);
    EXPECT_EQ(items[0]->path, documents_);
    EXPECT_TRUE(items[0]->isFolder);
    for (const std::size_t none : {1u, 3u}) {
        ASSERT_TRUE(failsWith(items[none], ErrorDomain::host, session::kNoSuchItem));
    }
    EXPECT_EQ(items[1].error().userInfo.at(session::kErrorItemIdentifier), "fid=999999");
    EXPECT_EQ(items[2]->filename, "a.txt");
    EXPECT_EQ(items[2]->path, document("a.txt"));
    EXPECT_EQ(items[2]->documentSize, 3u);
    EXPECT_FALSE(items[2]->isFolder);
    EXPECT_TRUE(items[4]->isContainer);
    EXPECT_EQ(items[4]->path, notes_);
}

TEST_F(LocalSessionTest, HasTheProvidersOwnNamesForViewsAndErrors) {
    EXPECT_EQ(session::kRootContainer, hostframework::kRootContainer);
    EXPECT_EQ(session::kWorkingSetContainer, hostframework::kWorkingSetContainer);
    EXPECT_EQ(session::kAllDirectoriesContainer, hostframework::kAllDirectoriesContainer);
    EXPECT_EQ(session::kTemporaryLocalFolder, hostframework::kTemporaryLocalFolder);
    EXPECT_STREQ(session::kErrorItemIdentifier, hostframework::kErrorItemIdentifier);
    EXPECT_EQ(session::kSyncAnchorExpired, hostframework::kSyncAnchorExpired);
    EXPECT_EQ(session::kNoSuchItem, hostframework::kNoSuchItem);
    EXPECT_EQ(session::kFilenameCollision, hostframework::kFilenameCollision);
    EXPECT_EQ(session::kInvalidParameter, hostframework::kInvalidParameter);
}

TEST_F(LocalSessionTest, FindsWhatStandsAtPathsAndSaysWhyThereIsNothing) {
    make(document("a.txt"));
    make(home_ + "/outside.txt");
    std::filesystem::create_symlink(document("a.txt"), home_ + "/link");
    struct Row {
        std::string path;
        PathUse use;
        int code;
        std::string sentence;
    };
    const std::vector<Row> rows{
        {document("none"), PathUse::lookUp, ENOENT, "there is nothing at that path"},
        {"", PathUse::lookUp, ENOENT, "an empty text names no file"},
        {"a.txt", PathUse::lookUp, EINVAL, "it is no absolute path"},
        {home_ + "/outside.txt", PathUse::lookUp, EXDEV,
         "it lies neither in the storage root nor in an application's documents"},
        {home_ + "/link", PathUse::target, EXDEV,
         "it is a link from elsewhere to \"" + document("a.txt") + "\"; name that instead"},
    };
    for (const Row& row : rows) {
        const auto outcome = onlyOne(session().identifiersAtPaths({row.path}, row.use));
        ASSERT_TRUE(failsWith(outcome, ErrorDomain::posix, row.code)) << row.path;
        EXPECT_EQ(sentenceOf(outcome.error()), row.sentence);
    }
    const auto both = session().identifiersAtPaths({home_ + "/link", documents_}, PathUse::lookUp);
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[0].value(), idOf(document("a.txt")));
    EXPECT_EQ(both[1].value(), session::kRootContainer);
}

TEST_F(LocalSessionTest, AFurtherNameOfADocumentIsNoTarget) {
    make(document("a.txt"));
    const auto identifier = idOf(document("a.txt"));
    ASSERT_EQ(::link(document("a.txt").c_str(), document("b.txt").c_str()), 0);
    EXPECT_EQ(idOf(document("b.txt")), identifier);
    const auto target = onlyOne(session().identifiersAtPaths({document("b.txt")}, PathUse::target));
    ASSERT_TRUE(failsWith(target, ErrorDomain::posix, EMLINK));
    EXPECT_EQ(sentenceOf(target.error()),
              "it is another name of \"" + document("a.txt") + "\", by which that document is known");
}

TEST_F(LocalSessionTest, ListsPageByPageWithOneEnumeratorThatGoesWithTheLastPage) {
    constexpr std::size_t kFiles = 450;
    for (std::size_t i = 0; i < kFiles; ++i) make(document("Many/f" + std::to_string(i)));
    const auto folder = idOf(document("Many"));
    std::set<std::string> names;
    std::vector<std::size_t> sizes;
    for (std::optional<Bytes> at;;) {
        const auto page = session().enumerate(folder, at);
        ASSERT_TRUE(page) << describe(page.error());
        sizes.push_back(page->items.size());
        for (const auto& item : page->items) names.insert(item.filename);
        EXPECT_EQ(session().idleEnumerators(), page->next ? 1u : 0u);
        if (!page->next) break;
        at = page->next;
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{200, 200, 50}));
    EXPECT_EQ(names.size(), kFiles);
}

TEST_F(LocalSessionTest, APageThatIsNoneHasExpiredAndAContainerThatIsNoneIsSaidToBeNone) {
    EXPECT_TRUE(failsWith(session().enumerate(session::kRootContainer, Bytes{1, 2, 3}), ErrorDomain::host,
                          session::kSyncAnchorExpired));
    EXPECT_TRUE(failsWith(session().changes(session::kRootContainer, Bytes{1, 2, 3}), ErrorDomain::host,
                          session::kSyncAnchorExpired));
    EXPECT_TRUE(failsWith(session().enumerate("fid=999999", std::nullopt), ErrorDomain::host, session::kNoSuchItem));
    EXPECT_TRUE(failsWith(session().currentAnchor("fid=999999"), ErrorDomain::host, session::kNoSuchItem));
    EXPECT_TRUE(failsWith(session().watch("fid=999999", [] {}), ErrorDomain::host, session::kNoSuchItem));
}

TEST_F(LocalSessionTest, TellsChangesInTheirOrderAndKeepsTheEnumerator) {
    make(document("Folder/a.txt"));
    const auto folder = idOf(document("Folder")), gone = idOf(document("Folder/a.txt"));
    const Bytes anchor = anchorOf(folder);
    EXPECT_EQ(session().idleEnumerators(), 0u);
    make(document("Folder/b.txt"));
    ASSERT_EQ(std::remove(document("Folder/a.txt").c_str()), 0);
    const auto batch = session().changes(folder, anchor);
    ASSERT_TRUE(batch) << describe(batch.error());
    EXPECT_EQ(session().idleEnumerators(), 1u);
    EXPECT_FALSE(batch->moreComing);
    std::set<std::string> updated, deleted;
    for (const auto& change : batch->changes) {
        EXPECT_TRUE(!change.item || change.item->identifier == change.identifier);
        (change.item ? updated : deleted).insert(change.item ? change.item->filename : change.identifier);
    }
    EXPECT_TRUE(updated.contains("b.txt"));
    EXPECT_EQ(deleted, std::set<std::string>{gone});
    const auto nothing = session().changes(folder, batch->anchor);
    ASSERT_TRUE(nothing);
    EXPECT_TRUE(nothing->changes.empty());
    EXPECT_EQ(session().idleEnumerators(), 1u);
}

TEST_F(LocalSessionTest, AFolderThatWentElsewhereIsFollowedThere) {
    make(document("Folder/a.txt"));
    const auto folder = idOf(document("Folder"));
    auto batch = session().changes(folder, anchorOf(folder));
    ASSERT_TRUE(batch);
    makeDirectories(document("Elsewhere"));
    ASSERT_EQ(std::rename(document("Folder").c_str(), document("Elsewhere/Folder").c_str()), 0);
    makeDirectories(document("Folder"));
    make(document("Elsewhere/Folder/new.txt"));
    batch = session().changes(folder, batch->anchor);
    ASSERT_TRUE(batch) << describe(batch.error());
    std::set<std::string> updated;
    for (const auto& change : batch->changes) {
        if (change.item) updated.insert(change.item->path);
    }
    EXPECT_TRUE(updated.contains(document("Elsewhere/Folder/new.txt"))) << ::testing::PrintToString(updated);
    EXPECT_EQ(session().idleEnumerators(), 1u);
}

TEST_F(LocalSessionTest, KeepsNoMoreEnumeratorsThanTheLimit) {
    const auto limit = EnumeratorPool::kMostIdle;
    std::vector<session::ItemIdentifier> folders;
    for (std::size_t i = 0; i < limit + 6; ++i) {
        make(document("F" + std::to_string(i) + "/a.txt"));
        folders.push_back(idOf(document("F" + std::to_string(i))));
    }
    for (const auto& folder : folders) ASSERT_TRUE(session().changes(folder, anchorOf(folder)));
    EXPECT_EQ(session().idleEnumerators(), limit);
}

TEST_F(LocalSessionTest, AWatchTellsOfWhatChangesUntilItGoes) {
    make(document("Folder/a.txt"));
    const auto folder = idOf(document("Folder"));
    Bell bell;
    auto watch = session().watch(folder, [&] { bell.ring(); });
    ASSERT_TRUE(watch) << describe(watch.error());
    EXPECT_EQ(session().idleEnumerators(), 1u);
    Bytes anchor = anchorOf(folder);
    for (const std::string name : {"b.txt", "c.txt"}) {
        make(document("Folder/" + name));
        for (bool isTold = false; !isTold;) {
            ASSERT_TRUE(bell.waitForRing()) << name;
            const auto batch = session().changes(folder, anchor);
            ASSERT_TRUE(batch);
            anchor = batch->anchor;
            for (const auto& change : batch->changes) isTold = isTold || (change.item && change.item->filename == name);
        }
    }
    watch->reset();
    EXPECT_LE(session().idleEnumerators(), 1u);
}

TEST_F(LocalSessionTest, AWatchOfTheTopTellsOfAnApplicationThatCame) {
    Bell bell;
    const auto watch = session().watch(session::kRootContainer, [&] { bell.ring(); });
    ASSERT_TRUE(watch) << describe(watch.error());
    Bytes anchor = anchorOf(session::kRootContainer);
    install("Plans");
    ASSERT_TRUE(session().refresh());
    for (bool isTold = false; !isTold;) {
        ASSERT_TRUE(bell.waitForRing());
        const auto batch = session().changes(session::kRootContainer, anchor);
        ASSERT_TRUE(batch) << describe(batch.error());
        anchor = batch->anchor;
        for (const auto& change : batch->changes) isTold = isTold || change.identifier == "#Plans";
    }
    // What lies in it is told of from now on, too.
    make(home_ + "/Apps/Plans/Documents/plan.txt");
    for (bool isTold = false; !isTold;) {
        ASSERT_TRUE(bell.waitForRing());
        const auto batch = session().changes(session::kRootContainer, anchor);
        ASSERT_TRUE(batch) << describe(batch.error());
        anchor = batch->anchor;
        for (const auto& change : batch->changes)
            isTold = isTold || (change.item && change.item->filename == "plan.txt");
    }
}

TEST_F(LocalSessionTest, AnOperationSaysByWhatANameIsTaken) {
    make(note("x.txt"));
    makeDirectories(note("Folder"));
    make(home_ + "/x.txt");
    JobControl job;
    const auto taken = onlyOne(session().import({home_ + "/x.txt"}, notesLibrary_, job));
    ASSERT_TRUE(failsWith(taken, ErrorDomain::host, session::kFilenameCollision));
    EXPECT_EQ(sentenceOf(taken.error()), "a file named \"x.txt\" is already in \"Notes\"");
    const auto folder = session().makeFolder("Folder", notesLibrary_);
    ASSERT_TRUE(failsWith(folder, ErrorDomain::host, session::kFilenameCollision));
    EXPECT_EQ(sentenceOf(folder.error()), "a folder named \"Folder\" is already in \"Notes\"");
}

TEST_F(LocalSessionTest, OperatesOnItemsWithOneOutcomeEach) {
    make(document("Folder/a.txt"), "a");
    make(document("Folder/b.txt"), "b");
    const auto a = idOf(document("Folder/a.txt")), b = idOf(document("Folder/b.txt"));
    JobControl job;
    const auto moved = session().move({a, "fid=999999", b}, notesLibrary_, std::nullopt, job);
    ASSERT_EQ(moved.size(), 3u);
    EXPECT_EQ(moved[0]->path, note("a.txt"));
    EXPECT_FALSE(moved[1]);
    EXPECT_EQ(moved[2]->path, note("b.txt"));
    EXPECT_TRUE(failsWith(session().move({a, b}, mapsLibrary_, "one", job)[1], ErrorDomain::posix, EINVAL));
    EXPECT_EQ(session().rename(a, "c.txt")->filename, "c.txt");
    const auto trashed = session().trash({a, b}, job);
    EXPECT_TRUE(trashed[0]->isTrashed && trashed[1]->isTrashed);
    EXPECT_EQ(onlyOne(session().restore({a}, std::nullopt, job))->path, note("c.txt"));
    const auto removed = onlyOne(session().remove({a}, job));
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->identifier, a);
    EXPECT_EQ(removed->path, note("c.txt"));
    EXPECT_EQ(session().setTags(b, {"one", "two"})->tags, (Texts{"one", "two"}));
    EXPECT_EQ(session().setRank(b, 7)->favoriteRank, 7u);
    const Date date{std::chrono::seconds(1000)};
    EXPECT_EQ(session().setLastUsed(b, date)->lastUsedDate, date);
    const auto library = session().setLastUsed(notesLibrary_, date);
    ASSERT_FALSE(library);
    EXPECT_EQ(sentenceOf(library.error()), "an application's library has no such date");
    const auto cleaned = session().cleanTrash(std::chrono::system_clock::now() + std::chrono::hours(1));
    ASSERT_TRUE(cleaned);
    EXPECT_EQ(cleaned->removed, Texts{note(".Trash/b.txt")});
}

TEST_F(LocalSessionTest, ACancelledJobTakesBackWhatIsUnderWayAndBeginsNothingMore) {
    make(home_ + "/small", "s");
    make(home_ + "/large", std::string(std::size_t{20} << 20, 'x'));
    make(home_ + "/last", "l");
    std::vector<std::uint64_t> indexes;
    JobControl* self = nullptr;
    JobControl job([&](const JobProgress& at) {
        if (indexes.empty() || indexes.back() != at.index) indexes.push_back(at.index);
        if (at.index == 1 && at.bytesDone > 0) self->cancel();
    });
    self = &job;
    const auto imported = session().import({home_ + "/small", home_ + "/large", home_ + "/last"}, notesLibrary_, job);
    ASSERT_EQ(imported.size(), 3u);
    EXPECT_TRUE(imported[0]);
    EXPECT_TRUE(failsWith(imported[1], ErrorDomain::posix, ECANCELED));
    EXPECT_TRUE(failsWith(imported[2], ErrorDomain::posix, ECANCELED));
    EXPECT_EQ(indexes, (std::vector<std::uint64_t>{0, 1}));
    Texts left;
    for (const auto& entry : std::filesystem::directory_iterator(notes_)) left.push_back(entry.path().filename());
    EXPECT_EQ(left, Texts{"small"});
    // A job that was cancelled begins nothing, whatever it is used for.
    const auto small = idOf(note("small"));
    EXPECT_TRUE(failsWith(session().trash({small}, job)[0], ErrorDomain::posix, ECANCELED));
    EXPECT_TRUE(failsWith(session().remove({small}, job)[0], ErrorDomain::posix, ECANCELED));
    EXPECT_TRUE(std::filesystem::exists(note("small")));
}

TEST_F(LocalSessionTest, TellsTheLibraryOfAnApplicationOrWhyItHasNone) {
    makeDirectories(home_ + "/Apps/Plain");
    writeFile(entryOf("Plain"),
              "[Desktop Entry]\nType=Application\nName=Plain\nExec=true\nX-Tarnwell-DataContainer=~/Apps/Plain\n");
    EXPECT_EQ(session().defaultContainer("Notes")->identifier, notesLibrary_);
    const auto none = session().defaultContainer("Nothing"), plain = session().defaultContainer("Plain");
    ASSERT_TRUE(failsWith(none, ErrorDomain::host, session::kInvalidParameter));
    EXPECT_EQ(sentenceOf(none.error()), "no such application is installed");
    ASSERT_TRUE(failsWith(plain, ErrorDomain::host, session::kInvalidParameter));
    EXPECT_EQ(sentenceOf(plain.error()), "that application keeps no documents here");
}

TEST_F(LocalSessionTest, ARefreshTellsWhatChangedSinceTheLastOne) {
    session();  // the libraries of this start are remembered as none
    const auto first = session().refresh();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->applications, 2u);
    EXPECT_EQ(first->added.size(), 2u);
    const auto second = session().refresh();
    EXPECT_TRUE(second->added.empty() && second->changed.empty() && second->removed.empty());
    install("Plans");
    uninstall("Maps");
    const auto third = session().refresh();
    ASSERT_EQ(third->added.size(), 1u);
    EXPECT_EQ(third->added[0].identifier, "#Plans");
    ASSERT_EQ(third->removed.size(), 1u);
    EXPECT_EQ(third->removed[0].identifier, "#Maps");
    EXPECT_EQ(third->removed[0].path, maps_);
    EXPECT_EQ(third->applications, 2u);
    const auto applications = session().applications();
    ASSERT_EQ(applications->size(), 2u);
    for (const auto& application : *applications) {
        EXPECT_EQ(application.origin, "desktop-entry");
        EXPECT_EQ(application.installedFor, "user");
        EXPECT_EQ(*application.containerPath + "/Documents", application.item.path);
    }
}

TEST_F(LocalSessionTest, SaysWhyThereIsNoThumbnail) {
    make(document("a.txt"));
    struct Row {
        session::ItemIdentifier item;
        unsigned side;
        ErrorDomain domain;
        std::int64_t code;
    };
    const std::vector<Row> rows{{"#Nothing", 0, ErrorDomain::host, session::kNoSuchItem},
                                {idOf(document("a.txt")), 0, ErrorDomain::posix, EINVAL},
                                {notesLibrary_, icons::kMaxPictureSide + 1, ErrorDomain::posix, EINVAL}};
    for (const Row& row : rows) {
        const auto picture = onlyOne(session().thumbnails({row.item}, row.side));
        ASSERT_TRUE(failsWith(picture, row.domain, row.code)) << row.item;
        EXPECT_NE(sentenceOf(picture.error()), "");
    }
}

TEST_F(LocalSessionTest, SearchesWhatIsThereNow) {
    make(note("Trip/report one.txt"));
    make(maps_ + "/report two.txt");
    make(document("report three.txt"));
    const auto namesOf = [](const Result<session::SearchResult>& found) {
        EXPECT_TRUE(found) << (found ? "" : describe(found.error()));
        std::set<std::string> names;
        for (const auto& one : found->items) names.insert(one.place);
        return names;
    };
    const auto all = session().search({.query = "report"}, {});
    EXPECT_EQ(namesOf(all),
              (std::set<std::string>{"Notes/Trip/report one.txt", "Maps/report two.txt", "report three.txt"}));
    EXPECT_EQ(all->more, 0u);
    const auto one = session().search({.query = "report", .limit = 1}, {});
    EXPECT_EQ(one->items.size(), 1u);
    EXPECT_EQ(one->more, 2u);
    EXPECT_EQ(namesOf(session().search({.query = "report in:notes"}, {})),
              std::set<std::string>{"Notes/Trip/report one.txt"});
    EXPECT_EQ(namesOf(session().search({.query = "report", .below = mapsLibrary_}, {})),
              std::set<std::string>{"Maps/report two.txt"});
    ASSERT_TRUE(failsWith(session().search({.query = "\"open"}, {}), ErrorDomain::posix, EINVAL));
    const auto none = session().search({.query = "x in:Nowhere"}, {});
    ASSERT_TRUE(failsWith(none, ErrorDomain::posix, EINVAL));
    EXPECT_EQ(sentenceOf(none.error()), "there is no library \"Nowhere\" to look in; \"tarnwell apps\" lists them");
    ASSERT_TRUE(failsWith(session().search({.query = ""}, {}), ErrorDomain::posix, EINVAL));
    ASSERT_TRUE(failsWith(session().search({.query = "x", .types = {""}}, {}), ErrorDomain::posix, EINVAL));
    const auto file = session().search({.query = "x", .below = idOf(document("report three.txt"))}, {});
    ASSERT_TRUE(failsWith(file, ErrorDomain::posix, ENOTDIR));
    EXPECT_EQ(file.error().userInfo.at(session::kErrorItemIdentifier), idOf(document("report three.txt")));
    const std::vector<std::string> many(search::kMostTerms + 1, "pdf");
    ASSERT_TRUE(failsWith(session().search({.query = "x", .types = many}, {}), ErrorDomain::posix, EINVAL));
}

TEST_F(LocalSessionTest, KnowsHowThingsAre) {
    const auto status = session().status();
    ASSERT_TRUE(status) << describe(status.error());
    ASSERT_EQ(status->roots.size(), 3u);
    EXPECT_EQ(status->roots[0].path, documents_);
    EXPECT_TRUE(status->roots[0].isAvailable);
    EXPECT_EQ(status->storeDirectory, context().store().directory());
    EXPECT_EQ(status->storeUUID, context().store().uuid().text());
    EXPECT_EQ(status->storeOrigin, session::StoreOrigin::created);
    EXPECT_FALSE(status->search);
}

TEST_F(LocalSessionTest, ServesSeveralThreadsAtOnce) {
    constexpr int kThreads = 6, kRounds = 12;
    for (int i = 0; i < 230; ++i) make(document("Many/f" + std::to_string(i)));
    const auto many = idOf(document("Many"));
    const Bytes anchor = anchorOf(session::kWorkingSetContainer);
    session();
    std::atomic<int> failures{0}, rings{0};
    const auto expect = [&](bool isRight) { failures += isRight ? 0 : 1; };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < kRounds; ++round) {
                const std::string name = "t" + std::to_string(thread) + "-" + std::to_string(round);
                const auto made = session().makeFolder(name, notesLibrary_);
                expect(made.has_value());
                if (!made) continue;
                expect(session().setTags(made->identifier, {name}).has_value());
                expect(onlyOne(session().items({made->identifier}))->tags == Texts{name});
                expect(session().changes(session::kWorkingSetContainer, anchor).has_value());
                const auto page = session().enumerate(many, std::nullopt);
                expect(page && page->items.size() == 200 && page->next);
                const auto rest = session().enumerate(many, page->next);
                expect(rest && rest->items.size() == 30 && !rest->next);
                if (round % 4 == thread % 4) {
                    const auto found = session().search({.query = "tag:" + name}, {});
                    expect(found && found->items.size() == 1);
                    expect(session().watch(many, [&] { ++rings; }).has_value());
                    expect(session().status().has_value());
                }
                JobControl job;
                expect(onlyOne(session().trash({made->identifier}, job)).has_value());
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures, 0) << ::testing::PrintToString(log_.texts(log::Level::error));
    EXPECT_LE(session().idleEnumerators(), EnumeratorPool::kMostIdle);
}

}  // namespace
}  // namespace tarnwell::host
