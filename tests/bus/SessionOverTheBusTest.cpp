#include <fcntl.h>

#include <cerrno>
#include <latch>
#include <memory>
#include <thread>

#include "tests/bus/BusFixture.h"

/// Every request arrives as it was asked, and every answer as it was given.
namespace tarnwell::bus {
namespace {

using session::Item;
using session::JobControl;
using session::Session;
using testing::fullItem;

Item bareItem() {
    Item item;
    item.identifier = "RootContainer";
    item.parent = "RootContainer";
    item.filename = "";
    return item;
}

Error detailed() {
    return {ErrorDomain::generalFile,
            kFileExists,
            {{kErrorMessage, "a file named \"x\" is already there"}, {kErrorPath, "/a/\xff"}}};
}

Date dateOf(std::int64_t nanoseconds) { return Date(std::chrono::nanoseconds(nanoseconds)); }

/// The only request, and nothing else was asked.
#define EXPECT_REQUEST(line) EXPECT_EQ(session_->requests(), std::vector<std::string>{line})

using SessionOverTheBusTest = BusTest;

/// What travels in both forms.
class ListsOverTheBusTest : public BusTest, public ::testing::WithParamInterface<BusSession::Form> {
protected:
    void SetUp() override {
        BusTest::SetUp();
        client_ = connect(GetParam());
    }
};

INSTANTIATE_TEST_SUITE_P(, ListsOverTheBusTest, ::testing::Values(BusSession::Form::packed, BusSession::Form::plain),
                         [](const auto& form) { return form.param == BusSession::Form::packed ? "Packed" : "Plain"; });

TEST_F(SessionOverTheBusTest, TheServiceSaysWhoItIs) {
    const ServiceInfo& info = client_->service();
    EXPECT_EQ(info.programVersion, "1.2.3");
    EXPECT_EQ(info.storageRoot, "/home/p/Docu\xffments");
    EXPECT_EQ(info.stateDirectory, "/home/p/state");
    EXPECT_EQ(info.interfaceVersion, 3U);
}

TEST_F(SessionOverTheBusTest, ItemsComeWithEveryFieldAndTheirErrorsWithEveryDetail) {
    session_->itemOutcomes = {fullItem(), bareItem(), failure(detailed()), failure(posixError(ENOSPC))};
    const auto outcomes = client_->items({"did=17", "RootContainer", "#a b", "fid=1"});
    EXPECT_REQUEST("items [did=17,RootContainer,#a b,fid=1]");
    EXPECT_EQ(outcomes, session_->itemOutcomes);
}

TEST_F(SessionOverTheBusTest, AnAnswerOfAnotherLengthIsNone) {
    session_->itemOutcomes = {fullItem()};
    const auto outcomes = client_->items({"did=1", "did=2"});
    ASSERT_EQ(outcomes.size(), 2U);
    EXPECT_TRUE(!outcomes[0] && outcomes[0].error().is(ErrorDomain::posix, EPROTO));
}

TEST_F(SessionOverTheBusTest, MoreThanOneRequestMayNameAreAskedInParts) {
    session_->itemOutcomes.assign(1000, bareItem());
    std::size_t asked = 0;
    session_->onRequest = [&](const std::string&) {
        if (++asked == 3) session_->itemOutcomes.assign(5, bareItem());
    };
    EXPECT_EQ(client_->items(std::vector<std::string>(2005, "did=1")).size(), 2005U);
    EXPECT_EQ(asked, 3U);
}

TEST_F(SessionOverTheBusTest, PathsAreBytes) {
    session_->identifierOutcomes = {std::string("did=3"), failure(posixError(EXDEV, "it lies elsewhere"))};
    const auto outcomes = client_->identifiersAtPaths({"/a/\xff", ""}, session::PathUse::target);
    EXPECT_REQUEST("identifiersAtPaths [/a/\xff,] target");
    EXPECT_EQ(outcomes, session_->identifierOutcomes);
    (void)client_->identifiersAtPaths({"/a"}, session::PathUse::lookUp);
    EXPECT_EQ(session_->requests().back(), "identifiersAtPaths [/a] lookUp");
}

TEST_P(ListsOverTheBusTest, PagesAndTheirTokens) {
    session_->page = session::Page{{fullItem(), bareItem()}, Bytes{0, 1, 255}};
    auto page = client_->enumerate("#org.example.Notes", std::nullopt);
    EXPECT_REQUEST("enumerate #org.example.Notes none");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->items, session_->page->items);
    EXPECT_EQ(page->next, session_->page->next);
    session_->page = session::Page{};
    page = client_->enumerate("root", Bytes{'t', 'o', 'k'});
    EXPECT_EQ(session_->requests().back(), "enumerate root tok");
    ASSERT_TRUE(page);
    EXPECT_TRUE(page->items.empty());
    EXPECT_FALSE(page->next);
    session_->page = failure(Error{ErrorDomain::host, session::kSyncAnchorExpired, {}});
    page = client_->enumerate("root", std::nullopt);
    ASSERT_FALSE(page);
    EXPECT_EQ(page.error(), session_->page.error());
}

TEST_P(ListsOverTheBusTest, AnchorsAndChanges) {
    session_->anchor = Bytes{7, 0, 7};
    EXPECT_EQ(*client_->currentAnchor("root"), Bytes({7, 0, 7}));
    session_->anchor = std::nullopt;
    EXPECT_EQ(*client_->currentAnchor("root"), std::nullopt);
    session_->batch = session::ChangeBatch{{{"did=17", fullItem()}, {"fid=9", {}}, {"x", bareItem()}}, {1, 2}, true};
    const auto batch = client_->changes("#a", Bytes{'s'});
    EXPECT_EQ(session_->requests().back(), "changes #a s");
    ASSERT_TRUE(batch);
    ASSERT_EQ(batch->changes.size(), 3U);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(batch->changes[i].identifier, session_->batch->changes[i].identifier);
        EXPECT_EQ(batch->changes[i].item, session_->batch->changes[i].item);
    }
    EXPECT_EQ(batch->anchor, Bytes({1, 2}));
    EXPECT_TRUE(batch->moreComing);
}

