#include "testing/FaultyGenerationStore.h"

namespace tarnwell::testing {

void FaultyGenerationStore::failLookups(int posixCode, unsigned times) {
    std::lock_guard lock(mutex_);
    lookups_.codes.insert(lookups_.codes.end(), times, posixCode);
}

void FaultyGenerationStore::failAllocations(int posixCode, unsigned times) {
    std::lock_guard lock(mutex_);
    allocations_.codes.insert(allocations_.codes.end(), times, posixCode);
}

std::uint64_t FaultyGenerationStore::lookups() const {
    std::lock_guard lock(mutex_);
    return lookups_.calls;
}

std::uint64_t FaultyGenerationStore::allocations() const {
    std::lock_guard lock(mutex_);
    return allocations_.calls;
}

std::vector<std::string> FaultyGenerationStore::asked() const {
    std::lock_guard lock(mutex_);
    return asked_;
}

void FaultyGenerationStore::failQuestions(int posixCode, unsigned times) {
    std::lock_guard lock(mutex_);
    questions_.codes.insert(questions_.codes.end(), times, posixCode);
}

void FaultyGenerationStore::stopFailing() {
    std::lock_guard lock(mutex_);
    lookups_.codes.clear();
    allocations_.codes.clear();
    questions_.codes.clear();
}

std::optional<int> FaultyGenerationStore::entered(Plan& plan) {
    std::lock_guard lock(mutex_);
    ++plan.calls;
    if (plan.codes.empty()) return std::nullopt;
    int code = plan.codes.front();
    plan.codes.pop_front();
    return code;
}

Result<DocumentID> FaultyGenerationStore::getOrAllocateDocumentID(const Descriptor& descriptor) {
    if (auto code = entered(allocations_)) return failure(posixError(*code));
    return real_.getOrAllocateDocumentID(descriptor);
}

Result<std::optional<DocumentID>> FaultyGenerationStore::permanentStorage(const URL& url) {
    {
        std::lock_guard lock(mutex_);
        asked_.push_back(url.path());
    }
    if (auto code = entered(questions_)) return failure(posixError(*code));
    return real_.permanentStorage(url);
}

Result<FileID> FaultyGenerationStore::fileIDForDocumentID(DocumentID documentID, DeviceID device) {
    if (auto code = entered(lookups_)) return failure(posixError(*code));
    return real_.fileIDForDocumentID(documentID, device);
}

}  // namespace tarnwell::testing
