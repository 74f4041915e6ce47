#include "platform/events/LiveIndex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "platform/watch/KernelWatcher.h"
#include "testing/FaultyWatcher.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TestDevice.h"

namespace tarnwell::events {
namespace {

using testing::makeDirectories;
using testing::writeFile;

/// The index of a device, kept live by hand: no thread looks at hints but for the one of the index itself.
class LiveIndexTest : public ::testing::Test {
protected:
    LiveIndexTest() {
        auto real = watch::makeWatcher();
        EXPECT_TRUE(real.has_value());
        auto faulty = std::make_unique<testing::FaultyWatcher>(std::move(*real));
        watcher_ = faulty.get();
        live_.emplace(device_.comparer(), std::move(faulty));
    }
    void begin() { ASSERT_TRUE(live_->begin()); }
    void catchUp() { ASSERT_TRUE(live_->catchUp()); }
    /// What the index has below the storage root, by the names of the path.
    std::set<std::string> known(bool visibleOnly = false) {
        std::set<std::string> paths;
        store::Session session(device_.store());
        const auto storage = device_.roots().storage();
        std::vector<std::pair<FileID, std::string>> folders;
        struct stat status{};
        EXPECT_EQ(::stat(device_.path().c_str(), &status), 0);
        for (auto& row : session.index().folders(FileID{0})) {
            if (row.name == storage->name) folders.emplace_back(row.fileID, "");
        }
        while (!folders.empty()) {
            const auto [folder, path] = folders.back();
            folders.pop_back();
            for (auto& row : session.index().children(folder, 0, 100'000)) {
                if (visibleOnly && !row.visible) continue;
                paths.insert(path + row.name);
                if (row.isDirectory()) folders.emplace_back(row.fileID, path + row.name + "/");
            }
        }
        return paths;
    }
    /// What of it clients may be told of.
    std::set<std::string> visible() { return known(true); }
    using Paths = std::set<std::string>;

    testing::TestDevice device_;
    testing::FaultyWatcher* watcher_ = nullptr;
    std::optional<LiveIndex> live_;
};

TEST_F(LiveIndexTest, BeginsWithWhatIsThere) {
    makeDirectories(device_.path("a/b"));
    writeFile(device_.path("a/b/c"), "x");
    EXPECT_FALSE(live_->isLive());
    begin();
    EXPECT_TRUE(live_->isLive());
    EXPECT_TRUE(live_->isComplete());
    EXPECT_EQ(known(), (Paths{"a", "a/b", "a/b/c"}));
    EXPECT_EQ(watcher_->watches(), 3u);
}

TEST_F(LiveIndexTest, ShowsAFileUnderAnotherNameOnceItsFirstIsHidden) {
    makeDirectories(device_.path("folder"));
    writeFile(device_.path("a"), "x");
    begin();
    for (const std::string other : {"b", "folder/b", ".hidden"}) {
        std::filesystem::create_hard_link(device_.path("a"), device_.path(other));
        catchUp();
        std::filesystem::rename(device_.path("a"), device_.path(".a"));
        catchUp();
        if (other == ".hidden") {
            EXPECT_EQ(visible(), (Paths{"folder"}));
            break;
        }
        EXPECT_EQ(visible(), (Paths{"folder", other}));
        std::filesystem::remove(device_.path(other));
        std::filesystem::rename(device_.path(".a"), device_.path("a"));
        catchUp();
        EXPECT_EQ(visible(), (Paths{"folder", "a"}));
    }
}

TEST_F(LiveIndexTest, ShowsAFileInAFolderThatMovesWhileItsFirstNameIsHidden) {
    makeDirectories(device_.path("folder"));
    writeFile(device_.path("a"), "x");
    std::filesystem::create_hard_link(device_.path("a"), device_.path("folder/b"));
    begin();
    EXPECT_EQ(visible(), (Paths{"a", "folder"}));
    std::filesystem::rename(device_.path("a"), device_.path(".a"));
    std::filesystem::rename(device_.path("folder"), device_.path("moved"));
    catchUp();
    EXPECT_EQ(visible(), (Paths{"moved", "moved/b"}));
}

TEST_F(LiveIndexTest, OfTheNamesThatAreLeftTheOneThatIsSeenIsShown) {
    makeDirectories(device_.path(".before"));
    makeDirectories(device_.path("folder"));
    makeDirectories(device_.path(".then"));
    writeFile(device_.path("a"), "x");
    begin();
    for (const std::string name : {".before/b", "folder/b", ".then/b"}) {
        std::filesystem::create_hard_link(device_.path("a"), device_.path(name));
        catchUp();
    }
    std::filesystem::remove(device_.path("a"));
    catchUp();
    EXPECT_EQ(visible(), (Paths{"folder", "folder/b"}));
}

TEST_F(LiveIndexTest, KnowsAtOnceWhatWasWrittenUnderANameThatMovedOn) {
    makeDirectories(device_.path(".hidden"));
    writeFile(device_.path("a"), "x");
    writeFile(device_.path("c"), "other");
    begin();
    std::filesystem::create_hard_link(device_.path("a"), device_.path("b"));
    writeFile(device_.path("b"), "longer than before");
    ASSERT_EQ(::rename(device_.path("b").c_str(), device_.path(".hidden/b").c_str()), 0);
    ASSERT_EQ(::rename(device_.path("c").c_str(), device_.path("b").c_str()), 0);
    catchUp();
    store::Session session(device_.store());
    const auto root = session.index().childNamed(FileID{0}, device_.roots().storage()->name);
    ASSERT_TRUE(root);
    const auto row = session.index().childNamed(root->fileID, "a");
    ASSERT_TRUE(row);
    EXPECT_EQ(row->size, std::string("longer than before").size());
}

TEST_F(LiveIndexTest, KnowsAtOnceWhatHappenedInNewFolders) {
    begin();
    for (int round = 0; round < 200; ++round) {
        const std::string top = "top" + std::to_string(round);
        makeDirectories(device_.path(top + "/in/deep"));
        writeFile(device_.path(top + "/in/deep/file"), "x");
        std::filesystem::rename(device_.path(top + "/in"), device_.path(top + "/moved"));
        writeFile(device_.path(top + "/moved/deep/second"), "x");
        catchUp();
        const auto paths = known();
        ASSERT_TRUE(paths.contains(top + "/moved/deep/file")) << round;
        ASSERT_TRUE(paths.contains(top + "/moved/deep/second")) << round;
        ASSERT_FALSE(paths.contains(top + "/in")) << round;
        std::filesystem::remove_all(device_.path(top));
        catchUp();
        ASSERT_EQ(known(), Paths{}) << round;
    }
    EXPECT_EQ(watcher_->watches(), 1u) << "watches of removed folders are given back";
}

TEST_F(LiveIndexTest, ComparesEverythingAfterAnOverflow) {
    makeDirectories(device_.path("a"));
    begin();
    live_->end();  // nobody else drains
    makeDirectories(device_.path("a/new"));
    writeFile(device_.path("a/new/file"), "x");
    watcher_->overflowOnce();
    ASSERT_TRUE(live_->begin());
    watcher_->overflowOnce();
    writeFile(device_.path("a/new/second"), "x");
    catchUp();
    EXPECT_EQ(known(), (Paths{"a", "a/new", "a/new/file", "a/new/second"}));
    writeFile(device_.path("a/new/third"), "x");
    catchUp();
    EXPECT_TRUE(known().contains("a/new/third"));
    EXPECT_GE(live_->status().overflows, 1u);
}

TEST_F(LiveIndexTest, PollsWhatCannotBeWatched) {
    for (const char* name : {"a", "b", "c", "d"}) makeDirectories(device_.path(name));
    watcher_->limitWatches(3);
    begin();
    EXPECT_EQ(live_->status().polledFolders, 2u);
    EXPECT_FALSE(live_->isComplete());
    Paths expected{"a", "b", "c", "d"};
    for (const char* name : {"a", "b", "c", "d"}) {
        writeFile(device_.path(std::string(name) + "/file"), "x");
        makeDirectories(device_.path(std::string(name) + "/folder"));
        writeFile(device_.path(std::string(name) + "/folder/file"), "x");
        expected.insert(
            {std::string(name) + "/file", std::string(name) + "/folder", std::string(name) + "/folder/file"});
    }
    catchUp();
    EXPECT_EQ(known(), expected);
    watcher_->limitWatches(1000);
    catchUp();
    EXPECT_TRUE(live_->isComplete()) << "watched as soon as that can be";
    EXPECT_EQ(live_->status().polledFolders, 0u);
}

TEST_F(LiveIndexTest, AFileWithANameElsewhereChangesUnderThatOneToo) {
    const testing::TemporaryDirectory elsewhere;
    const auto knownSize = [&](const std::string& name) -> std::uint64_t {
        store::Session session(device_.store());
        for (auto& root : session.index().folders(FileID{0})) {
            if (auto row = session.index().childNamed(root.fileID, name)) return row->size;
        }
        return 0;
    };
    const auto link = [](const std::string& from, const std::string& to) {
        ASSERT_EQ(::link(from.c_str(), to.c_str()), 0);
    };
    const auto move = [](const std::string& from, const std::string& to) {
        ASSERT_EQ(::rename(from.c_str(), to.c_str()), 0);
    };
    /// Brings the index up to now, then writes under the name elsewhere of the file of one byte.
    const auto expectSeen = [&](const std::string& other, const std::string& name) {
        catchUp();
        const Descriptor file(::open(elsewhere.path(other).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        ASSERT_EQ(::write(file.get(), "xx", 2), 2);
        catchUp();
        EXPECT_EQ(knownSize(name), 3u) << name;
    };
    writeFile(device_.path("before"), "x");
    link(device_.path("before"), elsewhere.path("before"));
    begin();
    expectSeen("before", "before");
    // One that gets a name here only now.
    writeFile(elsewhere.path("now"), "x");
    link(elsewhere.path("now"), device_.path("now"));
    expectSeen("now", "now");
    // One whose second name is moved out.
    writeFile(device_.path("inside"), "x");
    link(device_.path("inside"), device_.path("second"));
    catchUp();
    move(device_.path("second"), elsewhere.path("second"));
    expectSeen("second", "inside");
    // One whose second name leaves with its folder.
    makeDirectories(device_.path("folder"));
    writeFile(device_.path("alone"), "x");
    link(device_.path("alone"), device_.path("folder/third"));
    catchUp();
    move(device_.path("folder"), elsewhere.path("folder"));
    expectSeen("folder/third", "alone");
    EXPECT_EQ(device_.comparer().namedElsewhere().size(), 4u);

    // Without the names elsewhere nothing is polled.
    for (const char* name : {"before", "now", "second", "folder/third"})
        ASSERT_EQ(::unlink(elsewhere.path(name).c_str()), 0);
    catchUp();
    EXPECT_TRUE(device_.comparer().namedElsewhere().empty());
}

TEST_F(LiveIndexTest, ADocumentThatStaysWithItsNameLeavesTheFolderThatItWasKnownInMeanwhile) {
    for (const char* folder : {"a", "b"}) makeDirectories(device_.path(folder));
    writeFile(device_.path("a/file"), "first version");
    begin();
    std::filesystem::rename(device_.path("a/file"), device_.path("b/file"));
    catchUp();
    const auto rowOf = [&](const std::string& path) {
        return *device_.comparer().rowAt(*device_.roots().locate(device_.url(path).path()));
    };
    const auto document = rowOf("b/file").documentID;
    ASSERT_TRUE(document);
    const std::uint64_t before = raw(device_.store().lastEventID());
    writeFile(device_.path("a/file"), "second version");
    catchUp();
    ASSERT_EQ(rowOf("a/file").documentID, document);
    const std::uint64_t folder = raw(rowOf("b").fileID);
    store::Session session(device_.store());
    const auto records = session.journal().recordsAfter(before, 100, true);
    EXPECT_TRUE(std::any_of(records.begin(), records.end(), [&](const auto& record) {
        return record.departure->documentID == document && record.departure->folder == folder;
    }));
}

TEST_F(LiveIndexTest, ItsThreadLooksByItself) {
    begin();
    writeFile(device_.path("file"), "x");
    for (int i = 0; i < 5000 && known().empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(known(), Paths{"file"});
}

TEST_F(LiveIndexTest, GoneObjectsAreForgottenInTheEnd) {
    writeFile(device_.path("file"), "x");
    begin();
    std::filesystem::remove(device_.path("file"));
    catchUp();
    {
        store::Session session(device_.store());
        EXPECT_EQ(session.index().inState(store::ObjectState::gone, 10).size(), 1u);
    }
    std::this_thread::sleep_for(files::Comparer::kSavingTime + std::chrono::milliseconds(200));
    catchUp();
    store::Session session(device_.store());
    EXPECT_TRUE(session.index().inState(store::ObjectState::gone, 10).empty());
}

TEST_F(LiveIndexTest, OnceItIsQuietTheStoreIsTidied) {
    begin();
    const std::string database = device_.store().directory() + "/index.sqlite";
    const auto before = std::filesystem::file_size(database);
    for (int i = 0; i < 12'000; ++i) writeFile(device_.path("a file of many " + std::to_string(i)), "");
    // By hand, so that its own look finds nothing left to do: a quiet moment is one all the same.
    catchUp();
    const auto isTidied = [&] { return std::filesystem::file_size(database) > before + 500 * 1024; };
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!isTidied() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(isTidied());
}

TEST_F(LiveIndexTest, FortyThousandFilesInABurst) {
    makeDirectories(device_.path("burst"));
    begin();
    for (int i = 0; i < 40'000; ++i) {
        writeFile(device_.path("burst/" + std::to_string(i)), "");
    }
    catchUp();
    EXPECT_EQ(known().size(), 40'001u);
}

}  // namespace
}  // namespace tarnwell::events
