#include "testing/FaultyFileSystem.h"

#include <numeric>
#include <utility>

namespace tarnwell::testing {

using files::ResourceKey;
using files::ResourceValue;

void FaultyFileSystem::fail(Operation operation, Error error, unsigned times, unsigned after) {
    std::lock_guard lock(mutex_);
    faults_.push_back({operation, after, times, std::move(error), nullptr});
}

void FaultyFileSystem::failResource(ResourceKey key, Error error) {
    std::lock_guard lock(mutex_);
    resources_.insert_or_assign(key, Result<ResourceValue>(failure(std::move(error))));
}

void FaultyFileSystem::answerResource(ResourceKey key, ResourceValue value) {
    std::lock_guard lock(mutex_);
    resources_.insert_or_assign(key, Result<ResourceValue>(std::move(value)));
}

void FaultyFileSystem::answerLinkCount(std::optional<std::uint32_t> linkCount) {
    std::lock_guard lock(mutex_);
    linkCount_ = linkCount;
}

void FaultyFileSystem::withholdDocumentIDs() {
    std::lock_guard lock(mutex_);
    withholdsDocumentIDs_ = true;
    resources_.insert_or_assign(ResourceKey::documentID, ResourceValue());
}

void FaultyFileSystem::meanwhile(Operation operation, std::function<void()> action, unsigned after) {
    std::lock_guard lock(mutex_);
    faults_.push_back({operation, after, 1, std::nullopt, std::move(action)});
}

void FaultyFileSystem::clear() {
    std::lock_guard lock(mutex_);
    faults_.clear();
    resources_.clear();
    linkCount_.reset();
    withholdsDocumentIDs_ = false;
    calls_.fill(0);
}

std::uint64_t FaultyFileSystem::calls(Operation operation) const {
    std::lock_guard lock(mutex_);
    return calls_.at(std::to_underlying(operation));
}

std::uint64_t FaultyFileSystem::calls() const {
    std::lock_guard lock(mutex_);
    return std::accumulate(calls_.begin(), calls_.end(), std::uint64_t{0});
}

std::optional<Error> FaultyFileSystem::entered(Operation operation) {
    std::vector<std::function<void()>> actions;
    std::optional<Error> error;
    {
        std::lock_guard lock(mutex_);
        ++calls_.at(std::to_underlying(operation));
        for (Fault& fault : faults_) {
            if (fault.operation != operation || fault.times == 0) continue;
            if (fault.error && error) continue;
            if (fault.after > 0) {
                --fault.after;
                continue;
            }
            if (fault.times != kAlways) --fault.times;
            if (fault.error) error = fault.error;
            if (fault.action) actions.push_back(fault.action);
        }
    }
    for (auto& action : actions) action();
    return error;
}

Result<ResourceValue> FaultyFileSystem::resourceValue(const URL& url, ResourceKey key) {
    if (auto error = entered(Operation::resourceValue)) return failure(*error);
    {
        std::lock_guard lock(mutex_);
        auto planted = resources_.find(key);
        if (planted != resources_.end()) return planted->second;
    }
    return real_.resourceValue(url, key);
}

Result<void> FaultyFileSystem::setResourceValue(const URL& url, ResourceKey key, std::uint64_t value) {
    if (auto error = entered(Operation::setResourceValue)) return failure(*error);
    return real_.setResourceValue(url, key, value);
}

bool FaultyFileSystem::isFolder(const URL& url) { return !entered(Operation::isFolder) && real_.isFolder(url); }

Result<Descriptor> FaultyFileSystem::openEventOnly(const URL& url) {
    if (auto error = entered(Operation::openEventOnly)) return failure(*error);
    return real_.openEventOnly(url);
}

Result<DeviceID> FaultyFileSystem::deviceID(const Descriptor& descriptor) {
    if (auto error = entered(Operation::deviceID)) return failure(*error);
    return real_.deviceID(descriptor);
}

Result<files::ObjectAttributes> FaultyFileSystem::attributeList(const Descriptor& descriptor) {
    if (auto error = entered(Operation::attributeList)) return failure(*error);
    auto attributes = real_.attributeList(descriptor);
    std::lock_guard lock(mutex_);
    if (attributes && withholdsDocumentIDs_) attributes->documentID.reset();
    return attributes;
}

Result<URL> FaultyFileSystem::pathOfFileID(FileID fileID, DeviceID device) {
    if (auto error = entered(Operation::pathOfFileID)) return failure(*error);
    return real_.pathOfFileID(fileID, device);
}

Result<files::FileStatus> FaultyFileSystem::stat(const URL& url) {
    if (auto error = entered(Operation::stat)) return failure(*error);
    auto status = real_.stat(url);
    std::lock_guard lock(mutex_);
    if (status && linkCount_) status->linkCount = *linkCount_;
    return status;
}

bool FaultyFileSystem::isReachable(const URL& url) {
    return !entered(Operation::isReachable) && real_.isReachable(url);
}

Result<std::size_t> FaultyFileSystem::getAttribute(const URL& url, const std::string& name,
                                                   std::span<std::uint8_t> buffer) {
    if (auto error = entered(Operation::getAttribute)) return failure(*error);
    return real_.getAttribute(url, name, buffer);
}

Result<void> FaultyFileSystem::setAttribute(const Descriptor& descriptor, const std::string& name, ByteView value) {
    if (auto error = entered(Operation::setAttribute)) return failure(*error);
    return real_.setAttribute(descriptor, name, value);
}

Result<void> FaultyFileSystem::removeAttribute(const Descriptor& descriptor, const std::string& name) {
    if (auto error = entered(Operation::removeAttribute)) return failure(*error);
    return real_.removeAttribute(descriptor, name);
}

Result<std::unique_ptr<files::DirectoryWalker>> FaultyFileSystem::walk(const URL& folder, unsigned options,
                                                                       files::WalkErrorHandler errorHandler) {
    if (auto error = entered(Operation::walk)) return failure(*error);
    return real_.walk(folder, options, std::move(errorHandler));
}

Result<void> FaultyFileSystem::createDirectory(const URL& url) {
    if (auto error = entered(Operation::createDirectory)) return failure(*error);
    return real_.createDirectory(url);
}

}  // namespace tarnwell::testing
