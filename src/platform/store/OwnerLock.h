#pragma once

#include <chrono>
#include <string>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"

namespace tarnwell::store {

/// Keeps a second process from using a store: a lock on an open descriptor, gone with the process however it ends.
class OwnerLock {
public:
    /// Waits up to `patience` for another owner to end, then fails with StoreError::inUse naming its process.
    static Result<OwnerLock> acquire(const std::string& path, std::chrono::milliseconds patience);

private:
    explicit OwnerLock(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}
    Descriptor descriptor_;
};

}  // namespace tarnwell::store
