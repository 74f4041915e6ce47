#include "host/EnumeratorPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "host/ContainerWatch.h"
#include "tests/host/StubProvider.h"

namespace tarnwell::host {
namespace {

using hostframework::ItemIdentifier;
using Keep = EnumeratorPool::Keep;

/// Counts its enumerators, which must be ended before they go.
class CountingProvider : public StubProvider {
public:
    class Enumerator : public hostframework::ProviderEnumerator {
    public:
        explicit Enumerator(CountingProvider& provider) : provider_(provider) { ++provider_.alive; }
        ~Enumerator() override {
            --provider_.alive;
            if (!isEnded_) ADD_FAILURE() << "an enumerator was not ended";
        }
        void enumerateItemsForObserver(const std::shared_ptr<hostframework::EnumerationObserver>&,
                                       const hostframework::EnumerationPage&) override {}
        void enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>&,
                                         const hostframework::SyncAnchor&) override {}
        void currentSyncAnchorWithCompletionHandler(
            const std::function<void(const std::optional<hostframework::SyncAnchor>&)>&) override {}
        void invalidate() override { isEnded_ = true; }

    private:
        CountingProvider& provider_;
        bool isEnded_ = false;
    };

    Result<std::shared_ptr<hostframework::ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const ItemIdentifier& identifier) override {
        if (identifier == "none") return failure(hostframework::noSuchItem(identifier));
        ++made;
        return std::make_shared<Enumerator>(*this);
    }

    std::atomic<int> alive{0}, made{0};
};

class EnumeratorPoolTest : public ::testing::Test {
protected:
    void use(const ItemIdentifier& container, Keep keep = Keep::always) {
        auto lent = pool_.take(container);
        ASSERT_TRUE(lent);
        pool_.giveBack(container, std::move(lent->enumerator), keep);
    }
    bool isKept(const ItemIdentifier& container) {
        auto lent = pool_.take(container);
        if (lent->isNew) return false;
        pool_.giveBack(container, std::move(lent->enumerator), Keep::always);
        return true;
    }

    CountingProvider provider_;
    EnumeratorPool pool_{provider_};
};

TEST_F(EnumeratorPoolTest, OneThatIsKeptServesTheNextRequest) {
    use("a");
    use("a");
    EXPECT_EQ(provider_.made, 1);
    use("b");
    EXPECT_EQ(provider_.made, 2);
    EXPECT_EQ(provider_.alive, 2);
    EXPECT_EQ(pool_.take("none").error().code, hostframework::kNoSuchItem);
}

TEST_F(EnumeratorPoolTest, ABusyOneIsNotLentTwice) {
    auto first = pool_.take("a"), second = pool_.take("a");
    EXPECT_TRUE(first->isNew && second->isNew);
    EXPECT_NE(first->enumerator.get(), second->enumerator.get());
    pool_.giveBack("a", std::move(first->enumerator), Keep::always);
    pool_.giveBack("a", std::move(second->enumerator), Keep::always);
    EXPECT_EQ(pool_.idle(), 2u);
}

TEST_F(EnumeratorPoolTest, TheOneThatWasLongestUnusedGoesFirst) {
    const auto name = [](std::size_t i) { return "f" + std::to_string(i); };
    for (std::size_t i = 0; i < EnumeratorPool::kMostIdle; ++i) use(name(i));
    EXPECT_EQ(provider_.alive, int(EnumeratorPool::kMostIdle));
    use(name(0));
    use("one more");
    EXPECT_EQ(provider_.alive, int(EnumeratorPool::kMostIdle));
    EXPECT_TRUE(isKept(name(0)));
    EXPECT_FALSE(isKept(name(1)));
}

TEST_F(EnumeratorPoolTest, WithoutAWatchNothingIsKeptThatNobodyWants) {
    use("a", Keep::whileWatched);
    EXPECT_EQ(provider_.alive, 0);
    pool_.addWatch("a");
    use("a", Keep::whileWatched);
    EXPECT_EQ(provider_.alive, 1);
    pool_.removeWatch("a");
}

TEST_F(EnumeratorPoolTest, TheLastOneOfAWatchedContainerOutlastsTheLimit) {
    pool_.addWatch("watched");
    pool_.addWatch("watched");
    use("watched");
    for (std::size_t i = 0; i < 2 * EnumeratorPool::kMostIdle; ++i) use("f" + std::to_string(i));
    EXPECT_EQ(pool_.idle(), EnumeratorPool::kMostIdle + 1);
    pool_.removeWatch("watched");
    EXPECT_EQ(pool_.idle(), EnumeratorPool::kMostIdle + 1);
    pool_.removeWatch("watched");
    EXPECT_EQ(pool_.idle(), EnumeratorPool::kMostIdle);
    EXPECT_FALSE(isKept("watched"));
}

TEST_F(EnumeratorPoolTest, SeveralThreadsNeverShareOne) {
    std::vector<std::thread> threads;
    std::mutex mutex;
    std::set<const EnumeratorHolder*> busy;
    std::atomic<int> shared{0};
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                const ItemIdentifier container = "c" + std::to_string(i % 3);
                auto lent = pool_.take(container);
                {
                    const std::lock_guard lock(mutex);
                    if (!busy.insert(lent->enumerator.get()).second) ++shared;
                }
                {
                    const std::lock_guard lock(mutex);
                    busy.erase(lent->enumerator.get());
                }
                pool_.giveBack(container, std::move(lent->enumerator), Keep::always);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(shared, 0);
    EXPECT_LE(provider_.alive, 4 * 3);
}

TEST(Concerns, ViewsConcernEverybodyAndFoldersThemselvesAndTheViews) {
    const ItemIdentifier &root = hostframework::kRootContainer, &workingSet = hostframework::kWorkingSetContainer,
                         &allDirectories = hostframework::kAllDirectoriesContainer;
    for (const auto& view : {root, workingSet, allDirectories}) {
        for (const auto& watched : {root, workingSet, allDirectories, ItemIdentifier("fid=1"), ItemIdentifier("#a")}) {
            EXPECT_TRUE(concerns(view, watched)) << view << watched;
            EXPECT_TRUE(concerns(watched, view)) << watched << view;
        }
    }
    EXPECT_TRUE(concerns("fid=1", "fid=1"));
    EXPECT_FALSE(concerns("fid=1", "fid=2"));
}

}  // namespace
}  // namespace tarnwell::host
