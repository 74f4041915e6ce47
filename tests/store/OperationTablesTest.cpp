#include "platform/store/Temporaries.h"
#include "platform/store/TrashOrigins.h"
#include "tests/store/StoreFixture.h"

namespace tarnwell::store {
namespace {

class OperationTablesTest : public StoreFixture {
protected:
    template <typename Change>
    void change(Change&& change) {
        Session session(*store_);
        session.write();
        change(session);
        ASSERT_TRUE(session.commit());
    }
    std::vector<Temporary> temporaries() {
        Session session(*store_);
        auto all = session.temporaries().all();
        EXPECT_TRUE(session.check());
        return all;
    }
    std::optional<TrashOrigin> originOf(const ObjectIdentity& object) {
        Session session(*store_);
        auto origin = session.trashOrigins().of(object);
        EXPECT_TRUE(session.check());
        return origin;
    }
};

TEST_F(OperationTablesTest, TemporariesAreKeptUntilTheyAreRemoved) {
    Temporary one{0,         TemporaryKind::aside, "/Documents", "a/\xff", ~std::uint64_t{0}, -5,
                  FileID{9}, ".tarnwell-1",        "name \xfe"};
    Temporary two{0, TemporaryKind::copy, "/Documents", "", 1, 0, std::nullopt, ".tarnwell-2", ""};
    change([&](Session& session) {
        one.number = session.temporaries().add(one);
        two.number = session.temporaries().add(two);
    });
    EXPECT_NE(one.number, two.number);
    open();
    EXPECT_EQ(temporaries(), (std::vector<Temporary>{one, two}));
    change([&](Session& session) { session.temporaries().setKind(one.number, TemporaryKind::removal); });
    one.kind = TemporaryKind::removal;
    change([&](Session& session) { session.temporaries().remove(two.number); });
    EXPECT_EQ(temporaries(), (std::vector<Temporary>{one}));
    {
        Session session(*store_);
        session.write();
        session.temporaries().remove(one.number);
    }
    EXPECT_EQ(temporaries(), (std::vector<Temporary>{one})) << "a session that is not committed takes it back";
}

TEST_F(OperationTablesTest, AnOriginBelongsToOneIdentity) {
    const ObjectIdentity object{1, 10, 5}, later{1, 10, 6}, elsewhere{2, 10, 5};
    const TrashOrigin origin{FileID{7}, "name \xff", "name 2"};
    change([&](Session& session) { session.trashOrigins().set(object, origin); });
    change([&](Session& session) { session.trashOrigins().set(later, {std::nullopt, "other", "other"}); });
    open();
    EXPECT_EQ(originOf(object), origin);
    EXPECT_EQ(originOf(later), (TrashOrigin{std::nullopt, "other", "other"}));
    EXPECT_EQ(originOf(elsewhere), std::nullopt);
    change([&](Session& session) { session.trashOrigins().set(object, {FileID{8}, "again", "again"}); });
    EXPECT_EQ(originOf(object), (TrashOrigin{FileID{8}, "again", "again"}));
    change([&](Session& session) { session.trashOrigins().forget(object); });
    EXPECT_EQ(originOf(object), std::nullopt);
    EXPECT_TRUE(originOf(later));
}

TEST_F(OperationTablesTest, TheLastOriginsAreKept) {
    change([&](Session& session) {
        for (std::uint64_t i = 0; i <= TrashOrigins::kMostKept; ++i) {
            session.trashOrigins().set({1, i + 1, 0}, {std::nullopt, "a", "b"});
        }
    });
    EXPECT_FALSE(originOf({1, 1, 0}));
    EXPECT_TRUE(originOf({1, 2, 0}));
    EXPECT_TRUE(originOf({1, TrashOrigins::kMostKept + 1, 0}));
}

TEST_F(OperationTablesTest, AStoreFromBeforeTheseTablesGetsThem) {
    const UUID uuid = store_->uuid();
    store_.reset();
    {
        auto database = Database::open(directory_.path("state/index.sqlite")).value();
        database->execute("DROP TABLE temporary; DROP TABLE trashed");
        ASSERT_FALSE(database->error());
    }
    open();
    EXPECT_EQ(store_->origin(), StoreOrigin::reopened);
    EXPECT_EQ(store_->uuid(), uuid);
    EXPECT_TRUE(temporaries().empty());
    change([&](Session& session) { session.trashOrigins().set({1, 1, 1}, {std::nullopt, "a", "b"}); });
}

}  // namespace
}  // namespace tarnwell::store
