#include "host/Listing.h"

#include <gtest/gtest.h>

#include <map>

#include "hostframework/HostError.h"
#include "items/TarnwellError.h"
#include "tests/host/StubProvider.h"

namespace tarnwell::host {
namespace {

using hostframework::EnumerationPage;
using hostframework::ItemIdentifier;
using hostframework::ProviderItemPtr;

class ScriptedItem : public hostframework::ProviderItem {
public:
    enum class Kind { document, folder };
    ScriptedItem(ItemIdentifier identifier, Kind kind) : identifier_(std::move(identifier)), kind_(kind) {}

    const ItemIdentifier& itemIdentifier() const override { return identifier_; }
    const ItemIdentifier& parentItemIdentifier() const override { return none_; }
    const std::string& filename() const override { return identifier_; }
    const std::string& typeIdentifier() const override { return none_; }
    std::optional<std::uint64_t> documentSize() const override { return std::nullopt; }
    std::optional<Date> creationDate() const override { return std::nullopt; }
    std::optional<Date> contentModificationDate() const override { return std::nullopt; }
    std::optional<std::uint16_t> childItemCount() const override { return std::nullopt; }
    std::uint64_t capabilities() const override { return 1; }
    const std::optional<Bytes>& versionIdentifier() const override { return noBytes_; }
    bool isTrashed() const override { return false; }
    std::optional<Date> lastUsedDate() const override { return std::nullopt; }
    const std::optional<Bytes>& tagData() const override { return noBytes_; }
    std::optional<std::uint64_t> favoriteRank() const override { return std::nullopt; }
    std::optional<FileID> fileID() const override { return std::nullopt; }
    std::optional<std::int64_t> docID() const override { return std::nullopt; }
    const URL& fileURL() const override { return url_; }
    const std::optional<std::string>& searchDomainIdentifier() const override { return noText_; }
    const std::optional<std::string>& appContainerBundleIdentifier() const override { return noText_; }
    bool isUbiquitous() const override { return false; }
    bool isFolder() const override { return kind_ == Kind::folder; }
    bool isContainer() const override { return false; }
    std::string description() const override { return identifier_; }

private:
    ItemIdentifier identifier_;
    Kind kind_;
    std::string none_;
    std::optional<Bytes> noBytes_;
    std::optional<std::string> noText_;
    URL url_ = URL::file("/");
};

/// One request's answer: items, then the next page, the end, or an error.
struct Answer {
    std::vector<ProviderItemPtr> items;
    Result<std::optional<EnumerationPage>> finish = std::optional<EnumerationPage>();
};

/// Gives each request for a container the next answer of its script and keeps the pages that were asked for.
class ScriptedProvider : public StubProvider {
public:
    std::map<ItemIdentifier, std::vector<Answer>> scripts;
    std::vector<std::string> pages;
    int invalidations = 0;
    std::function<void(const std::optional<hostframework::SyncAnchor>&)> lateCompletion;

    Result<std::shared_ptr<hostframework::ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const ItemIdentifier& identifier) override {
        if (!scripts.contains(identifier)) return failure(hostframework::noSuchItem(identifier));
        return std::make_shared<Enumerator>(*this, identifier);
    }

private:
    class Enumerator : public hostframework::ProviderEnumerator {
    public:
        Enumerator(ScriptedProvider& provider, ItemIdentifier container)
            : provider_(provider), container_(std::move(container)) {}
        void enumerateItemsForObserver(const std::shared_ptr<hostframework::EnumerationObserver>& observer,
                                       const EnumerationPage& page) override {
            provider_.pages.push_back(page == hostframework::kInitialPageSortedByName ? "initial"
                                                                                      : std::string(textOf(page)));
            auto& script = provider_.scripts[container_];
            ASSERT_FALSE(script.empty()) << "asked once more than the script has answers";
            const Answer answer = script.front();
            script.erase(script.begin());
            observer->didEnumerateItems(answer.items);
            if (answer.finish) {
                observer->finishEnumeratingUpToPage(*answer.finish);
            } else {
                observer->finishEnumeratingWithError(answer.finish.error());
            }
            // Whatever comes after a finish is nobody's business any more.
            observer->didEnumerateItems({std::make_shared<ScriptedItem>("late", ScriptedItem::Kind::document)});
            observer->finishEnumeratingWithError(posixError(EIO));
        }
        void enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>&,
                                         const hostframework::SyncAnchor&) override {
            FAIL() << "a listing asks for no changes";
        }
        void currentSyncAnchorWithCompletionHandler(
            const std::function<void(const std::optional<hostframework::SyncAnchor>&)>& completion) override {
            completion(Bytes{7});
            completion(Bytes{8});
            provider_.lateCompletion = completion;
        }
        void invalidate() override { ++provider_.invalidations; }

    private:
        ScriptedProvider& provider_;
        ItemIdentifier container_;
    };
};

ProviderItemPtr document(const char* name) {
    return std::make_shared<ScriptedItem>(name, ScriptedItem::Kind::document);
}
ProviderItemPtr folder(const char* name) { return std::make_shared<ScriptedItem>(name, ScriptedItem::Kind::folder); }
std::optional<EnumerationPage> page(std::string_view text) { return Bytes(text.begin(), text.end()); }

std::vector<std::string> paths(const std::vector<ListedItem>& items) {
    std::vector<std::string> result;
    for (const auto& item : items) result.push_back(item.path);
    return result;
}

using Texts = std::vector<std::string>;