TEST_P(ListsOverTheBusTest, LongOnes) {
    session_->page = session::Page{std::vector<session::Item>(500, fullItem()), Bytes{1}};
    const auto page = client_->enumerate("root", std::nullopt);
    ASSERT_TRUE(page);
    EXPECT_EQ(page->items, session_->page->items);
    EXPECT_EQ(page->next, Bytes{1});
    session_->batch =
        session::ChangeBatch{std::vector<session::Change>(500, session::Change{"did=17", fullItem()}), {1, 2}, false};
    const auto batch = client_->changes("root", {});
    ASSERT_TRUE(batch);
    ASSERT_EQ(batch->changes.size(), 500U);
    for (const auto& change : batch->changes) EXPECT_EQ(change.item, fullItem());
    EXPECT_EQ(batch->anchor, Bytes({1, 2}));
    EXPECT_FALSE(batch->moreComing);
}

TEST_F(SessionOverTheBusTest, ADescriptorArrivesOpen) {
    session_->opens = [] {
        Descriptor file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
        return file;
    };
    const auto opened = client_->open("did=1", Session::Access::readWrite);
    EXPECT_REQUEST("open did=1 readWrite");
    ASSERT_TRUE(opened) << describe(opened.error());
    char magic[4] = {};
    ASSERT_EQ(::pread(opened->get(), magic, 4, 0), 4);
    EXPECT_EQ(std::string(magic, 4),
              "\x7f"
              "ELF");
    EXPECT_EQ(::fcntl(opened->get(), F_GETFD), FD_CLOEXEC);
    session_->opens = [] { return failure(posixError(EISDIR, "it is a folder")); };
    const auto refused = client_->open("did=1", Session::Access::read);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), posixError(EISDIR, "it is a folder"));
}

