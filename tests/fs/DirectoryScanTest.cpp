#include "fs/DirectoryScan.h"

#include <algorithm>
#include <cerrno>

#include "tests/fs/FSFixture.h"

namespace tarnwell::fs {
namespace {

using Lines = std::vector<std::string>;

/// Counts what a scan asks of the walkers, and lets a test report entries that cannot be read.
class WatchedFileSystem : public testing::FaultyFileSystem {
public:
    using FaultyFileSystem::FaultyFileSystem;

    Result<std::unique_ptr<files::DirectoryWalker>> walk(const URL& folder, unsigned options,
                                                         files::WalkErrorHandler errorHandler) override {
        walkOptions.push_back(options);
        for (const auto& error : unreadable) handlerSaidGoOn.push_back(errorHandler(folder.appending("bad"), error));
        auto walker = FaultyFileSystem::walk(folder, options, std::move(errorHandler));
        if (!walker) return walker;
        return std::make_unique<Walker>(*this, std::move(*walker));
    }

    std::vector<unsigned> walkOptions;
    std::vector<Error> unreadable;
    std::vector<bool> handlerSaidGoOn;
    std::size_t entriesFetched = 0;
    std::optional<Error> failure;

private:
    class Walker : public files::DirectoryWalker {
    public:
        Walker(WatchedFileSystem& owner, std::unique_ptr<DirectoryWalker> real)
            : owner_(owner), real_(std::move(real)) {}
        std::optional<URL> next() override {
            auto entry = real_->next();
            owner_.entriesFetched += entry.has_value();
            return entry;
        }
        std::uint64_t skip(std::uint64_t count) override { return real_->skip(count); }
        std::optional<Error> failure() const override { return owner_.failure; }

    private:
        WatchedFileSystem& owner_;
        std::unique_ptr<DirectoryWalker> real_;
    };
};

class DirectoryScanTest : public FSTest {
protected:
    struct Outcome {
        std::uint64_t counter = 0;
        Lines names;
    };
    Outcome scanned(const DirectoryScanOptions& options) {
        Outcome outcome;
        const auto counter = scan(watchedEnvironment_, options, [&](const URL& url) -> Result<void> {
            outcome.names.emplace_back(url.lastPathComponent());
            return {};
        });
        EXPECT_TRUE(counter.has_value());
        outcome.counter = counter.value_or(0);
        return outcome;
    }
    static Lines slice(const Lines& all, std::size_t from, std::size_t to) {
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.begin() + static_cast<std::ptrdiff_t>(to)};
    }
    static Lines sorted(Lines lines) {
        std::ranges::sort(lines);
        return lines;
    }

