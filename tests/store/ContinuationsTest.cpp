#include "platform/store/Continuations.h"

#include "tests/store/StoreFixture.h"

namespace tarnwell::store {
namespace {

class ContinuationsTest : public StoreFixture {
protected:
    void remember(const BatchKey& key, const Continuation& continuation) {
        Session session(*store_);
        session.write();
        session.continuations().remember(key, continuation);
        EXPECT_TRUE(session.commit());
    }
    std::optional<Continuation> find(const BatchKey& key) {
        Session session(*store_);
        auto found = session.continuations().find(key);
        EXPECT_TRUE(session.check());
        return found;
    }

    const BatchKey key_{"RootContainer", EventID{10}, 200};
};

TEST_F(ContinuationsTest, AreFoundAgainAfterARestart) {
    const Continuation inFolder{EventID{50}, EventID{10}, FileID{7}, 120, EventID{49}};
    const Continuation plain{EventID{60}, EventID{20}};
    remember(key_, inFolder);
    remember({"RootContainer", EventID{10}, 400}, plain);
    open();
    EXPECT_EQ(find(key_), inFolder);
    EXPECT_EQ(find({"RootContainer", EventID{10}, 400}), plain);
    EXPECT_EQ(find({"RootContainer", EventID{10}, 600}), std::nullopt);
    EXPECT_EQ(find({"RootContainer", EventID{11}, 200}), std::nullopt);
    EXPECT_EQ(find({"WorkingSetContainer", EventID{10}, 200}), std::nullopt);
}

TEST_F(ContinuationsTest, TheEarliestOfAKeyStands) {
    // From the one that had told least to the one that had told most.
    const Continuation rising[] = {{EventID{40}, EventID{10}},
                                   {EventID{50}, EventID{10}, FileID{7}, 3, EventID{49}},
                                   {EventID{50}, EventID{10}, FileID{7}, 4, EventID{30}},
                                   {EventID{50}, EventID{10}},
                                   {EventID{50}, EventID{12}},
                                   {EventID{51}, EventID{10}}};
    for (const Continuation& early : rising) {
        for (const Continuation& late : rising) {
            const bool isFirst = &early < &late;
            EXPECT_EQ(early.isBefore(late), isFirst);
            const BatchKey key{"pair", EventID{10},
                               static_cast<std::uint64_t>(200 * (1 + (&early - rising) * 10 + (&late - rising)))};
            remember(key, late);
            remember(key, early);
            EXPECT_EQ(find(key), isFirst ? early : late);
        }
    }
}

TEST_F(ContinuationsTest, TheLastOnesAreKept) {
    Session session(*store_);
    session.write();
    for (std::uint64_t i = 1; i <= Continuations::kMostKept + 5; ++i) {
        session.continuations().remember({"RootContainer", EventID{i}, 200}, {EventID{i}, EventID{i}});
    }
    EXPECT_EQ(session.continuations().find({"RootContainer", EventID{5}, 200}), std::nullopt);
    EXPECT_TRUE(session.continuations().find({"RootContainer", EventID{6}, 200}).has_value());
    EXPECT_TRUE(session.commit());
}

}  // namespace
}  // namespace tarnwell::store
