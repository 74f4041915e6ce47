#include "testing/RecordingProviderManager.h"

#include <chrono>
#include <utility>

namespace tarnwell::testing {
namespace {

constexpr auto kPatience = std::chrono::seconds(10);

}  // namespace

RecordingProviderManager::RecordingProviderManager(std::shared_ptr<dispatch::ThreadPool> pool, URL storage)
    : queue_(dispatch::SerialQueue::create(std::move(pool), "tarnwell.testing.provider-manager")),
      storage_(std::move(storage)) {}

void RecordingProviderManager::signalEnumeratorForContainer(const std::string& container,
                                                            hostframework::Completion completion) {
    {
        std::lock_guard lock(mutex_);
        signals_.push_back(container);
    }
    changed_.notify_all();
    if (completion) queue_->async([completion = std::move(completion)] { completion(std::nullopt); });
}

void RecordingProviderManager::deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>& domains,
                                                                          hostframework::Completion completion) {
    std::optional<Error> error;
    {
        std::lock_guard lock(mutex_);
        deletions_.push_back(domains);
        error = deletionError_;
    }
    if (completion)
        queue_->async([completion = std::move(completion), error = std::move(error)] { completion(error); });
}

std::vector<std::string> RecordingProviderManager::signals() const {
    std::lock_guard lock(mutex_);
    return signals_;
}

std::vector<std::string> RecordingProviderManager::waitForSignals(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return signals_.size() >= count; });
    return signals_;
}

std::vector<std::vector<std::string>> RecordingProviderManager::deletions() const {
    std::lock_guard lock(mutex_);
    return deletions_;
}

void RecordingProviderManager::failDeletionsWith(std::optional<Error> error) {
    std::lock_guard lock(mutex_);
    deletionError_ = std::move(error);
}

}  // namespace tarnwell::testing
