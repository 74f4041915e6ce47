#include "host/HostFileOperations.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <future>
#include <set>
#include <thread>

#include "platform/operations/Scratch.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TestDevice.h"

namespace tarnwell::host {
namespace {

using hostframework::Bouncing;
using testing::makeDirectories;
using testing::readFile;
using testing::writeFile;

class HostFileOperationsTest : public ::testing::Test {
protected:
    template <typename Start>
    Result<URL> wait(Start&& start) {
        std::promise<Result<URL>> promise;
        auto result = promise.get_future();
        start([&](const Result<URL>& url) { promise.set_value(url); });
        return result.get();
    }
    Result<URL> import(const std::string& realPath, const std::string& parent = "") {
        return wait([&](auto done) {
            operations_->importUnderFolder(device_.roots().urlForRealPath(realPath), device_.url(parent), done);
        });
    }
    Result<URL> reparent(const std::string& item, const std::string& parent,
                         const std::optional<std::string>& name = std::nullopt, Bouncing bouncing = Bouncing::refused) {
        return wait([&](auto done) {
            operations_->reparentUnderFolder(device_.url(item), device_.url(parent), name, bouncing, done);
        });
    }
    Result<URL> trash(const std::string& item) {
        return wait([&](auto done) { operations_->trashUnderFolder(device_.url(item), device_.url(".Trash"), done); });
    }

