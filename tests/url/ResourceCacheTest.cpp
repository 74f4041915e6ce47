#include "platform/url/ResourceCache.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>

namespace tarnwell {
namespace {

std::unique_ptr<const ResourceSnapshot> snapshotNamed(std::string name) {
    auto snapshot = std::make_unique<ResourceSnapshot>();
    snapshot->name = std::move(name);
    return snapshot;
}

TEST(ResourceCache, HoldsNothingAtFirst) {
    const ResourceCache cache;
    EXPECT_EQ(cache.snapshot(), nullptr);
    EXPECT_EQ(cache.fileID(), std::nullopt);
    EXPECT_EQ(cache.documentID(), std::nullopt);
}

TEST(ResourceCache, KeepsTheFirstSnapshot) {
    ResourceCache cache;
    const ResourceSnapshot* first = cache.keep(snapshotNamed("first"));
    EXPECT_EQ(first->name, "first");
    EXPECT_EQ(cache.keep(snapshotNamed("second")), first);
    EXPECT_EQ(cache.snapshot(), first);
    EXPECT_EQ(first->name, "first");
}

TEST(ResourceCache, KeepsTheLastIDs) {
    ResourceCache cache;
    cache.setFileID(FileID{1});
    cache.setFileID(FileID{0xFFFF'FFFF'FFFF'FFFF});
    cache.setDocumentID(DocumentID{0xFFFF'FFFF});
    EXPECT_EQ(cache.fileID(), FileID{0xFFFF'FFFF'FFFF'FFFF});
    EXPECT_EQ(cache.documentID(), DocumentID{0xFFFF'FFFF});
}

TEST(ResourceCache, GivesEveryThreadTheSameSnapshot) {
    for (int round = 0; round < 200; ++round) {
        ResourceCache cache;
        std::array<const ResourceSnapshot*, 4> seen{};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] { seen[i] = cache.keep(snapshotNamed(std::to_string(i))); });
        }
        for (auto& thread : threads) thread.join();
        for (const auto* snapshot : seen) EXPECT_EQ(snapshot, cache.snapshot());
    }
}

}  // namespace
}  // namespace tarnwell
