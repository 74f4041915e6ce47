#include "platform/store/KeptTable.h"

#include "tests/store/StoreFixture.h"

namespace tarnwell::store {
namespace {

class KeptTableTest : public StoreFixture {
protected:
    FileID insertObject(std::uint64_t inode) {
        ObjectRow row;
        row.identity = {1, inode, 1};
        row.parent = 2;
        row.name = std::to_string(inode);
        Session session(*store_);
        session.write();
        session.index().insert(row);
        EXPECT_TRUE(session.commit());
        return row.fileID;
    }
    void set(FileID object, const std::vector<KeptAttribute>& attributes) {
        Session session(*store_);
        session.write();
        session.kept().set(object, attributes);
        EXPECT_TRUE(session.commit());
    }
    std::vector<KeptAttribute> of(FileID object) {
        Session session(*store_);
        auto attributes = session.kept().of(object);
        EXPECT_TRUE(session.check());
        return attributes;
    }
};

TEST_F(KeptTableTest, KeepsWhatWasLastSetForEachObject) {
    const FileID one = insertObject(10), two = insertObject(11);
    EXPECT_EQ(of(one), std::vector<KeptAttribute>{});
    const std::vector<KeptAttribute> several{{"a", {}}, {"b", {0, 255, 0}}, {"c \xff", Bytes(5000, 7)}};
    set(one, several);
    set(two, {{"a", {1}}});
    open();
    EXPECT_EQ(of(one), several);
    EXPECT_EQ(of(two), (std::vector<KeptAttribute>{{"a", {1}}}));
    set(one, {{"b", {2}}});
    EXPECT_EQ(of(one), (std::vector<KeptAttribute>{{"b", {2}}}));
    set(one, {});
    EXPECT_EQ(of(one), std::vector<KeptAttribute>{});
    EXPECT_EQ(of(two), (std::vector<KeptAttribute>{{"a", {1}}}));
}

TEST_F(KeptTableTest, ASessionThatIsNotCommittedTakesItBack) {
    const FileID object = insertObject(10);
    set(object, {{"a", {1}}});
    {
        Session session(*store_);
        session.write();
        session.kept().set(object, std::vector<KeptAttribute>{{"b", {2}}});
    }
    EXPECT_EQ(of(object), (std::vector<KeptAttribute>{{"a", {1}}}));
}

TEST_F(KeptTableTest, TheRowsOfAnObjectGoWithIt) {
    const FileID stays = insertObject(10), goes = insertObject(11);
    set(stays, {{"a", {1}}});
    set(goes, {{"a", {2}}});
    {
        Session session(*store_);
        session.write();
        session.index().setState(goes, ObjectState::gone);
        EXPECT_EQ(session.kept().of(goes).size(), 1u) << "it may turn up again until it is given up";
        EXPECT_EQ(session.index().purgeGone(), 1u);
        ASSERT_TRUE(session.commit());
    }
    EXPECT_EQ(of(stays), (std::vector<KeptAttribute>{{"a", {1}}}));
    EXPECT_EQ(of(goes), std::vector<KeptAttribute>{});
}

}  // namespace
}  // namespace tarnwell::store
