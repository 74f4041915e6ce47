#include <gtest/gtest.h>

#include <cerrno>

#include "ItemsFixture.h"

namespace tarnwell::items {
namespace {

using files::ResourceKey;

class FaultDecoratorsTest : public ItemsTest {
protected:
    void SetUp() override { testing::writeFile(device.path("a.txt"), "12345"); }
    std::vector<int> statCodes(int calls) {
        std::vector<int> codes;
        for (int i = 0; i < calls; ++i) {
            auto status = files.stat(device.url("a.txt"));
            codes.push_back(status ? 0 : static_cast<int>(status.error().code));
        }
        return codes;
    }
};

TEST_F(FaultDecoratorsTest, WithoutFaultsTheRealServiceAnswers) {
    EXPECT_EQ(statCodes(2), (std::vector<int>{0, 0}));
    EXPECT_EQ(files.calls(Operation::stat), 2u);
    EXPECT_EQ(files.calls(Operation::walk), 0u);
    EXPECT_TRUE(files.isReachable(device.url("a.txt")));
    EXPECT_EQ(files.calls(), 3u);
}

TEST_F(FaultDecoratorsTest, AFaultBeginsAndEndsWhereItIsPlanted) {
    files.fail(Operation::stat, EIO, 2, 1);
    EXPECT_EQ(statCodes(4), (std::vector<int>{0, EIO, EIO, 0}));
    files.clear();
    EXPECT_EQ(files.calls(), 0u);
    files.fail(Operation::stat, EIO, 1);
    files.fail(Operation::stat, EACCES, 1);
    EXPECT_EQ(statCodes(3), (std::vector<int>{EIO, EACCES, 0}));
    files.fail(Operation::stat, ENOENT);
    EXPECT_EQ(statCodes(3), (std::vector<int>{ENOENT, ENOENT, ENOENT}));
    files.clear();
    EXPECT_EQ(statCodes(1), std::vector<int>{0});
}

TEST_F(FaultDecoratorsTest, EveryOperationCanFail) {
    using All = testing::FaultyFileSystem;
    for (std::size_t i = 0; i < All::kOperations; ++i) files.fail(static_cast<Operation>(i), EIO);
    const URL url = device.url("a.txt");
    Descriptor none;
    EXPECT_EQ(files.resourceValue(url, ResourceKey::name).error(), posixError(EIO));
    EXPECT_EQ(files.setResourceValue(url, ResourceKey::fileID, 1).error(), posixError(EIO));
    EXPECT_FALSE(files.isFolder(device.url()));
    EXPECT_EQ(files.openEventOnly(url).error(), posixError(EIO));
    EXPECT_EQ(files.deviceID(none).error(), posixError(EIO));
    EXPECT_EQ(files.attributeList(none).error(), posixError(EIO));
    EXPECT_EQ(files.pathOfFileID(FileID{1}, device.device()).error(), posixError(EIO));
    EXPECT_EQ(files.stat(url).error(), posixError(EIO));
    EXPECT_FALSE(files.isReachable(url));
    EXPECT_EQ(files.getAttribute(url, "x", {}).error(), posixError(EIO));
    EXPECT_EQ(files.setAttribute(none, "x", {}).error(), posixError(EIO));
    EXPECT_EQ(files.removeAttribute(none, "x").error(), posixError(EIO));
    EXPECT_EQ(files.walk(device.url(), 0, nullptr).error(), posixError(EIO));
    EXPECT_EQ(files.createDirectory(device.url("New")).error(), posixError(EIO));
    for (std::size_t i = 0; i < All::kOperations; ++i) EXPECT_EQ(files.calls(static_cast<Operation>(i)), 1u) << i;
}

TEST_F(FaultDecoratorsTest, PlantedValuesAndActionsTakePartInACall) {
    files.answerResource(ResourceKey::name, std::string("other"));
    files.failResource(ResourceKey::fileSize, posixError(EIO));
    EXPECT_EQ(*files.resourceValue(device.url("a.txt"), ResourceKey::name), files::ResourceValue(std::string("other")));
    EXPECT_EQ(files.resourceValue(device.url("a.txt"), ResourceKey::fileSize).error(), posixError(EIO));
    EXPECT_TRUE(files.resourceValue(device.url("a.txt"), ResourceKey::isWritable));
    int runs = 0;
    files.meanwhile(Operation::stat, [&] { ++runs; }, 1);
    statCodes(1);
    EXPECT_EQ(runs, 0);
    statCodes(2);
    EXPECT_EQ(runs, 1);
    files.answerLinkCount(9);
    EXPECT_EQ(files.stat(device.url())->linkCount, 9u);
    files.clear();
    EXPECT_EQ(files.stat(device.url())->linkCount, 3u);
}

TEST_F(FaultDecoratorsTest, TheStoreFailsInTheOrderPlanted) {
    auto object = device.files().openEventOnly(device.url("a.txt"));
    ASSERT_TRUE(object);
    store.failAllocations(ENOSPC, 1);
    store.failAllocations(EIO, 1);
    EXPECT_EQ(store.getOrAllocateDocumentID(*object).error(), posixError(ENOSPC));
    EXPECT_EQ(store.getOrAllocateDocumentID(*object).error(), posixError(EIO));
    auto documentID = store.getOrAllocateDocumentID(*object);
    ASSERT_TRUE(documentID);
    EXPECT_EQ(store.allocations(), 3u);
    store.failLookups(EBUSY, 5);
    EXPECT_EQ(store.fileIDForDocumentID(*documentID, device.device()).error(), posixError(EBUSY));
    store.stopFailing();
    EXPECT_TRUE(store.fileIDForDocumentID(*documentID, device.device()));
    EXPECT_EQ(store.lookups(), 2u);
    EXPECT_EQ(store.documentStorageFolder(), device.url());
}

}  // namespace
}  // namespace tarnwell::items
