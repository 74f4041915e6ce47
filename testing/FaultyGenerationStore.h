#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/store/GenerationStore.h"

namespace tarnwell::testing {

/// A generation store that does what the real one behind it does, once its next calls have failed as a test wants.
/// Counts every call. Any thread may call it.
class FaultyGenerationStore : public store::GenerationStoreManager {
public:
    explicit FaultyGenerationStore(store::GenerationStoreManager& real) : real_(real) {}

    /// The next `times` lookups / allocations, after those that are to fail already, fail with that errno.
    void failLookups(int posixCode, unsigned times);
    void failAllocations(int posixCode, unsigned times);
    /// Takes away the failures that have not happened.
    void stopFailing();
    /// Calls since the beginning, failed ones included.
    std::uint64_t lookups() const;
    std::uint64_t allocations() const;
    /// Every URL of which the permanent storage was asked, as paths.
    std::vector<std::string> asked() const;
    /// The next `times` questions for the permanent storage fail with that errno.
    void failQuestions(int posixCode, unsigned times);

    Result<DocumentID> getOrAllocateDocumentID(const Descriptor& descriptor) override;
    Result<std::optional<DocumentID>> permanentStorage(const URL& url) override;
    Result<FileID> fileIDForDocumentID(DocumentID documentID, DeviceID device) override;
    URL documentStorageFolder() const override { return real_.documentStorageFolder(); }

private:
    struct Plan {
        std::deque<int> codes;
        std::uint64_t calls = 0;
    };
    /// Counts the call and gives the errno that it is to fail with.
    std::optional<int> entered(Plan& plan);

    store::GenerationStoreManager& real_;
    mutable std::mutex mutex_;
    Plan lookups_, allocations_, questions_;
    std::vector<std::string> asked_;
};

}  // namespace tarnwell::testing