    WatchedFileSystem watched_{device_.files()};
    items::Environment watchedItems_{device_.programLog(), watched_, device_.generationStore(),
                                     device_.providerManager()};
    FSEnvironment watchedEnvironment_{watchedItems_, events_, device_.pool()};
};

TEST_F(DirectoryScanTest, LimitZeroWalksNothing) {
    makeFiles("a", 3);
    EXPECT_EQ(scanned({.urls = {device_.url("a")}, .limit = 0}).counter, 0u);
    EXPECT_EQ(watched_.calls(), 0u);
    EXPECT_EQ(newLines(), Lines{});
}

TEST_F(DirectoryScanTest, AWalkThatCannotKnowWhatComesNextFailsTheScan) {
    makeFiles("a", 3);
    makeFiles("b", 3);
    watched_.failure = posixError(EIO);
    std::size_t delivered = 0;
    const auto counter = scan(watchedEnvironment_, {.urls = {device_.url("a"), device_.url("b")}, .limit = 10},
                              [&](const URL&) -> Result<void> {
                                  ++delivered;
                                  return {};
                              });
    ASSERT_FALSE(counter.has_value());
    EXPECT_EQ(counter.error(), posixError(EIO));
    EXPECT_EQ(delivered, 3u) << "the second folder is not walked any more";
}

TEST_F(DirectoryScanTest, NoFoldersGiveNothing) {
    EXPECT_EQ(scanned({.urls = {}, .limit = 10}).counter, 0u);
    EXPECT_EQ(watched_.calls(), 0u);
}

TEST_F(DirectoryScanTest, WindowsReachOverTwoFolders) {
    makeFiles("a", 150, "a");
    makeFiles("b", 150, "b");
    const std::vector<URL> both{device_.url("a"), device_.url("b")};
    const auto all = scanned({.urls = both, .limit = 1000});
    ASSERT_EQ(all.names.size(), 300u);
    EXPECT_EQ(all.counter, 300u);

    struct Row {
        std::uint64_t offset, limit, counter;
        std::size_t from, to;
    };
    for (const Row& row :
         {Row{100, 200, 300, 100, 300}, Row{0, 200, 200, 0, 200}, Row{0, 150, 150, 0, 150}, Row{0, 149, 149, 0, 149},
          Row{0, 151, 151, 0, 151}, Row{150, 1, 151, 150, 151}, Row{299, 1, 300, 299, 300}, Row{299, 2, 300, 299, 300},
          Row{300, 200, 300, 300, 300}, Row{1000, 200, 300, 300, 300}, Row{0, 300, 300, 0, 300}}) {
        SCOPED_TRACE("offset " + std::to_string(row.offset) + " limit " + std::to_string(row.limit));
        const auto outcome = scanned({.urls = both, .offset = row.offset, .limit = row.limit});
        EXPECT_EQ(outcome.counter, row.counter);
        EXPECT_EQ(outcome.names, slice(all.names, row.from, row.to));
    }
}

TEST_F(DirectoryScanTest, AFullWindowLeavesTheNextFolderAloneOnlyWhenAnEntryIsPastIt) {
    makeFiles("a", 3);
    makeFiles("b", 3);
    const std::vector<URL> both{device_.url("a"), device_.url("b")};
    scanned({.urls = both, .limit = 2});
    EXPECT_EQ(watched_.walkOptions.size(), 1u);
    scanned({.urls = both, .limit = 3});
    EXPECT_EQ(watched_.walkOptions.size(), 3u);
}

TEST_F(DirectoryScanTest, NothingIsFetchedOfEntriesOutsideTheWindow) {
    makeFiles("a", 50);
    EXPECT_EQ(scanned({.urls = {device_.url("a")}, .offset = 30, .limit = 5}).counter, 35u);
    EXPECT_EQ(watched_.entriesFetched, 5u);
}

TEST_F(DirectoryScanTest, TheGreatestOffsetAndLimitCountTheEntries) {
    makeFiles("a", 5);
    constexpr auto kMost = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(scanned({.urls = {device_.url("a")}, .offset = kMost, .limit = kMost}).counter, 5u);
    EXPECT_EQ(scanned({.urls = {device_.url("a")}, .offset = 0, .limit = kMost}).counter, 5u);
    EXPECT_EQ(scanned({.urls = {device_.url("a")}, .offset = 2, .limit = kMost}).names.size(), 3u);
}

TEST_F(DirectoryScanTest, ListsDirectChildrenWithoutHiddenOnes) {
    makeFile("a/file");
    makeFile("a/.hidden");
    makeFile("a/sub/inner");
    const auto outcome = scanned({.urls = {device_.url("a")}, .limit = 10});
    EXPECT_EQ(sorted(outcome.names), (Lines{"file", "sub"}));
    EXPECT_EQ(watched_.walkOptions, std::vector<unsigned>{7});
}

TEST_F(DirectoryScanTest, RecursiveScansDescendButNotIntoHiddenFolders) {
    makeFile("a/file");
    makeFile("a/.hidden/inner");
    makeFile("a/sub/deep/inner");
    const auto outcome = scanned({.urls = {device_.url("a")}, .recursively = true, .limit = 10});
    EXPECT_EQ(sorted(outcome.names), (Lines{"deep", "file", "inner", "sub"}));
    EXPECT_EQ(watched_.walkOptions, std::vector<unsigned>{6});
}

TEST_F(DirectoryScanTest, OptionsForOneFolderReplaceTheDefaults) {
    makeFile("a/sub/inner");
    makeFile(".Trash/folder/inner");
    makeFile(".Trash/.hidden");
    const DirectoryScanOptions options{.urls = {device_.url("a"), device_.url(".Trash")},
                                       .recursively = true,
                                       .limit = 10,
                                       .directoryEnumerationOptionsFor = [](const URL& url) {
                                           return url.lastPathComponent() == ".Trash" ? std::optional(7u)
                                                                                      : std::nullopt;
                                       }};
    EXPECT_EQ(sorted(scanned(options).names), (Lines{"folder", "inner", "sub"}));
    EXPECT_EQ(watched_.walkOptions, (std::vector<unsigned>{6, 7}));
}

TEST_F(DirectoryScanTest, AFolderThatIsMissingIsLoggedAndTheRestIsScanned) {
    makeFiles("b", 2);
    const auto outcome = scanned({.urls = {device_.url("gone"), device_.url("b")}, .limit = 10});
    EXPECT_EQ(outcome.counter, 2u);
    EXPECT_EQ(newLines(), Lines{"[ERROR] can't create file enumerator at " + pathOf("gone")});
}

TEST_F(DirectoryScanTest, AFailingBodyEndsTheScanWithItsError) {
    makeFiles("a", 5);
    std::size_t delivered = 0;
    const auto result = scan(watchedEnvironment_, {.urls = {device_.url("a")}, .limit = 5}, [&](const URL&) {
        return ++delivered == 3 ? Result<void>(failure(posixError(EIO))) : Result<void>();
    });
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), posixError(EIO));
    EXPECT_EQ(delivered, 3u);
}

TEST_F(DirectoryScanTest, EntriesThatCannotBeReadAreLoggedAndPassedOver) {
    makeFiles("a", 1);
    const Error gone{ErrorDomain::generalFile, kNoSuchFileOnRead, {}};
    const Error denied = posixError(EACCES);
    const Error sameCodeElsewhere = posixError(260);
    watched_.unreadable = {gone, denied, sameCodeElsewhere};
    EXPECT_EQ(scanned({.urls = {device_.url("a")}, .limit = 10}).counter, 1u);
    EXPECT_EQ(watched_.handlerSaidGoOn, (std::vector<bool>{true, true, true}));
    const std::string prefix = "can't enumerate " + pathOf("a/bad") + "; ";
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] " + prefix + describe(gone), "[ERROR] " + prefix + describe(denied),
                                 "[ERROR] " + prefix + describe(sameCodeElsewhere)}));
}

TEST_F(DirectoryScanTest, AnErrorHandlerOfTheCallersReplacesTheLogging) {
    makeFiles("a", 1);
    watched_.unreadable = {posixError(EACCES)};
    Lines told;
    scanned({.urls = {device_.url("a")}, .limit = 10, .errorHandler = [&](const URL& url, const Error& error) {
                 told.push_back(url.path() + " " + describe(error));
                 return false;
             }});
    EXPECT_EQ(told, Lines{pathOf("a/bad") + " " + describe(posixError(EACCES))});
    EXPECT_EQ(watched_.handlerSaidGoOn, std::vector<bool>{false});
    EXPECT_EQ(newLines(), Lines{});
}

}  // namespace
}  // namespace tarnwell::fs
