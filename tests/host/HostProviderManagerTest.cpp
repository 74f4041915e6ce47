#include "host/HostProviderManager.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "platform/dispatch/ThreadPool.h"

namespace tarnwell::host {
namespace {

class HostProviderManagerTest : public ::testing::Test {
protected:
    /// Blocks until everything asked of the manager so far is done.
    void settle() {
        std::promise<std::optional<Error>> done;
        manager_.signalEnumeratorForContainer("settle",
                                              [&](const std::optional<Error>& error) { done.set_value(error); });
        EXPECT_EQ(done.get_future().get(), std::nullopt);
    }

    std::shared_ptr<dispatch::ThreadPool> pool_ = dispatch::ThreadPool::create();
    HostProviderManager manager_{pool_, URL::file("/home/ada/Documents")};
};

TEST_F(HostProviderManagerTest, TellsEveryHandlerOfSignalsInTheirOrder) {
    std::vector<std::string> first, second;
    manager_.addSignalHandler([&](const std::string& container) { first.push_back(container); });
    manager_.addSignalHandler([&](const std::string& container) { second.push_back(container); });
    manager_.signalEnumeratorForContainer("a", nullptr);
    manager_.signalEnumeratorForContainer("b", nullptr);
    settle();
    EXPECT_EQ(first, (std::vector<std::string>{"a", "b", "settle"}));
    EXPECT_EQ(second, first);
}

TEST_F(HostProviderManagerTest, ARemovedHandlerIsNotCalledAgain) {
    std::vector<std::string> heard;
    const auto id = manager_.addSignalHandler([&](const std::string& container) { heard.push_back(container); });
    manager_.signalEnumeratorForContainer("a", nullptr);
    manager_.removeSignalHandler(id);
    manager_.signalEnumeratorForContainer("b", nullptr);
    settle();
    EXPECT_EQ(heard, std::vector<std::string>{"a"});
}

TEST_F(HostProviderManagerTest, CompletionsRunOnAThreadOfTheManagersOwn) {
    std::promise<std::thread::id> done;
    manager_.signalEnumeratorForContainer(
        "a", [&](const std::optional<Error>&) { done.set_value(std::this_thread::get_id()); });
    EXPECT_NE(done.get_future().get(), std::this_thread::get_id());
}

TEST_F(HostProviderManagerTest, DeletingIndexedDomainsSucceedsAsNothingIsIndexed) {
    std::promise<std::optional<Error>> done;
    manager_.deleteSearchableItemsWithDomainIdentifiers(
        {"#a", "#b"}, [&](const std::optional<Error>& error) { done.set_value(error); });
    EXPECT_EQ(done.get_future().get(), std::nullopt);
}

TEST_F(HostProviderManagerTest, EachCallerGetsAURLWithACacheOfItsOwn) {
    EXPECT_EQ(manager_.documentStorageURL(), URL::file("/home/ada/Documents"));
    const URL one = manager_.documentStorageURL(), other = manager_.documentStorageURL();
    EXPECT_NE(&one.cache(), &other.cache());
}

}  // namespace
}  // namespace tarnwell::host