TEST_F(SessionOverTheBusTest, JobsTellHowFarTheyAreAndWhatCameOfThem) {
    session_->itemOutcomes = {fullItem(), failure(detailed())};
    session_->progress = {{1, 2, 3, 4, std::nullopt}};
    std::vector<session::JobProgress> told;
    std::atomic<bool> wasTold = false;
    JobControl control([&](const session::JobProgress& progress) {
        told.push_back(progress);
        wasTold = true;
    });
    // Whoever asks for a job learns its path before anything is told of it, but needs a moment to listen.
    session_->onRequest = [&](const std::string&) { ::usleep(100'000); };
    const auto imported = client_->import({"/x/\xff", "/y"}, "#a", control);
    EXPECT_REQUEST("import [/x/\xff,/y] #a");
    EXPECT_EQ(imported, session_->itemOutcomes);

    JobControl quiet;
    EXPECT_EQ(client_->move({"a", "b"}, "p", std::nullopt, quiet), session_->itemOutcomes);
    EXPECT_EQ(session_->requests().back(), "move [a,b] p none");
    EXPECT_EQ(client_->trash({"a", "b"}, quiet), session_->itemOutcomes);
    EXPECT_EQ(session_->requests().back(), "trash [a,b]");
    EXPECT_EQ(client_->restore({"a", "b"}, "p", quiet), session_->itemOutcomes);
    EXPECT_EQ(session_->requests().back(), "restore [a,b] p");
    EXPECT_EQ(client_->restore({"a", "b"}, std::nullopt, quiet), session_->itemOutcomes);
    EXPECT_EQ(session_->requests().back(), "restore [a,b] none");
    session_->removedOutcomes = {session::Removed{"a", "/p/\xff"}, failure(posixError(EBUSY))};
    const auto removed = client_->remove({"a", "b"}, quiet);
    ASSERT_EQ(removed.size(), 2U);
    EXPECT_EQ(removed[0]->path, "/p/\xff");
    EXPECT_EQ(removed[0]->identifier, "a");
    EXPECT_EQ(removed[1].error(), posixError(EBUSY));
    session_->itemOutcomes = {fullItem()};
    (void)client_->move({"a"}, "p", "n\xff", quiet);
    EXPECT_EQ(session_->requests().back(), "move [a] p n\xff");
    EXPECT_TRUE(soon([&] { return server_->counts().jobs == 0; }));
}

TEST_F(SessionOverTheBusTest, AJobIsCancelled) {
    session_->itemOutcomes = {fullItem()};
    JobControl control;
    std::atomic<bool> isRunning = false;
    session_->onRequest = [&](const std::string& name) {
        if (name != "trash") return;
        isRunning = true;
        ::usleep(300'000);
    };
    std::thread canceller([&] {
        EXPECT_TRUE(soon([&] { return isRunning.load(); }));
        control.cancel();
    });
    const auto outcomes = client_->trash({"a"}, control);
    canceller.join();
    ASSERT_EQ(outcomes.size(), 1U);
    ASSERT_FALSE(outcomes[0]);
    EXPECT_TRUE(outcomes[0].error().is(ErrorDomain::posix, ECANCELED));
    // And one that was cancelled before is not begun.
    const auto before = session_->requests().size();
    EXPECT_FALSE(client_->trash({"a"}, control)[0]);
    EXPECT_EQ(session_->requests().size(), before);
}

TEST_F(SessionOverTheBusTest, SingleItemsAreChanged) {
    session_->item = fullItem();
    EXPECT_EQ(*client_->makeFolder("n\xff", "p"), fullItem());
    EXPECT_EQ(*client_->rename("i", "n\xff"), fullItem());
    EXPECT_EQ(*client_->setTags("i", {"a", "\xff", ""}), fullItem());
    EXPECT_EQ(*client_->setTags("i", {}), fullItem());
    EXPECT_EQ(*client_->setRank("i", 5), fullItem());
    EXPECT_EQ(*client_->setRank("i", std::nullopt), fullItem());
    EXPECT_EQ(*client_->setLastUsed("i", dateOf(-9)), fullItem());
    EXPECT_EQ(*client_->setLastUsed("i", std::nullopt), fullItem());
    EXPECT_EQ(*client_->defaultContainer("org.b"), fullItem());
    EXPECT_EQ(session_->requests(),
              (std::vector<std::string>{"makeFolder n\xff p", "rename i n\xff", "setTags i [a,\xff,]", "setTags i []",
                                        "setRank i 5", "setRank i none", "setLastUsed i -9", "setLastUsed i none",
                                        "defaultContainer org.b"}));
    session_->item = failure(posixError(EROFS, "it may not be written to"));
    EXPECT_EQ(client_->rename("i", "n").error(), session_->item.error());
}

TEST_F(SessionOverTheBusTest, TrashesPicturesApplicationsSearchAndStatus) {
    session_->cleaned = session::CleanedTrash{{"/a/\xff"}, {"/b"}};
    const auto cleaned = client_->cleanTrash(dateOf(12));
    EXPECT_EQ(session_->requests().back(), "cleanTrash 12");
    EXPECT_EQ(cleaned->removed, session_->cleaned->removed);
    EXPECT_EQ(cleaned->left, session_->cleaned->left);

    session_->pictureOutcomes = {Bytes(200'000, 7), failure(posixError(EIO, "it cannot be drawn")), Bytes{}};
    EXPECT_EQ(client_->thumbnails({"#a", "#b", "#c"}, 256), session_->pictureOutcomes);
    EXPECT_EQ(session_->requests().back(), "thumbnails [#a,#b,#c] 256");

    session_->applicationList =
        std::vector<session::Application>{{fullItem(), "snap", "user", "/c/\xff"}, {bareItem(), {}, {}, {}}};
    const auto applications = client_->applications();
    ASSERT_EQ(applications->size(), 2U);
    EXPECT_EQ(applications->at(0).item, fullItem());
    EXPECT_EQ(applications->at(0).origin, "snap");
    EXPECT_EQ(applications->at(0).installedFor, "user");
    EXPECT_EQ(applications->at(0).containerPath, "/c/\xff");
    EXPECT_EQ(applications->at(1).containerPath, std::nullopt);

    session_->refreshed = session::Refreshed{{fullItem()}, {bareItem()}, {{"#gone", "/g/\xff"}}, 12};
    const auto refreshed = client_->refresh();
    EXPECT_EQ(refreshed->added, session_->refreshed->added);
    EXPECT_EQ(refreshed->changed, session_->refreshed->changed);
    ASSERT_EQ(refreshed->removed.size(), 1U);
    EXPECT_EQ(refreshed->removed[0].identifier, "#gone");
    EXPECT_EQ(refreshed->removed[0].path, "/g/\xff");
    EXPECT_EQ(refreshed->applications, 12U);

    session_->found = session::SearchResult{{{fullItem(), "a/\xff"}, {bareItem(), ""}}, 41};
    const auto found = client_->search({.query = "caf\xe9 -x",
                                        .types = {"pdf"},
                                        .tags = {"\xff", "b"},
                                        .below = "#a",
                                        .order = session::SearchRequest::Order::newestFirst,
                                        .withTrashed = true,
                                        .limit = 7},
                                       {});
    EXPECT_EQ(session_->requests().back(), "search caf\xe9 -x [pdf] [\xff,b] #a newest trashed 7");
    ASSERT_EQ(found->items.size(), 2U);
    EXPECT_EQ(found->items[0].item, fullItem());
    EXPECT_EQ(found->items[0].place, "a/\xff");
    EXPECT_EQ(found->more, 41U);
    (void)client_->search(
        {.query = "x", .order = session::SearchRequest::Order::byName, .locale = "de_DE.UTF-8", .limit = 1}, {});
    EXPECT_EQ(session_->requests().back(), "search x [] [] none by name of de_DE.UTF-8 untrashed 1");
    (void)client_->search({.query = "x", .order = session::SearchRequest::Order::byName, .locale = "\xff"}, {});
    EXPECT_EQ(session_->requests().back(), "search x [] [] none by name of \xff untrashed 100");
    (void)client_->search({.query = "x"}, {});
    EXPECT_EQ(session_->requests().back(), "search x [] [] none relevance untrashed 100");

    session::Status status;
    status.roots = {{"/r/\xff", true, "fanotify", "inotify"}, {"/s", false, "comparing", "comparing"}};
    status.watches = 1;
    status.queued = 14;
    status.queueLimit = 2;
    status.overflows = 3;
    status.polledFolders = 4;
    status.storeDirectory = "/d/\xff";
    status.storeUUID = "u-u";
    status.storeOrigin = session::StoreOrigin::recoveredAfterDamage;
    status.objects = 5;
    status.databaseBytes = 6;
    status.journalBegin = 7;
    status.journalEnd = 8;
    status.departures = 9;
    status.search = session::SearchStatus{10, 11, dateOf(12)};
    status.searchProblem = posixError(EIO, "it is damaged");
    status.lastCompared = dateOf(13);
    session_->state = status;
    const auto state = client_->status();
    ASSERT_TRUE(state);
    ASSERT_EQ(state->roots.size(), 2U);
    EXPECT_EQ(state->roots[0].path, "/r/\xff");
    EXPECT_TRUE(state->roots[0].isAvailable);
    EXPECT_EQ(state->roots[0].source, "fanotify");
    EXPECT_EQ(state->roots[0].liveSource, "inotify");
    EXPECT_FALSE(state->roots[1].isAvailable);
    EXPECT_EQ(
        std::tie(state->watches, state->queued, state->queueLimit, state->overflows, state->polledFolders,
                 state->storeDirectory, state->storeUUID, state->storeOrigin, state->objects, state->databaseBytes,
                 state->journalBegin, state->journalEnd, state->departures, state->lastCompared),
        std::tie(status.watches, status.queued, status.queueLimit, status.overflows, status.polledFolders,
                 status.storeDirectory, status.storeUUID, status.storeOrigin, status.objects, status.databaseBytes,
                 status.journalBegin, status.journalEnd, status.departures, status.lastCompared));
    EXPECT_EQ(state->search->items, 10U);
    EXPECT_EQ(state->search->databaseBytes, 11U);
    EXPECT_EQ(state->search->caughtUp, dateOf(12));
    EXPECT_EQ(state->searchProblem, status.searchProblem);
    session_->state = session::Status{};
    EXPECT_FALSE(client_->status()->search);
    EXPECT_FALSE(client_->status()->lastCompared);
}

TEST_F(SessionOverTheBusTest, WithoutABusThereIsNoSession) {
    const auto session = BusSession::connect(BusSession::Start::never, "unix:path=/nowhere/at/all");
    ASSERT_FALSE(session);
    EXPECT_TRUE(session.error().is(ErrorDomain::posix, ENOENT)) << describe(session.error());
}

TEST_F(SessionOverTheBusTest, WhatIsUnderWayCanBeGivenUp) {
    // The server may be at the given up request for longer than this test is.
    struct Moments {
        std::atomic<bool> isFirst = true;
        std::latch isAsked{1}, mayAnswer{1};
    };
    const auto moments = std::make_shared<Moments>();
    session_->onRequest = [moments](const std::string& name) {
        if (!name.starts_with("changes")) return;
        if (moments->isFirst.exchange(false)) moments->isAsked.count_down();
        moments->mayAnswer.wait();
    };
    session_->batch = session::ChangeBatch{};
    const auto other = connect();
    std::thread asking([&] {
        const auto batch = client_->changes("root", {});
        EXPECT_TRUE(!batch && batch.error().is(ErrorDomain::posix, ECANCELED));
    });
    moments->isAsked.wait();
    client_->giveUp();
    asking.join();
    const auto later = client_->currentAnchor("root");
    EXPECT_TRUE(!later && later.error().is(ErrorDomain::posix, ECANCELED));
    // The answer that comes afterwards is nobody's, and others are served.
    moments->mayAnswer.count_down();
    EXPECT_TRUE(other->changes("root", {}));
}

TEST_F(SessionOverTheBusTest, AWatchTellsUntilItEnds) {
    std::atomic<int> told = 0, toldOther = 0;
    auto watch = client_->watch("#a", [&] { ++told; });
    ASSERT_TRUE(watch) << describe(watch.error());
    auto other = client_->watch("#b", [&] { ++toldOther; });
    ASSERT_TRUE(other);
    session_->change("#a");
    EXPECT_TRUE(soon([&] { return told == 1; }));
    // Told once, and again when the client went on.
    session_->change("#a");
    session_->change("#a");
    session_->anchor = std::nullopt;
    (void)client_->currentAnchor("#a");
    EXPECT_EQ(told, 1);
    session_->change("#a");
    EXPECT_TRUE(soon([&] { return told == 2; }));
    EXPECT_EQ(toldOther, 0);
    watch->reset();
    EXPECT_EQ(session_->watches(), 1U);
    session_->change("#a");
    session_->change("#b");
    EXPECT_TRUE(soon([&] { return toldOther == 1; }));
    EXPECT_EQ(told, 2);
}

TEST_F(SessionOverTheBusTest, TwoWatchesOfOneContainerAreBothTold) {
    std::atomic<int> first = 0, second = 0;
    auto one = client_->watch("#a", [&] { ++first; });
    auto two = client_->watch("#a", [&] { ++second; });
    EXPECT_EQ(session_->watches(), 1U);
    session_->change("#a");
    EXPECT_TRUE(soon([&] { return first == 1 && second == 1; }));
    one->reset();
    (void)client_->currentAnchor("#a");
    session_->change("#a");
    EXPECT_TRUE(soon([&] { return second == 2; }));
    EXPECT_EQ(first, 1);
}

TEST_F(SessionOverTheBusTest, AWatchThatCannotBeIsNotLeftBehind) {
    session_->watching = failure(Error{ErrorDomain::host, session::kNoSuchItem, {}});
    const auto watch = client_->watch("#none", [] {});
    ASSERT_FALSE(watch);
    EXPECT_TRUE(watch.error().is(ErrorDomain::host, session::kNoSuchItem));
    EXPECT_EQ(server_->counts().watches, 0U);
}

TEST_F(SessionOverTheBusTest, AServiceThatIsStartedAnewWatchesOnAndTellsToLook) {
    std::atomic<int> told = 0;
    auto watch = client_->watch("#a", [&] { ++told; });
    ASSERT_TRUE(watch);
    server_.reset();
    EXPECT_EQ(session_->watches(), 0U);
    const auto none = client_->currentAnchor("root");
    ASSERT_FALSE(none);
    EXPECT_TRUE(none.error().is(ErrorDomain::posix, ECONNREFUSED));
    startServer({});
    EXPECT_TRUE(soon([&] { return told >= 1; }));
    EXPECT_EQ(session_->watches(), 1U);
    session_->change("#a");
    EXPECT_TRUE(soon([&] { return told >= 2; }));
}

}  // namespace
}  // namespace tarnwell::bus