    testing::TestDevice device_;
    std::unique_ptr<HostFileOperations> operations_ = std::make_unique<HostFileOperations>(
        operations::Context{device_.roots(), device_.store(), device_.log(), &device_.ownChanges()}, device_.pool());
};

TEST_F(HostFileOperationsTest, WhatThrowsIsAnErrorAndKeepsNoPlaceAmongTheOperations) {
    for (std::size_t i = 0; i < 2 * HostFileOperations::kMostAtOnce; ++i) {
        const std::string document = device_.home() + "/file " + std::to_string(i);
        writeFile(document, "text");
        const auto monitor = std::make_shared<operations::TransferMonitor>(
            [](const operations::TransferProgress&) { throw std::bad_alloc(); });
        operations_->startWatched(device_.roots().urlForRealPath(document), monitor, [] {});
        const auto imported = import(document);
        ASSERT_FALSE(imported);
        EXPECT_TRUE(imported.error().is(ErrorDomain::posix, ENOMEM)) << describe(imported.error());
        operations_->startWatched(device_.roots().urlForRealPath(document), {}, [] {});
        EXPECT_TRUE(import(document));
    }
    operations_.reset();
}

TEST_F(HostFileOperationsTest, EachOperationGivesTheURLAtWhichTheThingStands) {
    writeFile(device_.home() + "/a.txt", "text");
    EXPECT_EQ(import(device_.home() + "/a.txt").value(), device_.url("a.txt"));
    EXPECT_EQ(wait([&](auto done) { operations_->createSubfolder(device_.url(), "folder", done); }).value(),
              device_.url("folder"));
    EXPECT_EQ(wait([&](auto done) { operations_->renameWithNewName(device_.url("a.txt"), "b.txt", done); }).value(),
              device_.url("b.txt"));
    EXPECT_EQ(reparent("b.txt", "folder").value(), device_.url("folder/b.txt"));
    EXPECT_EQ(reparent("folder/b.txt", "", "c.txt").value(), device_.url("c.txt"));
    EXPECT_EQ(readFile(device_.path("c.txt")), "text");
    std::promise<std::optional<Error>> gone;
    operations_->deleteItem(device_.url("c.txt"), [&](const auto& error) { gone.set_value(error); });
    EXPECT_EQ(gone.get_future().get(), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(device_.path("c.txt")));
}

TEST_F(HostFileOperationsTest, ACollisionCarriesTheURLOfWhatHasTheName) {
    writeFile(device_.path("a.txt"), "a");
    writeFile(device_.path("b.txt"), "b");
    makeDirectories(device_.path("folder"));
    writeFile(device_.path("folder/a.txt"), "other");
    writeFile(device_.home() + "/a.txt", "outside");
    const auto check = [&](const Result<URL>& result, const std::string& taken) {
        ASSERT_FALSE(result);
        EXPECT_TRUE(result.error().is(ErrorDomain::generalFile, kFileExists)) << describe(result.error());
        EXPECT_EQ(result.error().userInfo.at(hostframework::kErrorCollidingURL), device_.url(taken).path());
    };
    check(wait([&](auto done) { operations_->renameWithNewName(device_.url("a.txt"), "b.txt", done); }), "b.txt");
    check(reparent("a.txt", "folder"), "folder/a.txt");
    check(import(device_.home() + "/a.txt"), "a.txt");
    check(wait([&](auto done) { operations_->createSubfolder(device_.url(), "folder", done); }), "folder");
    EXPECT_EQ(reparent("a.txt", "folder", std::nullopt, Bouncing::allowed).value(), device_.url("folder/a 2.txt"));
}

TEST_F(HostFileOperationsTest, OutOfTheTrashComesTheNameThatItReplaced) {
    makeDirectories(device_.path(".Trash"));
    makeDirectories(device_.path("folder"));
    writeFile(device_.path("a.txt"), "1");
    EXPECT_EQ(trash("a.txt").value(), device_.url(".Trash/a.txt"));
    writeFile(device_.path("folder/a.txt"), "2");
    device_.settle();
    EXPECT_EQ(trash("folder/a.txt").value(), device_.url(".Trash/a 2.txt"));
    const auto origin = operations_->trashOriginOf(device_.url(".Trash/a 2.txt"));
    ASSERT_TRUE(origin);
    EXPECT_EQ(origin->name, "a.txt");
    ASSERT_TRUE(origin->folder);
    EXPECT_EQ(device_.files().pathOfFileID(*origin->folder, device_.device()).value(), device_.url("folder"));
    writeFile(device_.path("a.txt"), "taken");
    EXPECT_EQ(reparent(".Trash/a 2.txt", "", std::nullopt, Bouncing::allowed).value(), device_.url("a 2.txt"));
    EXPECT_EQ(trash("a 2.txt").value(), device_.url(".Trash/a 2.txt"));
    EXPECT_EQ(reparent(".Trash/a 2.txt", "folder", "named.txt").value(), device_.url("folder/named.txt"));
    EXPECT_EQ(reparent(".Trash/a.txt", "folder").value(), device_.url("folder/a.txt"));
    EXPECT_EQ(readFile(device_.path("folder/a.txt")), "1");
    EXPECT_EQ(readFile(device_.path("folder/named.txt")), "2");
    EXPECT_FALSE(operations_->trashOriginOf(device_.url("folder/a.txt")));
}

TEST_F(HostFileOperationsTest, PlacesBelowNoRootAreRefused) {
    writeFile(device_.home() + "/outside", "x");
    const URL outside = URL::file(device_.home() + "/outside"), home = URL::file(device_.home());
    for (const auto& result :
         {wait([&](auto done) { operations_->renameWithNewName(outside, "x", done); }),
          wait([&](auto done) { operations_->createSubfolder(home, "x", done); }),
          wait([&](auto done) { operations_->trashUnderFolder(outside, device_.url(), done); }), wait([&](auto done) {
              operations_->reparentUnderFolder(outside, device_.url(), std::nullopt, Bouncing::allowed, done);
          }),
          wait([&](auto done) { operations_->importUnderFolder(outside, home, done); }),
          wait([&](auto done) { operations_->createSubfolder(device_.url(), "../x", done); })}) {
        EXPECT_FALSE(result);
    }
    EXPECT_EQ(readFile(device_.home() + "/outside"), "x");
    EXPECT_FALSE(operations_->readWrite(outside, [](const Descriptor&) { return Result<void>(); }));
}

TEST_F(HostFileOperationsTest, AMonitorOfADocumentSeesItsImportAndCancelsIt) {
    writeFile(device_.home() + "/large", std::string(std::size_t{20} << 20, 'x'));
    const URL document = device_.roots().urlForRealPath(device_.home() + "/large");
    auto monitor = std::make_shared<operations::TransferMonitor>();
    operations_->startWatched(document, monitor, [] {});
    ASSERT_TRUE(import(device_.home() + "/large"));
    EXPECT_EQ(monitor->progress().bytesDone, std::uint64_t{20} << 20);
    EXPECT_EQ(monitor->progress().bytesTotal, std::uint64_t{20} << 20);
    operations::TransferMonitor* self = nullptr;
    const auto cancelling = std::make_shared<operations::TransferMonitor>([&](const operations::TransferProgress& p) {
        if (p.bytesDone > 0) self->cancel();
    });
    self = cancelling.get();
    operations_->startWatched(document, cancelling, [] {});
    makeDirectories(device_.path("folder"));
    const auto cancelled = import(device_.home() + "/large", "folder");
    ASSERT_FALSE(cancelled);
    EXPECT_TRUE(cancelled.error().is(ErrorDomain::posix, ECANCELED)) << describe(cancelled.error());
    EXPECT_TRUE(std::filesystem::is_empty(device_.path("folder")));
}

TEST_F(HostFileOperationsTest, AccessIsForFilesAndFoldersOnlyAndAttributesCanBeWritten) {
    writeFile(device_.path("a.txt"), "a");
    makeDirectories(device_.path("folder"));
    ASSERT_EQ(::symlink("a.txt", device_.path("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(device_.path("pipe").c_str(), 0644), 0);
    for (const char* name : {"a.txt", "folder"}) {
        const auto written = operations_->readWrite(device_.url(name), [&](const Descriptor& descriptor) {
            return device_.files().setAttribute(descriptor, "tag", bytesOf("value"));
        });
        EXPECT_TRUE(written) << describe(written.error());
        Bytes value(5);
        EXPECT_EQ(device_.files().getAttribute(device_.url(name), "tag", value).value(), 5u);
    }
    const auto never = [](const Descriptor&) -> Result<void> {
        ADD_FAILURE() << "granted";
        return {};
    };
    EXPECT_TRUE(operations_->readWrite(device_.url("link"), never).error().is(ErrorDomain::posix, ELOOP));
    EXPECT_TRUE(operations_->readWrite(device_.url("pipe"), never).error().is(ErrorDomain::posix, EINVAL));
    EXPECT_TRUE(operations_->readWrite(device_.url("none"), never).error().is(ErrorDomain::posix, ENOENT));
    const auto fails = operations_->readWrite(
        device_.url("a.txt"), [](const Descriptor&) -> Result<void> { return failure(posixError(E2BIG)); });
    EXPECT_TRUE(fails.error().is(ErrorDomain::posix, E2BIG));
}

TEST_F(HostFileOperationsTest, ACompletionMayAskForMoreOnTheSamePaths) {
    writeFile(device_.path("a.txt"), "a");
    makeDirectories(device_.path(".Trash"));
    std::promise<bool> done;
    operations_->trashUnderFolder(device_.url("a.txt"), device_.url(".Trash"), [&](const Result<URL>& url) {
        const auto written = operations_->readWrite(*url, [](const Descriptor&) { return Result<void>(); });
        operations_->deleteItem(*url,
                                [&, ok = written.has_value()](const auto& error) { done.set_value(ok && !error); });
    });
    EXPECT_TRUE(done.get_future().get());
}

TEST_F(HostFileOperationsTest, CompletionsThatWaitForPathsKeepNobodyFromRunning) {
    constexpr int kItems = 3 * HostFileOperations::kMostAtOnce;
    makeDirectories(device_.path(".Trash"));
    for (int i = 0; i < kItems; ++i) writeFile(device_.path("file " + std::to_string(i)), "x");
    std::atomic<int> completed{0};
    std::promise<void> all;
    std::promise<std::optional<Error>> removed;
    // As the writer of everything, so that all of them stand in line before one begins.
    const auto asked = operations_->readWrite(device_.url(), [&](const Descriptor&) -> Result<void> {
        for (int i = 0; i < kItems; ++i) {
            const URL item = device_.url("file " + std::to_string(i));
            operations_->trashUnderFolder(item, device_.url(".Trash"), [&](const Result<URL>& url) {
                // Behind the removal of the folder, which waits for all of these operations.
                EXPECT_FALSE(operations_->readWrite(*url, [](const Descriptor&) { return Result<void>(); }));
                if (++completed == kItems) all.set_value();
            });
        }
        operations_->deleteItem(device_.url(".Trash"), [&](const auto& error) { removed.set_value(error); });
        return {};
    });
    EXPECT_TRUE(asked);
    EXPECT_EQ(removed.get_future().get(), std::nullopt);
    all.get_future().wait();
}

TEST_F(HostFileOperationsTest, EveryCompletionComesOnceAlsoWhenTheProgramEnds) {
    constexpr int kOperations = 200;
    std::array<std::atomic<int>, kOperations> completed{};
    std::atomic<int> done{0};
    makeDirectories(device_.path("folder"));
    for (int i = 0; i < kOperations; ++i) {
        operations_->createSubfolder(device_.url("folder"), std::to_string(i / 2), [&, i](const Result<URL>& url) {
            ++completed[static_cast<std::size_t>(i)];
            if (url) ++done;
        });
    }
    operations_.reset();
    int made = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(device_.path("folder"))) ++made;
    for (int i = 0; i < kOperations; ++i) EXPECT_EQ(completed[static_cast<std::size_t>(i)].load(), 1) << i;
    EXPECT_EQ(done.load(), made);
}

TEST_F(HostFileOperationsTest, ManyAtOnceInOneTreeLoseNothing) {
    constexpr int kThreads = 20, kSteps = 30;
    makeDirectories(device_.path(".Trash"));
    for (const char* name : {"f0/g", "f1/g", "f2/g"}) makeDirectories(device_.path(name));
    for (int i = 0; i < kThreads; ++i) writeFile(device_.path("f0/file " + std::to_string(i)), std::to_string(i));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::string mine = "f0/file " + std::to_string(t);
            unsigned random = static_cast<unsigned>(t) * 2654435761u + 1;
            for (int step = 0; step < kSteps; ++step) {
                random = random * 1664525u + 1013904223u;
                const std::string folder = "f" + std::to_string((random >> 8) % 3) + ((random >> 12) % 2 ? "/g" : "");
                const auto result = [&]() -> Result<URL> {
                    switch ((random >> 16) % 4) {
                        case 0:
                            return trash(mine);
                        case 1:
                            // All want one name.
                            return reparent(mine, folder, "same", Bouncing::refused);
                        case 2:
                            // A folder with what is in it, from under the others.
                            (void)reparent("f0/g", "f0", "h");
                            (void)reparent("f0/h", "f0", "g");
                            return failure(posixError(EAGAIN));
                        default:
                            return reparent(mine, folder, std::nullopt, Bouncing::allowed);
                    }
                }();
                if (result) mine = result->path().substr(device_.path().size() + 1);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    std::multiset<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(device_.path())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with(".tarnwell-")) << entry.path();
        if (entry.is_regular_file()) found.insert(readFile(entry.path().string()));
    }
    EXPECT_EQ(found.size(), static_cast<std::size_t>(kThreads));
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()).size(), static_cast<std::size_t>(kThreads));
}

TEST_F(HostFileOperationsTest, AFreshStartSettlesWhatWasLeft) {
    const auto folder = operations::openFolder(Place{device_.roots().storage(), ""}).value();
    operations_.reset();
    const auto record = [&](store::TemporaryKind kind, const std::string& name, const std::string& original) {
        store::Session session(device_.store());
        session.write();
        session.temporaries().add({0, kind, folder.place.root->name, "", folder.status.inode, folder.status.birth,
                                   std::nullopt, name, original});
        ASSERT_TRUE(session.commit());
    };
    const std::string copy = ".tarnwell-" + UUID::random().text(), aside = ".tarnwell-" + UUID::random().text(),
                      others = ".tarnwell-" + UUID::random().text();
    writeFile(device_.path(copy), "half");
    makeDirectories(device_.path(aside));
    writeFile(device_.path(aside + "/mine"), "mine");
    writeFile(device_.path(others), "nobody recorded it");
    writeFile(device_.path("no temporary"), "x");
    record(store::TemporaryKind::copy, copy, "");
    record(store::TemporaryKind::aside, aside, "folder");
    record(store::TemporaryKind::copy, "no temporary", "");
    record(store::TemporaryKind::copy, ".tarnwell-" + UUID::random().text(), "");
    HostFileOperations(operations::Context{device_.roots(), device_.store(), device_.log(), &device_.ownChanges()},
                       device_.pool())
        .cleanUp();
    EXPECT_FALSE(std::filesystem::exists(device_.path(copy)));
    EXPECT_EQ(readFile(device_.path("folder/mine")), "mine");
    EXPECT_EQ(readFile(device_.path(others)), "nobody recorded it");
    EXPECT_EQ(readFile(device_.path("no temporary")), "x");
    store::Session session(device_.store());
    EXPECT_TRUE(session.temporaries().all().empty());
}

TEST_F(HostFileOperationsTest, AFolderThatMovedSinceIsFoundAndAnotherOneAtItsPlaceIsLeftAlone) {
    makeDirectories(device_.path("folder/inner"));
    device_.settle();
    const auto inner = operations::openFolder(Place{device_.roots().storage(), "folder/inner"}).value();
    const auto scratch = operations::Scratch::reserve(device_.store(), inner, store::TemporaryKind::copy);
    writeFile(device_.path("folder/inner/" + scratch->name()), "half");
    std::filesystem::rename(device_.path("folder"), device_.path("moved"));
    makeDirectories(device_.path("folder/inner"));
    writeFile(device_.path("folder/inner/" + scratch->name()), "in another folder");
    // Not known yet where it is: kept for later.
    operations_->cleanUp();
    EXPECT_EQ(readFile(device_.path("moved/inner/" + scratch->name())), "half");
    device_.settle();
    operations_->cleanUp();
    EXPECT_FALSE(std::filesystem::exists(device_.path("moved/inner/" + scratch->name())));
    EXPECT_EQ(readFile(device_.path("folder/inner/" + scratch->name())), "in another folder");
    store::Session session(device_.store());
    EXPECT_TRUE(session.temporaries().all().empty());
}

}  // namespace
}  // namespace tarnwell::host