TEST(ListContainer, FollowsThePagesToTheEnd) {
    ScriptedProvider provider;
    provider.scripts["c"] = {{{document("a"), document("b")}, page("p1")}, {{document("d")}, page("p2")}, {{}, {}}};
    std::vector<std::size_t> progress;
    ListingOptions options;
    options.progress = [&](std::size_t count) { progress.push_back(count); };
    const auto items = listContainer(provider, "c", options);
    ASSERT_TRUE(items);
    EXPECT_EQ(paths(*items), (Texts{"a", "b", "d"}));
    EXPECT_EQ(provider.pages, (Texts{"initial", "p1", "p2"}));
    EXPECT_EQ(progress, (std::vector<std::size_t>{2, 3, 3}));
    EXPECT_EQ(provider.invalidations, 1);
}

TEST(ListContainer, BeginsAgainWhenPagesExpireAndForgetsWhatItHad) {
    ScriptedProvider provider;
    provider.scripts["c"] = {{{document("gone"), document("b")}, page("p1")},
                             {{}, failure(hostframework::syncAnchorExpired())},
                             {{document("b")}, {}}};
    const auto items = listContainer(provider, "c");
    ASSERT_TRUE(items);
    EXPECT_EQ(paths(*items), Texts{"b"});
    EXPECT_EQ(provider.pages, (Texts{"initial", "p1", "initial"}));
    EXPECT_EQ(provider.invalidations, 1);
}

TEST(ListContainer, AsksForTheFolderAgainWhenItWentElsewhere) {
    ScriptedProvider provider;
    provider.scripts["c"] = {{{document("gone")}, page("p1")},
                             {{}, failure(items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID))},
                             {{document("a")}, page("p1")},
                             {{document("b")}, {}}};
    const auto items = listContainer(provider, "c");
    ASSERT_TRUE(items);
    EXPECT_EQ(paths(*items), (Texts{"a", "b"}));
    EXPECT_EQ(provider.pages, (Texts{"initial", "p1", "initial", "p1"}));
    EXPECT_EQ(provider.invalidations, 2);
}

TEST(ListContainer, GivesUpAfterEightRestarts) {
    ScriptedProvider provider;
    const Answer expired{{}, failure(hostframework::syncAnchorExpired())};
    provider.scripts["c"] = std::vector<Answer>(9, expired);
    const auto items = listContainer(provider, "c");
    ASSERT_FALSE(items);
    EXPECT_TRUE(items.error().is(ErrorDomain::host, hostframework::kSyncAnchorExpired));
    EXPECT_EQ(provider.pages.size(), 9u);
}

TEST(ListContainer, SucceedsOnTheEighthRestart) {
    ScriptedProvider provider;
    const Answer expired{{}, failure(hostframework::syncAnchorExpired())};
    provider.scripts["c"] = std::vector<Answer>(8, expired);
    provider.scripts["c"].push_back({{document("a")}, {}});
    const auto items = listContainer(provider, "c");
    ASSERT_TRUE(items);
    EXPECT_EQ(paths(*items), Texts{"a"});
}

TEST(ListContainer, DoesNotBeginAgainForOtherErrors) {
    ScriptedProvider provider;
    provider.scripts["c"] = {{{document("a")}, failure(posixError(EIO))}};
    const auto items = listContainer(provider, "c");
    ASSERT_FALSE(items);
    EXPECT_TRUE(items.error().is(ErrorDomain::posix, EIO));
    EXPECT_EQ(provider.invalidations, 1);
}

TEST(ListContainer, FailsForAnUnknownContainer) {
    ScriptedProvider provider;
    const auto items = listContainer(provider, "none");
    ASSERT_FALSE(items);
    EXPECT_TRUE(items.error().is(ErrorDomain::host, hostframework::kNoSuchItem));
}

TEST(ListContainer, ListsAFolderRightBeforeItsContents) {
    ScriptedProvider provider;
    provider.scripts["c"] = {{{document("a"), folder("f"), document("z")}, {}}};
    provider.scripts["f"] = {{{folder("g"), document("y")}, {}}};
    provider.scripts["g"] = {{{document("x")}, {}}};
    ListingOptions options;
    options.depth = Depth::recursive;
    const auto items = listContainer(provider, "c", options);
    ASSERT_TRUE(items);
    EXPECT_EQ(paths(*items), (Texts{"a", "f", "f/g", "f/g/x", "f/y", "z"}));
}

TEST(ListContainer, LeavesOutTheContentsOfAFolderThatWentMeanwhile) {
    ScriptedProvider provider;
    provider.scripts["c"] = {{{folder("gone"), document("z")}, {}}};
    ListingOptions options;
    options.depth = Depth::recursive;
    const auto items = listContainer(provider, "c", options);
    ASSERT_TRUE(items);
    EXPECT_EQ(paths(*items), (Texts{"gone", "z"}));
}

TEST(ListContainer, WalksAChainOfFiveThousandFolders) {
    ScriptedProvider provider;
    for (int depth = 0; depth < 5000; ++depth) {
        const std::string below = "f" + std::to_string(depth + 1);
        provider.scripts["f" + std::to_string(depth)] = {{{folder(below.c_str())}, {}}};
    }
    provider.scripts["f5000"] = {{{document("end")}, {}}};
    ListingOptions options;
    options.depth = Depth::recursive;
    const auto items = listContainer(provider, "f0", options);
    ASSERT_TRUE(items);
    EXPECT_EQ(items->size(), 5001u);
    EXPECT_EQ(items->back().item->filename(), "end");
}

TEST(CurrentSyncAnchor, IsTheEnumerators) {
    ScriptedProvider provider;
    provider.scripts["c"] = {};
    const auto anchor = currentSyncAnchor(provider, "c");
    ASSERT_TRUE(anchor);
    EXPECT_EQ(*anchor, Bytes{7});
    EXPECT_EQ(provider.invalidations, 1);
    provider.lateCompletion(Bytes{9});
    EXPECT_FALSE(currentSyncAnchor(provider, "none"));
}

}  // namespace
}  // namespace tarnwell::host
