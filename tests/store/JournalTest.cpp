#include "platform/store/Journal.h"

#include "tests/store/StoreFixture.h"

namespace tarnwell::store {
namespace {

class JournalTest : public StoreFixture {
protected:
    /// So many documents that left, and as many whose number ended.
    void record(std::uint32_t departures, std::uint32_t changes) {
        Session session(*store_);
        session.write();
        for (std::uint32_t i = 1; i <= departures; ++i) {
            session.journal().recordDeparture(FileID{i}, DocumentID{i}, 2, "/r/" + std::to_string(i));
        }
        for (std::uint32_t i = 1; i <= changes; ++i) session.journal().recordDocumentChange(DocumentID{i}, i, 0);
        EXPECT_TRUE(session.commit());
    }
    void trim(std::uint64_t departures, std::uint64_t changes) {
        Session session(*store_);
        session.write();
        session.journal().trim(departures, changes);
        EXPECT_TRUE(session.commit());
    }
};

TEST_F(JournalTest, NothingIsDroppedAtTheBounds) {
    record(5, 7);
    trim(5, 7);
    Session session(*store_);
    EXPECT_EQ(session.journal().departureCount(), 5U);
    EXPECT_EQ(session.journal().documentChangesAfter(0, 100).size(), 7U);
    EXPECT_EQ(session.journal().floor(), 0U);
}

TEST_F(JournalTest, PastABoundTheOldestGoAndTheirPositionsWithThem) {
    record(5, 7);
    const auto changes = [&] {
        Session session(*store_);
        return session.journal().documentChangesAfter(0, 100);
    }();
    ASSERT_EQ(changes.size(), 7U);
    trim(5, 4);
    {
        Session session(*store_);
        const auto left = session.journal().documentChangesAfter(0, 100);
        ASSERT_EQ(left.size(), 4U);
        EXPECT_EQ(left.front().event, changes[3].event);
        EXPECT_EQ(session.journal().departureCount(), 5U);
        EXPECT_FALSE(session.journal().canReplayAfter(changes[2].event - 1));
        EXPECT_TRUE(session.journal().canReplayAfter(changes[2].event));
    }
    // The departures are older than that, and take no position back.
    trim(3, 4);
    Session session(*store_);
    EXPECT_EQ(session.journal().departureCount(), 3U);
    EXPECT_EQ(session.journal().floor(), changes[2].event);
}

}  // namespace
}  // namespace tarnwell::store
