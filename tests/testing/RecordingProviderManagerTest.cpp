#include "testing/RecordingProviderManager.h"

#include <cerrno>
#include <chrono>
#include <optional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/dispatch/ThreadPool.h"

namespace tarnwell::testing {
namespace {

using Texts = std::vector<std::string>;

class RecordingProviderManagerTest : public ::testing::Test {
protected:
    /// Makes a request and waits for its completion on this thread, as a provider may.
    template <typename Request>
    std::optional<Error> wait(Request request) {
        std::binary_semaphore done(0);
        std::optional<Error> result;
        std::thread::id thread;
        request([&](const std::optional<Error>& error) {
            result = error;
            thread = std::this_thread::get_id();
            done.release();
        });
        EXPECT_TRUE(done.try_acquire_for(std::chrono::seconds(20)));
        EXPECT_NE(thread, std::this_thread::get_id());
        return result;
    }

    RecordingProviderManager manager_{dispatch::ThreadPool::create(), URL::file("/home/someone/Documents")};
};

TEST_F(RecordingProviderManagerTest, KeepsSignalsInOrderAndCompletesThemOnAThreadOfItsOwn) {
    EXPECT_EQ(wait([&](auto completion) { manager_.signalEnumeratorForContainer("a", completion); }), std::nullopt);
    manager_.signalEnumeratorForContainer("b", nullptr);
    EXPECT_EQ(manager_.signals(), (Texts{"a", "b"}));
}

TEST_F(RecordingProviderManagerTest, WaitForSignalsReturnsWhenTheyCame) {
    std::thread later([&] {
        for (const char* name : {"a", "b", "c"}) manager_.signalEnumeratorForContainer(name, nullptr);
    });
    EXPECT_EQ(manager_.waitForSignals(3), (Texts{"a", "b", "c"}));
    later.join();
    EXPECT_EQ(manager_.waitForSignals(0).size(), 3u);
}

TEST_F(RecordingProviderManagerTest, DeletionsSucceedUnlessToldToFail) {
    auto remove = [&](Texts domains) {
        return wait([&](auto completion) { manager_.deleteSearchableItemsWithDomainIdentifiers(domains, completion); });
    };
    EXPECT_EQ(remove({"one", "two"}), std::nullopt);
    manager_.failDeletionsWith(posixError(EIO));
    EXPECT_EQ(remove({"three"}), posixError(EIO));
    manager_.failDeletionsWith(std::nullopt);
    EXPECT_EQ(remove({}), std::nullopt);
    EXPECT_EQ(manager_.deletions(), (std::vector<Texts>{{"one", "two"}, {"three"}, {}}));
}

TEST_F(RecordingProviderManagerTest, KnowsItsStorage) {
    EXPECT_EQ(manager_.documentStorageURL(), URL::file("/home/someone/Documents"));
}

}  // namespace
}  // namespace tarnwell::testing
