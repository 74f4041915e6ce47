#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <future>
#include <map>

#include "host/Listing.h"
#include "host/ProgramContext.h"
#include "platform/base/Descriptor.h"
#include "platform/store/Database.h"
#include "platform/store/Store.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Variables.h"

namespace tarnwell::deep {
namespace {

using host::ProgramContext;
using testing::makeDirectories;
using testing::writeFile;
using Texts = std::vector<std::string>;

/// A home with documents and no application, and the whole program on it.
class ProgramFaults : public ::testing::Test {
protected:
    ProgramFaults() {
        log_.setThreshold(log::Level::error);
        makeDirectories(home_ + "/Documents/Folder");
        writeFile(home_ + "/Documents/Folder/one.txt", "1");
        writeFile(home_ + "/Documents/two.txt", "22");
    }

    host::Settings settings() const {
        const std::map<std::string, std::string> variables{{"HOME", home_}, {"XDG_DATA_DIRS", home_ + "/system"}};
        return host::Settings::from(testing::variables(variables), std::nullopt).value();
    }
    Result<std::unique_ptr<ProgramContext>> tryOpen() {
        auto context = ProgramContext::create(settings(), log_);
        if (context) (*context)->prepareForRequests();
        return context;
    }
    std::unique_ptr<ProgramContext> open() {
        auto context = tryOpen();
        EXPECT_TRUE(context.has_value()) << describe(context.error());
        return context ? std::move(*context) : nullptr;
    }
    static Texts pathsIn(ProgramContext& context) {
        const auto items = host::listContainer(context.provider(), hostframework::kRootContainer,
                                               {.depth = host::Depth::recursive, .progress = {}});
        EXPECT_TRUE(items.has_value()) << describe(items.error());
        Texts paths;
        if (items) {
            for (const auto& listed : *items) paths.push_back(listed.path);
        }
        std::ranges::sort(paths);
        return paths;
    }
    std::string database() const { return settings().stateDirectory + "/index.sqlite"; }
    std::string documents(const std::string& relative = "") const { return home_ + "/Documents" + relative; }
    std::size_t databasesAside() const {
        return static_cast<std::size_t>(std::ranges::count_if(
            std::filesystem::directory_iterator(settings().stateDirectory),
            [](const auto& entry) { return entry.path().filename().string().starts_with("index.sqlite.damaged-"); }));
    }

    testing::TemporaryDirectory directory_;
    std::string home_ = directory_.path("home");
    testing::CapturingLog log_;
    const Texts everything_{"Folder", "Folder/one.txt", "two.txt"};
};

/// Overwrites all pages of the file but the first.
void overwritePages(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    struct stat status{};
    ASSERT_EQ(::fstat(file.get(), &status), 0);
    const std::string garbage(4096, '\xa5');
    for (off_t at = 4096; at < status.st_size; at += 4096) {
        ASSERT_EQ(::pwrite(file.get(), garbage.data(), garbage.size(), at), 4096);
    }
}

TEST_F(ProgramFaults, ADatabaseThatIsOverwrittenUnderTheRunningProgramIsAnErrorAndRebuiltAtTheNextStart) {
    ASSERT_EQ(pathsIn(*open()), everything_);
    {
        // So large that a start does not look at every page of it, and that its pages are not kept in memory.
        auto database = store::Database::open(this->database());
        ASSERT_TRUE(database.has_value());
        (*database)->execute(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100) INSERT INTO "
            "departure(event, fileID, folder, path) SELECT -i, 1000000 + i, 0, randomblob(100000) FROM n");
        ASSERT_FALSE((*database)->error().has_value());
    }
    {
        auto context = open();
        overwritePages(database());
        const auto items = host::listContainer(context->provider(), hostframework::kRootContainer);
        ASSERT_FALSE(items.has_value());
        EXPECT_TRUE(items.error().is(ErrorDomain::store, static_cast<std::int64_t>(store::StoreError::damaged)))
            << describe(items.error());
        EXPECT_NE(describe(items.error()).find("it is rebuilt at the next start"), std::string::npos);
        // Asked again, it says so again.
        EXPECT_FALSE(host::listContainer(context->provider(), hostframework::kRootContainer).has_value());
        EXPECT_FALSE(context->provider().itemForIdentifier("fid=1").has_value());
        const auto anchor = host::currentSyncAnchor(context->provider(), hostframework::kWorkingSetContainer);
        EXPECT_TRUE(anchor.has_value() && !anchor->has_value());
    }
    log_.clear();
    {
        auto context = open();
        EXPECT_EQ(context->store().origin(), store::StoreOrigin::recoveredAfterDamage);
        const auto lines = log_.texts(log::Level::error);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines.front().starts_with("[ERROR] the store's database was damaged (")) << lines.front();
        EXPECT_EQ(databasesAside(), 1u);
        EXPECT_EQ(pathsIn(*context), everything_);
    }
    log_.clear();
    auto context = open();
    EXPECT_EQ(context->store().origin(), store::StoreOrigin::reopened);
    EXPECT_EQ(pathsIn(*context), everything_);
    EXPECT_EQ(log_.texts(log::Level::error), Texts{});
}

