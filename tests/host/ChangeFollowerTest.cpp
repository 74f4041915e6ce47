#include "host/Changes.h"

#include "tests/host/ChangesFixture.h"
#include "tests/host/StubProvider.h"

namespace tarnwell::host {
namespace {

/// A provider whose enumerators answer requests for changes with one script: deletions, then an anchor or an error.
class ScriptedProvider : public StubProvider {
public:
    struct Answer {
        Texts deletions;
        Result<SyncAnchor> finish = SyncAnchor{1};
    };
    std::vector<Answer> script;
    int enumerators = 0, invalidations = 0;

    Result<std::shared_ptr<hostframework::ProviderEnumerator>> enumeratorForContainerItemIdentifier(
        const ItemIdentifier&) override {
        ++enumerators;
        return std::make_shared<Enumerator>(*this);
    }

private:
    class Enumerator : public hostframework::ProviderEnumerator {
    public:
        explicit Enumerator(ScriptedProvider& provider) : provider_(provider) {}
        void enumerateItemsForObserver(const std::shared_ptr<hostframework::EnumerationObserver>&,
                                       const hostframework::EnumerationPage&) override {}
        void enumerateChangesForObserver(const std::shared_ptr<hostframework::ChangeObserver>& observer,
                                         const SyncAnchor&) override {
            ASSERT_FALSE(provider_.script.empty()) << "asked once more than the script has answers";
            const Answer answer = provider_.script.front();
            provider_.script.erase(provider_.script.begin());
            observer->didDeleteItemsWithIdentifiers(answer.deletions);
            if (answer.finish) {
                observer->finishEnumeratingChangesUpToSyncAnchor(*answer.finish, true);
            } else {
                observer->finishEnumeratingWithError(answer.finish.error());
            }
            // Whatever comes after a finish is nobody's business any more.
            observer->didDeleteItemsWithIdentifiers({"late"});
            observer->finishEnumeratingChangesUpToSyncAnchor({9}, false);
            observer->finishEnumeratingWithError(posixError(EIO));
        }
        void currentSyncAnchorWithCompletionHandler(
            const std::function<void(const std::optional<SyncAnchor>&)>&) override {}
        void invalidate() override { ++provider_.invalidations; }

    private:
        ScriptedProvider& provider_;
    };
};

TEST(ChangeFollower, KeepsWhatCameBeforeTheFinish) {
    ScriptedProvider provider;
    provider.script = {{{"a", "b"}}, {{}, SyncAnchor{2}}, {{"c"}, failure(posixError(EIO))}};
    {
        auto follower = ChangeFollower::create(provider, "c");
        ASSERT_TRUE(follower);
        const auto first = follower->changesSince({0});
        ASSERT_TRUE(first);
        EXPECT_EQ(deletionsIn(*first), (Texts{"a", "b"}));
        EXPECT_EQ(first->anchor, SyncAnchor{1});
        EXPECT_TRUE(first->moreComing);
        const auto second = follower->changesSince(first->anchor);
        ASSERT_TRUE(second);
        EXPECT_TRUE(second->reports.empty());
        EXPECT_EQ(second->anchor, SyncAnchor{2});
        const auto third = follower->changesSince(second->anchor);
        ASSERT_FALSE(third);
        EXPECT_TRUE(third.error().is(ErrorDomain::posix, EIO));
        EXPECT_EQ(provider.enumerators, 1);
        EXPECT_EQ(provider.invalidations, 0);
    }
    EXPECT_EQ(provider.invalidations, 1);
}

TEST(ChangeFollower, AsksAgainOnceForAFolderThatIsElsewhere) {
    const auto elsewhere = items::makeError(items::DeviceUUIDError::unableToGetDeviceUUID);
    ScriptedProvider provider;
    provider.script = {{{"a"}, failure(elsewhere)}, {{"b"}}, {{}, failure(elsewhere)}, {{}, failure(elsewhere)}};
    {
        auto follower = ChangeFollower::create(provider, "c");
        ASSERT_TRUE(follower);
        const auto batch = follower->changesSince({0});
        ASSERT_TRUE(batch);
        EXPECT_EQ(deletionsIn(*batch), Texts{"b"});
        EXPECT_EQ(provider.enumerators, 2);
        const auto gone = follower->changesSince({0});
        ASSERT_FALSE(gone);
        EXPECT_EQ(gone.error(), elsewhere);
        EXPECT_EQ(provider.enumerators, 3);
        EXPECT_TRUE(provider.script.empty());
    }
    EXPECT_EQ(provider.invalidations, 3);
}

TEST_F(ChangesTest, AContainerThatIsNotThereCannotBeFollowed) {
    for (const char* container : {"fid=123456789", "no such", ""}) {
        EXPECT_FALSE(ChangeFollower::create(*provider_, container)) << container;
    }
}

}  // namespace
}  // namespace tarnwell::host
