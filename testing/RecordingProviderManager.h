#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hostframework/ProviderManager.h"
#include "platform/dispatch/SerialQueue.h"

namespace tarnwell::testing {

/// A host that keeps what the provider asks of it; index deletions succeed unless told to fail.
class RecordingProviderManager : public hostframework::ProviderManager {
public:
    RecordingProviderManager(std::shared_ptr<dispatch::ThreadPool> pool, URL storage);
    void signalEnumeratorForContainer(const std::string& container, hostframework::Completion completion) override;
    void deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>& domains,
                                                    hostframework::Completion completion) override;
    URL documentStorageURL() const override { return URL::file(storage_.path()); }
    Relationship relationshipToDocumentStorage(const URL& url) const override { return relationship(storage_, url); }

    std::vector<std::string> signals() const;
    /// Blocks until that many signals came, at most 10 s; returns them all.
    std::vector<std::string> waitForSignals(std::size_t count);
    std::vector<std::vector<std::string>> deletions() const;
    void failDeletionsWith(std::optional<Error> error);

private:
    std::shared_ptr<dispatch::SerialQueue> queue_;
    URL storage_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> signals_;
    std::vector<std::vector<std::string>> deletions_;
    std::optional<Error> deletionError_;
};

}  // namespace tarnwell::testing