/// What is told of the storage root since a position; nothing when it cannot be told.
std::optional<std::vector<events::FileEvent>> toldSince(ProgramContext& context, EventID since) {
    events::StreamOptions options;
    options.over = events::StreamOverPaths{{URL::file(context.roots().storage()->name)}};
    options.since = since;
    std::promise<bool> done;
    bool isDone = false;
    std::vector<events::FileEvent> told;
    auto stream = context.events().createStream(options, [&](const std::vector<events::FileEvent>& batch) {
        for (const auto& event : batch) {
            const bool ends = (event.flags & (events::kEventHistoryDone | events::kEventUserDropped)) != 0;
            if (ends && !std::exchange(isDone, true)) done.set_value((event.flags & events::kEventHistoryDone) != 0);
            if (!ends) told.push_back(event);
        }
    });
    EXPECT_TRUE(stream.has_value());
    const auto pool = dispatch::ThreadPool::create();
    const auto queue = dispatch::SerialQueue::create(pool, "test.told");
    (*stream)->setQueue(queue);
    EXPECT_TRUE((*stream)->start());
    const bool isTold = done.get_future().get();
    queue->sync([&] { (*stream)->stop(); });
    return isTold ? std::optional(told) : std::nullopt;
}

TEST_F(ProgramFaults, AStorageRootThatIsMissingAtAStartLosesNothing) {
    EventID position{};
    std::string identifier;
    {
        auto context = open();
        ASSERT_EQ(pathsIn(*context), everything_);
        const auto items = host::listContainer(context->provider(), hostframework::kRootContainer);
        for (const auto& [item, path] : *items) {
            if (path == "two.txt") identifier = item->itemIdentifier();
        }
        position = *context->events().currentEventID({}, events::Interest::everything);
    }
    std::filesystem::rename(documents(), home_ + "/elsewhere");
    const auto refused = tryOpen();
    ASSERT_FALSE(refused.has_value());
    EXPECT_TRUE(refused.error().is(ErrorDomain::posix, ENOENT)) << describe(refused.error());
    EXPECT_NE(describe(refused.error()).find("does not exist; make that folder"), std::string::npos);
    // Another folder in its place is another root; what was known of the first one stays known.
    makeDirectories(documents());
    writeFile(documents("/new.txt"), "new");
    EXPECT_EQ(pathsIn(*open()), Texts{"new.txt"});
    std::filesystem::remove_all(documents());
    std::filesystem::rename(home_ + "/elsewhere", documents());

    auto context = open();
    EXPECT_EQ(pathsIn(*context), everything_);
    const auto item = context->provider().itemForIdentifier(identifier);
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ((*item)->filename(), "two.txt");
    const auto told = toldSince(*context, position);
    ASSERT_TRUE(told.has_value());
    for (const auto& event : *told) {
        // What the other folder held went with it.
        const std::string path = event.path.value_or("no path");
        const bool isGone = (event.flags & events::kEventItemRemoved) != 0;
        EXPECT_EQ(isGone, path == documents("/new.txt")) << path;
    }
}

TEST_F(ProgramFaults, AStorageRootThatIsRemovedUnderTheRunningProgramIsNotToldAsDeletedPieceByPiece) {
    auto context = open();
    ASSERT_EQ(pathsIn(*context), everything_);
    const EventID position = *context->events().currentEventID({}, events::Interest::everything);
    std::filesystem::remove_all(documents());
    // The place of a removed folder says nothing of what became of the things in it.
    const auto told = toldSince(*context, position);
    ASSERT_TRUE(told.has_value());
    EXPECT_TRUE(told->empty());
    const auto items = host::listContainer(context->provider(), hostframework::kRootContainer);
    EXPECT_TRUE(!items || items->empty());
    // A folder made anew there is for the next start.
    makeDirectories(documents());
    writeFile(documents("/new.txt"), "new");
    context.reset();
    EXPECT_EQ(pathsIn(*open()), Texts{"new.txt"});
}

TEST_F(ProgramFaults, AStoreHeldByAnotherOwnerAndOneThatCannotBeMadeGiveOneClearErrorEach) {
    auto context = open();
    const auto second = ProgramContext::create(settings(), log_);
    ASSERT_FALSE(second.has_value());
    EXPECT_TRUE(second.error().is(ErrorDomain::store, static_cast<std::int64_t>(store::StoreError::inUse)));
    EXPECT_NE(describe(second.error()).find("in use by process " + std::to_string(::getpid())), std::string::npos)
        << describe(second.error());
    EXPECT_EQ(pathsIn(*context), everything_);
    context.reset();

    std::filesystem::remove_all(settings().stateDirectory);
    writeFile(settings().stateDirectory, "a file where the folder should be");
    const auto refused = ProgramContext::create(settings(), log_);
    ASSERT_FALSE(refused.has_value());
    EXPECT_NE(describe(refused.error()).find(settings().stateDirectory), std::string::npos);
}

}  // namespace
}  // namespace tarnwell::deep
